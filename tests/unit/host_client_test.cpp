// A host's own HTTP client in place of the SDK's: whatever way it fails, every record still
// arrives once it works, and the SDK runs on no more than its two threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
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

constexpr std::uint32_t kReachable = 0x2;
const std::string kBase = "https://collector.test";

std::string syncAnswer() {
  return R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[{"cid":"cid-7","did":"did-7","sid":"sid-7"}]})";
}

/// A collector in memory behind the fake client: answers identity sync, and "ok" to records once
/// `healthy`; before that, `misbehave` decides.
class HostCollector {
 public:
  using Misbehaviour = std::function<std::optional<ZHttpResult>(const ZHttpRequest&)>;

  explicit HostCollector(Misbehaviour misbehave) : misbehave_(std::move(misbehave)) {
    client->setResponder([this](const ZHttpRequest& request) -> std::optional<ZHttpResult> {
      if (request.url.find("/sync") != std::string::npos) {
        return ZHttpResponse{200, {}, syncAnswer()};
      }
      if (!healthy_.load()) return misbehave_(request);
      const auto record = decodeJson<ZLogRecord>(*request.body);
      std::lock_guard lock(mutex_);
      if (record) delivered_.insert(record->action.name);
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
  Misbehaviour misbehave_;
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
  static void start(std::shared_ptr<ZHttpClient> client) {
    ZelvanorTracker::setHttpClient(std::move(client));
    startWithTheClientSet();
  }
  static void startWithTheClientSet() {
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
        .setReachabilityFlags(kReachable)
        .set(ZCommon({.serviceName = "host", .deployment = "production"}));
  }
  static void track(int count) {
    for (int i = 0; i < count; ++i) {
      ZelvanorTracker::set(ZAction("event", "e" + std::to_string(i), "tap")).track(false, false);
    }
  }

  testing::TempDir dir;
};

TEST_F(HostClientTest, EveryWayAClientFailsLosesNoRecord) {
  struct Row {
    const char* name;
    HostCollector::Misbehaviour misbehave;
    bool healsOnlyAtTheNextStart;  ///< the client never answers: the records wait on disk
  };
  const std::vector<Row> rows = {
      {"throws from send",
       [](const ZHttpRequest&) -> std::optional<ZHttpResult> {
         throw std::runtime_error("no socket");
       },
       false},
      {"fails every request",
       [](const ZHttpRequest&) -> std::optional<ZHttpResult> {
         return ZHttpFailure{"connection reset"};
       },
       false},
      {"asks to come back later",
       [](const ZHttpRequest&) -> std::optional<ZHttpResult> {
         return ZHttpResponse{503, {{"retry-after", "0"}}, "busy"};
       },
       false},
      {"redirects",
       [](const ZHttpRequest&) -> std::optional<ZHttpResult> {
         return ZHttpResponse{302, {{"Location", "https://elsewhere.test/"}}, ""};
       },
       false},
      {"never answers", [](const ZHttpRequest&) { return std::optional<ZHttpResult>(); }, true},
  };
  constexpr int kRecords = 20;
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    std::filesystem::remove_all(dir.path());
    std::filesystem::create_directories(dir.path());
    HostCollector collector(row.misbehave);
    start(collector.client);
    track(kRecords);
    ASSERT_TRUE(collector.client->waitForSent(2));
    if (row.healsOnlyAtTheNextStart) {
      ZelvanorTracker::shutdown();
      HostCollector next([](const ZHttpRequest&) { return std::optional<ZHttpResult>(); });
      next.heal();
      start(next.client);
      EXPECT_TRUE(next.waitForDelivered(kRecords));
      ZelvanorTracker::shutdown();
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
  client->setResponder([](const ZHttpRequest& request) -> std::optional<ZHttpResult> {
    if (request.url.find("/sync") != std::string::npos) return std::nullopt;  // held
    return ZHttpResponse{200, {}, "ok"};
  });
  start(client);
  ASSERT_TRUE(client->waitForWaiting(1));
  EXPECT_EQ(client->sent().size(), 1u) << "one identity request at a time";
  client->answer(200, syncAnswer(),
                 {{"Set-Cookie", "fa_cid=cid-7"},
                  {"Set-Cookie", "fa_did=did-7"},
                  {"Set-Cookie", "fa_sid=sid-7"}});
  EXPECT_TRUE(ZelvanorTracker::waitUntilReady(10s));
  ZelvanorTracker::shutdown();
  const auto sent = client->sent();
  EXPECT_EQ(std::count_if(sent.begin(), sent.end(),
                          [](const ZHttpRequest& request) {
                            return request.url.find("/sync") != std::string::npos;
                          }),
            1)
      << "the waiting request is not sent once the first answer gave the triple";
}

/// Answers each record at once from within send, and a second time later from another thread.
class AnswersTwice final : public ZHttpClient {
 public:
  ~AnswersTwice() override { joinLate(); }
  void joinLate() {
    std::vector<std::thread> late;
    {
      std::lock_guard lock(mutex_);
      late.swap(late_);
    }
    for (auto& thread : late) thread.join();
  }
  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override {
    if (request.url.find("/sync") != std::string::npos) {
      done(ZHttpResponse{200, {}, syncAnswer()});
      return;
    }
    if (const auto record = decodeJson<ZLogRecord>(*request.body)) {
      std::lock_guard lock(mutex_);
      ++requests_;
      if (record->action.type == "event") received_.insert(record->action.name);
    }
    done(ZHttpResponse{200, {}, "ok"});
    std::lock_guard lock(mutex_);
    late_.emplace_back([done] { done(ZHttpResponse{503, {{"Retry-After", "0"}}, "late"}); });
  }
  std::multiset<std::string> received() {
    std::lock_guard lock(mutex_);
    return received_;
  }
  std::uint64_t requests() {
    std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  std::mutex mutex_;
  std::vector<std::thread> late_;
  std::multiset<std::string> received_;
  std::uint64_t requests_ = 0;
};

TEST_F(HostClientTest, TheFirstAnswerStandsFromWithinSendOrAnotherThread) {
  auto client = std::make_shared<AnswersTwice>();
  start(client);
  track(10);
  // Answers reach the SDK's worker a moment after the client saw the request.
  for (int i = 0; i < 1000 && (client->received().size() < 10 ||
                               ZelvanorTracker::counters().delivered < client->requests());
       ++i) {
    std::this_thread::sleep_for(5ms);
  }
  client->joinLate();
  ZelvanorTracker::flushAndWait(1s);  // a second answer that counted would send again by now
  const ZCounters counters = ZelvanorTracker::counters();
  ZelvanorTracker::shutdown();
  EXPECT_EQ(counters.delivered, client->requests()) << "the SDK's own events too";
  EXPECT_EQ(counters.refused, 0u);
  const auto received = client->received();
  EXPECT_EQ(received.size(), 10u) << "a late second answer sends nothing again";
  EXPECT_EQ(std::set<std::string>(received.begin(), received.end()).size(), 10u);
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
  if (std::string_view(request->url).find("/sync") != std::string_view::npos) {
    const char* headers[] = {"Set-Cookie: fa_cid=cid-7; Path=/", "set-cookie: fa_did=did-7",
                             "Set-Cookie: fa_sid=sid-7; Max-Age=3600"};
    const std::string body = syncAnswer();
    zelvanor_http_answer(exchange, 200, headers, 3, body.data(), body.size());
    return;
  }
  std::unique_lock lock(host.mutex);
  if (host.recordRequests++ == 0) {
    lock.unlock();
    zelvanor_http_fail(exchange, "connection reset", 0);
    return;
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
  startWithTheClientSet();
  track(10);
  std::unique_lock lock(host.mutex);
  EXPECT_TRUE(host.changed.wait_for(lock, 20s, [&] { return host.delivered.size() == 10; }));
  EXPECT_GT(host.withCookies, 0) << "the SDK's cookie store sends what the sync answer set";
  lock.unlock();
  ZelvanorTracker::shutdown();
}

#if defined(__linux__)
std::size_t threadsOfThisProcess() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry :
       std::filesystem::directory_iterator("/proc/self/task")) {
    ++count;
  }
  return count;
}
#endif

TEST_F(HostClientTest, WithAHostsClientTheSdkRunsOnTwoThreads) {
#if defined(__linux__)
  // The SDK's own client is counted delivering to a real collector in the integration tests.
  // A sanitizer starts a helper thread with the process's first thread: that one is not ours.
  std::thread([] {}).join();
  const std::size_t before = threadsOfThisProcess();
  HostCollector collector([](const ZHttpRequest&) { return std::optional<ZHttpResult>(); });
  collector.heal();
  start(collector.client);
  track(5);
  EXPECT_TRUE(collector.waitForDelivered(5));
  EXPECT_EQ(threadsOfThisProcess(), before + 2) << "the worker and the route watch";
  ZelvanorTracker::shutdown();
  EXPECT_EQ(threadsOfThisProcess(), before);
#else
  GTEST_SKIP() << "threads are counted through /proc";
#endif
}

}  // namespace
}  // namespace zelvanor
