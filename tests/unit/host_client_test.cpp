// A host's own HTTP client in place of the SDK's: whatever way it fails, every record still arrives
// once it works; the first of two answers stands; the C form carries requests, answers and cookies.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>

#include "manager/default_sources.hpp"
#include "support/fake_http_client.hpp"
#include "support/sdk_host.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"
#include "zelvanor/zelvanor.h"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using Result = std::optional<ZHttpResult>;
using Misbehave = std::function<Result(const ZHttpRequest&)>;

const std::string kBase = "https://collector.test";
using testing::kSyncAnswer;  // the triple c, d, s, also set as cookies:
const ZHttpHeaders kSyncCookies = {{"Set-Cookie", "fa_cid=c; Path=/"},
                                   {"set-cookie", "fa_did=d"},
                                   {"Set-Cookie", "fa_sid=s; Max-Age=3600"}};

bool isSync(std::string_view url) {
  return url.find("/sync") != std::string_view::npos;
}

/// A host's client before a collector in memory: identity sync answers the triple, also as
/// cookies; records get "ok" once healed, and before that what `misbehave` says (nothing: no
/// answer ever). With `answerTwice`, every "ok" is followed by a late 503 from another thread.
class HostClient final : public ZHttpClient {
 public:
  explicit HostClient(Misbehave misbehave, bool answerTwice = false)
      : misbehave_(std::move(misbehave)), answerTwice_(answerTwice) {}

  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override {
    if (isSync(request.url)) return done(ZHttpResponse{200, kSyncCookies, kSyncAnswer});
    std::unique_lock lock(mutex_);
    ++attempts_;
    if (!healed) {
      changed_.notify_all();
      lock.unlock();
      if (Result answer = misbehave_(request)) return done(std::move(*answer));
      lock.lock();
      return unanswered_.push_back(std::move(done));
    }
    ++delivered_;
    for (const auto& [name, value] : request.headers)
      if (value.find("fa_sid=s") != std::string::npos) ++withCookies_;
    const auto record = decodeJson<ZLogRecord>(*request.body);
    if (record && record->action.type == "event") events_.insert(record->action.name);
    changed_.notify_all();
    lock.unlock();
    done(ZHttpResponse{200, {}, "ok"});
    if (!answerTwice_) return;
    lock.lock();
    late_.push_back(std::async(std::launch::async, [done] {
      done(ZHttpResponse{503, {{"Retry-After", "0"}}, "late"});
    }));
  }
  void cancelAll() override {}

  /// Waits until the records tried and the distinct events answered "ok" satisfy `ready`.
  bool waitFor(const std::function<bool(int attempts, std::size_t events)>& ready) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 20s, [&] {
      return ready(attempts_, std::set<std::string>(events_.begin(), events_.end()).size());
    });
  }
  void joinLate() {
    std::unique_lock lock(mutex_);
    const auto late = std::move(late_);
    lock.unlock();
  }  // each waits, destroyed, for its answer to be given

  std::atomic<bool> healed = false;  ///< from now on records are answered "ok"
  std::mutex mutex_;
  std::condition_variable changed_;
  int attempts_ = 0;
  std::atomic<std::uint64_t> delivered_ = 0;  ///< records answered "ok", the SDK's own among them
  int withCookies_ = 0;
  std::multiset<std::string> events_;

 private:
  Misbehave misbehave_;
  bool answerTwice_;
  std::vector<std::function<void(ZHttpResult)>> unanswered_;
  std::vector<std::future<void>> late_;  ///< destroyed, they wait for their threads
};

/// The C form, in front of a HostClient: requests and answers are translated both ways.
void sendThroughC(const zelvanor_http_request* request, zelvanor_http_exchange* exchange,
                  void* user) {
  auto body = std::make_shared<const std::string>(request->body, request->body_length);
  ZHttpRequest translated{request->method, request->url, {}, body, request->timeout_seconds};
  for (std::size_t i = 0; i < request->header_count; ++i)
    translated.headers.push_back(testing::header(request->headers[i]));
  static_cast<ZHttpClient*>(user)->send(std::move(translated), [exchange](ZHttpResult result) {
    if (const auto* failure = std::get_if<ZHttpFailure>(&result))
      return zelvanor_http_fail(exchange, failure->description.c_str(), failure->tls);
    const auto& response = std::get<ZHttpResponse>(result);
    std::vector<std::string> lines;
    for (const auto& [name, value] : response.headers) lines.push_back(name + ": " + value);
    std::vector<const char*> headers;
    for (const auto& line : lines) headers.push_back(line.c_str());
    zelvanor_http_answer(exchange, response.status, headers.data(), headers.size(),
                         response.body.data(), response.body.size());
  });
}

class HostClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ZelvanorTracker::shutdown();
    detail::setRetryTimings(support::RetryTimings{.first = 50ms, .longest = 200ms});
    ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.host",
                                                     .appVersion = "1.0",
                                                     .dataDirectory = dir.path().string()});
    ASSERT_TRUE(ZelvanorTracker::setEndpoints(ZEndpoints{kBase, kBase, kBase}));
  }
  void TearDown() override {  // the rest SetUp sets anew
    ZelvanorTracker::shutdown();
    ZelvanorTracker::setHttpClient(nullptr);
  }
  /// Starts with `client` (through the C form with `viaC`), then tracks `count` events.
  static void start(const std::shared_ptr<ZHttpClient>& client, bool viaC = false, int count = 0) {
    if (viaC) {
      zelvanor_set_http_client(&sendThroughC, client.get());
    } else {
      ZelvanorTracker::setHttpClient(client);
    }
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
        .setReachabilityFlags(0x2)
        .set(ZCommon({.serviceName = "host", .deployment = "production"}));
    for (int i = 0; i < count; ++i) testing::track("e" + std::to_string(i));
  }

  testing::TempDir dir;
};

TEST_F(HostClientTest, EveryWayAClientFailsLosesNoRecordAndTheFirstAnswerStands) {
  // Failures, "come back later" and redirects from a client are the delivery test's (the same
  // seam): here, what only a host's client can do.
  const auto fails = [](const ZHttpRequest&) { return Result(ZHttpFailure{"reset"}); };
  const struct {
    const char* name;
    Misbehave misbehave;
    bool viaC = false;
    bool answerTwice = false;
  } rows[] = {
      {"throws from send", [](const ZHttpRequest&) -> Result { throw std::runtime_error("x"); }},
      {"fails through the C form", fails, true},
      // The records wait on disk for the next start.
      {"never answers", [](const ZHttpRequest&) { return Result(); }},
      // A late second answer sends nothing again: from within send, then from another thread.
      {"answers twice", fails, false, true},
  };
  constexpr std::size_t kRecords = 20;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());
    auto client = std::make_shared<HostClient>(row.misbehave, row.answerTwice);
    start(client, row.viaC, kRecords);
    // Host events among the failed ones: the SDK's own install and launch go first.
    ASSERT_TRUE(client->waitFor([](int attempts, std::size_t) { return attempts >= 8; }));
    if (std::string(row.name) == "never answers") {
      ZelvanorTracker::shutdown();
      client = std::make_shared<HostClient>(row.misbehave);
      client->healed = true;
      start(client, row.viaC);
    } else {
      client->healed = true;
    }
    // Answers reach the SDK's worker a moment after the client gave them.
    EXPECT_TRUE(client->waitFor([](int, std::size_t events) { return events == kRecords; }));
    testing::eventually(
        [&] { return ZelvanorTracker::counters().delivered >= client->delivered_; });
    client->joinLate();
    ZelvanorTracker::flushAndWait(1s);  // a second answer that counted would send again by now
    const ZCounters counters = ZelvanorTracker::counters();
    ZelvanorTracker::shutdown();
    std::lock_guard lock(client->mutex_);
    EXPECT_EQ(counters.delivered, client->delivered_.load()) << "the SDK's own events too";
    EXPECT_EQ(counters.refused, 0u);
    EXPECT_EQ(client->events_.size(), kRecords) << "each event once";
    EXPECT_GT(client->withCookies_, 0) << "the SDK's cookie store sends what the sync answer set";
  }
}

TEST_F(HostClientTest, ASecondIdentityRequestWaitsForTheFirstAndItsCookies) {
  // Starting runs the identity lookup once for the defaults and once more for setRequired. Two
  // requests at once would each get an identity of their own from the sync server.
  auto client = std::make_shared<testing::FakeHttpClient>();
  client->setResponder([](const ZHttpRequest& request) {
    return isSync(request.url) ? Result() : Result(ZHttpResponse{200, {}, "ok"});
  });
  start(client);
  ASSERT_TRUE(client->waitForWaiting(1));
  EXPECT_EQ(client->sent().size(), 1u) << "one identity request at a time";
  client->answer(ZHttpResponse{200, kSyncCookies, kSyncAnswer});
  EXPECT_TRUE(ZelvanorTracker::waitUntilReady(10s));
  ZelvanorTracker::shutdown();
  EXPECT_EQ(std::ranges::count_if(client->sent(), [](auto& r) { return isSync(r.url); }), 1)
      << "the waiting request is not sent once the first answer gave the triple";
}

}  // namespace
}  // namespace zelvanor
