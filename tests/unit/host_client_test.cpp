// A host's own HTTP client in place of the SDK's: whatever way it fails, every record still arrives
// once it works; the first of two answers stands; the C form carries cookies.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "manager/default_sources.hpp"
#include "support/fake_http_client.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"
#include "zelvanor/zelvanor.h"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using Result = std::optional<ZHttpResult>;

const std::string kBase = "https://collector.test";
const std::string kSyncAnswer =
    R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[{"cid":"cid-7","did":"did-7","sid":"sid-7"}]})";

bool isSync(std::string_view url) {
  return url.find("/sync") != std::string_view::npos;
}

/// A collector in memory behind the fake client: answers identity sync, and "ok" to records once
/// healed; before that, `misbehave` decides. Notes which of the host's events arrived.
class HostCollector {
 public:
  explicit HostCollector(std::function<Result(const ZHttpRequest&)> misbehave) {
    client->setResponder([this, misbehave](const ZHttpRequest& request) -> Result {
      if (isSync(request.url)) return ZHttpResponse{200, {}, kSyncAnswer};
      if (!healthy_.load()) return misbehave(request);
      const auto record = decodeJson<ZLogRecord>(*request.body);
      std::lock_guard lock(mutex_);
      if (record && record->action.type == "event") delivered_.insert(record->action.name);
      changed_.notify_all();
      return ZHttpResponse{200, {}, "ok"};
    });
  }
  void heal() { healthy_ = true; }
  bool waitForDelivered(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 20s, [&] { return delivered_.size() >= count; });
  }
  std::shared_ptr<testing::FakeHttpClient> client = std::make_shared<testing::FakeHttpClient>();

 private:
  std::atomic<bool> healthy_{false};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::set<std::string> delivered_;
};

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
  void TearDown() override {
    ZelvanorTracker::shutdown();
    ZelvanorTracker::setHttpClient(nullptr);
    detail::setRetryTimings({});
    ZelvanorTracker::setEndpoints(ZEndpoints{});
    ZelvanorTracker::setPlatformFacts({});
  }
  /// Starts with `client` (none: the one set through the C form), then tracks `count` events.
  static void start(std::shared_ptr<ZHttpClient> client, int count = 0) {
    if (client) ZelvanorTracker::setHttpClient(std::move(client));
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
        .setReachabilityFlags(0x2)
        .set(ZCommon({.serviceName = "host", .deployment = "production"}));
    for (int i = 0; i < count; ++i) {
      ZelvanorTracker::set(ZAction("event", "e" + std::to_string(i), "tap")).track(false, false);
    }
  }

  testing::TempDir dir;
};

TEST_F(HostClientTest, EveryWayAClientFailsLosesNoRecord) {
  const ZHttpResult busy = ZHttpResponse{503, {{"retry-after", "0"}}, "busy"};
  const ZHttpResult moved = ZHttpResponse{302, {{"Location", "https://elsewhere.test/"}}, ""};
  const struct {
    const char* name;
    std::function<Result(const ZHttpRequest&)> misbehave;
  } rows[] = {
      {"throws from send", [](const ZHttpRequest&) -> Result { throw std::runtime_error("x"); }},
      {"fails every request", [](const ZHttpRequest&) { return Result(ZHttpFailure{"reset"}); }},
      {"asks to come back later", [&](const ZHttpRequest&) { return Result(busy); }},
      {"redirects", [&](const ZHttpRequest&) { return Result(moved); }},
      // The records wait on disk for the next start.
      {"never answers", [](const ZHttpRequest&) { return Result(); }},
  };
  constexpr int kRecords = 20;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());
    HostCollector collector(row.misbehave);
    start(collector.client, kRecords);
    // Host events among the failed ones: the SDK's own install and launch go first.
    ASSERT_TRUE(collector.client->waitForSent(8));
    HostCollector next(row.misbehave);
    if (std::string(row.name) == "never answers") {
      ZelvanorTracker::shutdown();
      next.heal();
      start(next.client);
      EXPECT_TRUE(next.waitForDelivered(kRecords));
    } else {
      collector.heal();
      EXPECT_TRUE(collector.waitForDelivered(kRecords));
    }
    ZelvanorTracker::shutdown();
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
  client->answer(200, kSyncAnswer,
                 {{"Set-Cookie", "fa_cid=cid-7"},
                  {"Set-Cookie", "fa_did=did-7"},
                  {"Set-Cookie", "fa_sid=sid-7"}});
  EXPECT_TRUE(ZelvanorTracker::waitUntilReady(10s));
  ZelvanorTracker::shutdown();
  const auto sent = client->sent();
  EXPECT_EQ(std::count_if(sent.begin(), sent.end(), [](auto& r) { return isSync(r.url); }), 1)
      << "the waiting request is not sent once the first answer gave the "
         "triple";
}

/// Answers each record at once from within send, and a second time later from another thread.
class AnswersTwice final : public ZHttpClient {
 public:
  ~AnswersTwice() override { joinLate(); }
  void joinLate() {
    std::vector<std::thread> late;
    {
      std::lock_guard lock(mutex);
      late.swap(late_);
    }
    for (auto& thread : late) thread.join();
  }
  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override {
    if (isSync(request.url)) return done(ZHttpResponse{200, {}, kSyncAnswer});
    if (const auto record = decodeJson<ZLogRecord>(*request.body)) {
      std::lock_guard lock(mutex);
      ++requests;
      if (record->action.type == "event") received.insert(record->action.name);
    }
    done(ZHttpResponse{200, {}, "ok"});
    std::lock_guard lock(mutex);
    late_.emplace_back([done] { done(ZHttpResponse{503, {{"Retry-After", "0"}}, "late"}); });
  }
  std::mutex mutex;
  std::multiset<std::string> received;
  std::uint64_t requests = 0;

 private:
  std::vector<std::thread> late_;
};

TEST_F(HostClientTest, TheFirstAnswerStandsFromWithinSendOrAnotherThread) {
  auto client = std::make_shared<AnswersTwice>();
  start(client, 10);
  // Answers reach the SDK's worker a moment after the client saw the request.
  const auto settled = [&] {
    const auto delivered = ZelvanorTracker::counters().delivered;
    std::lock_guard lock(client->mutex);
    return client->received.size() == 10 && delivered >= client->requests;
  };
  for (int i = 0; i < 1000 && !settled(); ++i) std::this_thread::sleep_for(5ms);
  client->joinLate();
  ZelvanorTracker::flushAndWait(1s);  // a second answer that counted would send again by now
  const ZCounters counters = ZelvanorTracker::counters();
  ZelvanorTracker::shutdown();
  std::lock_guard lock(client->mutex);
  EXPECT_EQ(counters.delivered, client->requests) << "the SDK's own events too";
  EXPECT_EQ(counters.refused, 0u);
  EXPECT_EQ(client->received.size(), 10u) << "a late second answer sends nothing again";
  EXPECT_EQ(std::set<std::string>(client->received.begin(), client->received.end()).size(), 10u);
}

/// The C form: answers identity sync with the triple as cookies, fails the first record, then
/// says "ok"; notes which records carried the cookies back.
struct CHost {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::string> delivered;
  int recordRequests = 0;
  int withCookies = 0;
};

void sendThroughC(const zelvanor_http_request* request, zelvanor_http_exchange* exchange,
                  void* user) {
  auto& host = *static_cast<CHost*>(user);
  if (isSync(request->url)) {
    const char* headers[] = {"Set-Cookie: fa_cid=cid-7; Path=/", "set-cookie: fa_did=did-7",
                             "Set-Cookie: fa_sid=sid-7; Max-Age=3600"};
    return zelvanor_http_answer(exchange, 200, headers, 3, kSyncAnswer.data(), kSyncAnswer.size());
  }
  std::unique_lock lock(host.mutex);
  if (host.recordRequests++ == 0) {
    lock.unlock();
    return zelvanor_http_fail(exchange, "connection reset", 0);
  }
  for (std::size_t i = 0; i < request->header_count; ++i) {
    if (std::string_view(request->headers[i]).find("fa_sid=sid-7") != std::string_view::npos) {
      ++host.withCookies;
    }
  }
  const auto record = decodeJson<ZLogRecord>(std::string_view(request->body, request->body_length));
  if (record && record->action.type == "event") host.delivered.insert(record->action.name);
  host.changed.notify_all();
  lock.unlock();
  zelvanor_http_answer(exchange, 200, nullptr, 0, "ok", 2);
}

TEST_F(HostClientTest, TheCFormCarriesRequestsAnswersAndCookies) {
  CHost host;
  zelvanor_set_http_client(&sendThroughC, &host);
  start(nullptr, 10);
  std::unique_lock lock(host.mutex);
  EXPECT_TRUE(host.changed.wait_for(lock, 20s, [&] { return host.delivered.size() == 10; }));
  EXPECT_GT(host.withCookies, 0) << "the SDK's cookie store sends what the sync answer set";
  lock.unlock();
  ZelvanorTracker::shutdown();
}

}  // namespace
}  // namespace zelvanor
