// What a host integrating the SDK can find out, against loopback HTTPS servers: why each event
// was dropped or kept (without a secret in any line), counters that add up, and waits that end
// when the answers are in or when their time is up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "api/shared_instance.hpp"
#include "support/pending_files.hpp"
#include "support/sdk_host.hpp"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using ::testing::AllOf;
constexpr auto npos = std::string::npos;
using testing::CannedResponse;
using ::testing::HasSubstr;
using testing::HttpsTestServer;
using testing::ReceivedRequest;

// Values a diagnostics line must never show: the triple, the token and the user id.
constexpr const char* kSecretSync =
    R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[)"
    R"({"cid":"cid-SECRET-7f3a","did":"did-SECRET-1","sid":"sid-SECRET-2"}]})";
constexpr const char* kSecretToken = "token-SECRET-91c2";
constexpr const char* kSecretUser = "user-SECRET-55d0";

using Line = std::pair<ZLogLevel, std::string>;  // a line's level and text

class DiagnosticsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    detail::setRetryTimings(support::RetryTimings{.first = 60s, .longest = 60s});
    // The sink calls back into the SDK, as a host's may: were a line said under one of the SDK's
    // locks (a dropped record, a verbose record's JSON), this would deadlock.
    ZelvanorTracker::setDiagnostics(ZLogLevel::debug, [this](ZLogLevel level, std::string_view l) {
      static_cast<void>(ZelvanorTracker::getData());  // takes the lock a track holds
      std::lock_guard lock(mutex_);
      lines_.emplace_back(level, l);
    });
    server_.setResponder([this](const ReceivedRequest& request) { return answer(request); });
  }
  void TearDown() override {
    ZelvanorTracker::shutdown();
    ZelvanorTracker::setDiagnostics(ZLogLevel::error);
    ZelvanorTracker::setStoreLimits({});
    detail::setRetryTimings({});
  }

  CannedResponse answer(const ReceivedRequest& request) const {
    if (request.path.rfind("/sync", 0) == 0) return {200, kSecretSync, {}, syncDelayMs_.load()};
    // The record's action name picks the answer.
    if (request.body.find("\"refuse-me\"") != npos)
      return {400, "fail: record has no action kind\nmore", {}, 0};
    // A collector that echoes what it refused: the id block first, then the whole record.
    if (request.body.find("\"echo-me\"") != npos) {
      const auto idBlock = request.body.find("\"id\":");
      return {422, "refused " + request.body.substr(idBlock) + " in " + request.body, {}, 0};
    }
    return {200, "ok", {}, trackDelayMs_.load()};
  }

  // The SDK pointed at the collector (and at its identity sync too, unless `endpoints` names
  // another), with a secret token and user id.
  void start(ZEndpoints endpoints = {}, std::uint64_t batchSize = 1) {
    ASSERT_TRUE(testing::pointAt(server_, appDir(), std::move(endpoints)));
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 5, .batchSize = batchSize})
        .setReachabilityFlags(0x2)
        .set(ZId{.accessToken = kSecretToken, .appUserId = kSecretUser});
  }

  static void trackNamed(const std::string& name, bool verbose = false) {
    ZelvanorTracker::set(ZPage{.id = "p", .name = "page", .title = "Page"})
        .set(ZAction("event", name, "tap"))
        .track(verbose, false);
  }

  std::filesystem::path appDir() const { return dir_.path() / "app"; }

  std::vector<Line> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  /// The text of the first line holding `part` (waited for a few seconds), said at `level`.
  std::string said(const std::string& part, ZLogLevel level) {
    for (int i = 0; i < 250; ++i) {
      for (const auto& [saidAt, text] : lines()) {
        if (text.find(part) == std::string::npos) continue;
        EXPECT_EQ(saidAt, level) << text;
        return text;
      }
      std::this_thread::sleep_for(20ms);
    }
    ADD_FAILURE() << "never said: " << part;
    return {};
  }
  int linesWith(const std::string& part) {
    return static_cast<int>(std::ranges::count_if(
        lines(), [&](const Line& line) { return line.second.find(part) != npos; }));
  }

  testing::TempDir dir_;
  HttpsTestServer server_;
  std::atomic<int> syncDelayMs_{0};
  std::atomic<int> trackDelayMs_{0};
  std::mutex mutex_;
  std::vector<Line> lines_;
};

// One run meets every outcome: readiness that waits for a late identity sync, each drop or keep
// said once (without a secret), waits that end with the answers or at their timeout, and counters
// that add up.
TEST_F(DiagnosticsTest, EveryEventDroppedOrKeptSaysWhyWithoutASecretAndEveryWaitEnds) {
  // Two records an earlier run left behind.
  std::filesystem::create_directories(appDir());
  std::ofstream(appDir() / "ZLogs.tmp", std::ios::binary)
      << testing::framed({testing::namedRecord("earlier-1"), testing::namedRecord("earlier-2")});
  ZelvanorTracker::setStoreLimits(ZStoreLimits{.maxBytesOnDisk = 4096});
  // Batches of three: the first takes the restored records from disk with one from memory.
  syncDelayMs_ = 1500;
  start({}, /*batchSize=*/3);
  std::atomic<int> calls{0};
  ZelvanorTracker::onReady([&] { ++calls; });
  EXPECT_FALSE(ZelvanorTracker::waitUntilReady(100ms));
  EXPECT_EQ(calls.load(), 0);
  ASSERT_TRUE(ZelvanorTracker::waitUntilReady(10s));
  for (int i = 0; i < 100 && calls.load() == 0; ++i) std::this_thread::sleep_for(10ms);
  // Once ready, a new callback runs at once, on the caller's thread; each runs once.
  std::thread::id ranOn;
  ZelvanorTracker::onReady([&] { ranOn = std::this_thread::get_id(); });
  EXPECT_EQ(std::pair(ranOn, calls.load()), std::pair(std::this_thread::get_id(), 1));

  trackNamed("too-early");
  EXPECT_THAT(said("no common block", ZLogLevel::error), HasSubstr("too-early"));
  ZelvanorTracker::set(ZCommon({.serviceName = "diag", .deployment = "production"}));
  ZelvanorTracker::set(ZPage{.id = "p", .name = "page", .title = "Page"}).track(false, false);
  said("no action block", ZLogLevel::error);
  ASSERT_TRUE(ZelvanorTracker::flushAndWait(10s));  // the restored, install and launch
  EXPECT_EQ(std::ranges::count_if(server_.received(),
                                  [](const auto& r) { return r.body.find("\"earlier-") != npos; }),
            2)
      << "every record had its answer when the wait ended";

  trackNamed("refuse-me");
  ZelvanorTracker::flush();
  EXPECT_THAT(said("refused by the collector", ZLogLevel::error),
              AllOf(HasSubstr("HTTP 400"), HasSubstr("fail: record has no action kind more")))
      << "the first bytes of the answer, on one line";
  trackNamed("echo-me");
  ZelvanorTracker::flush();
  EXPECT_THAT(said("HTTP 422", ZLogLevel::error), HasSubstr("<hidden>"));

  trackNamed("shown", /*verbose=*/true);
  ZelvanorTracker::flush();
  EXPECT_THAT(said("\"shown\"", ZLogLevel::debug),
              AllOf(HasSubstr("\"title\""), HasSubstr("<hidden>")))
      << "the record's JSON, its ids hidden";
  said("record delivered", ZLogLevel::debug);
  ASSERT_TRUE(ZelvanorTracker::flushAndWait(10s));

  // The collector hangs: the wait gives up at its timeout, not before and not much after.
  trackDelayMs_ = 3000;
  trackNamed("hanging");
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(ZelvanorTracker::flushAndWait(400ms));
  const auto waited = std::chrono::steady_clock::now() - before;
  EXPECT_GE(waited, 400ms);
  EXPECT_LT(waited, 2500ms);
  EXPECT_EQ(ZelvanorTracker::counters().awaitingAnswer, 1u);
  trackDelayMs_ = 0;

  // Offline: kept on disk, and below the batch size in memory. The wait takes in the hanging
  // answer too. The counters add up.
  ZelvanorTracker::setReachabilityFlags(0);
  for (int i = 0; i < 3; ++i) trackNamed("offline-" + std::to_string(i));
  ASSERT_TRUE(ZelvanorTracker::flushAndWait(10s));
  said("kept on disk: the network is offline", ZLogLevel::info);
  trackNamed("waiting-1");  // below the batch size: stays in memory
  const ZCounters c = ZelvanorTracker::counters();
  EXPECT_EQ(
      (std::vector<std::uint64_t>{c.restored, c.refused, c.keptOnDisk, c.dropped.noCommonBlock,
                                  c.dropped.noAction, c.waitingInMemory, c.awaitingAnswer}),
      (std::vector<std::uint64_t>{2, 2, 3, 1, 1, 1, 0}));
  EXPECT_GT(c.bytesOnDisk, 0u);
  // The verbose one, the hanging one, the two restored ones, and the install and launch events.
  EXPECT_GE(c.delivered, 1u + 1u + 2u + 2u);
  const std::uint64_t drops = c.dropped.noCommonBlock + c.dropped.noAction +
                              c.dropped.incompleteContext + c.dropped.unencodable +
                              c.dropped.storageFull + c.dropped.unreadable;
  EXPECT_EQ(c.tracked + c.restored + c.resent, c.delivered + c.refused + c.keptOnDisk + drops +
                                                   c.waitingInMemory + c.waitingOnDisk +
                                                   c.awaitingAnswer + c.templatesWaiting);

  // The small disk limit drops the oldest; a long offline spell again and again: said once.
  ZelvanorTracker::setBatchSize(1);
  for (int i = 3; i < 60; ++i) trackNamed("offline-" + std::to_string(i));
  said("storage full", ZLogLevel::error);
  for (int i = 0; i < 250 && ZelvanorTracker::counters().dropped.storageFull < 40; ++i)
    std::this_thread::sleep_for(20ms);
  EXPECT_EQ(linesWith("storage full"), 1);

  // The collector goes away: a transport failure, with the reason libcurl gives.
  server_.stop();
  ZelvanorTracker::setReachabilityFlags(0x2);
  trackNamed("unreachable");
  EXPECT_THAT(said("transport failure", ZLogLevel::warning), HasSubstr("onnect"));
  EXPECT_EQ(linesWith("SECRET"), 0) << "no cid, did, sid, token or user id in any line";
}

TEST_F(DiagnosticsTest, TlsAndIdentitySyncFailuresAreNamed) {
  // The sync server's certificate is trusted, the collector's is not.
  HttpsTestServer syncServer;
  syncServer.setResponder([this](const ReceivedRequest& request) { return answer(request); });
  start({.identitySync = syncServer.baseUrl(), .caBundleFile = syncServer.caFile().string()});
  ASSERT_TRUE(ZelvanorTracker::waitUntilReady(10s));
  ZelvanorTracker::set(ZCommon({.serviceName = "diag", .deployment = "production"}));
  trackNamed("untrusted");
  // No amount of waiting fixes a certificate.
  EXPECT_THAT(said("TLS failure", ZLogLevel::error), HasSubstr("kept on disk"));
  ZelvanorTracker::shutdown();

  // Nothing listens where the sync server should be.
  server_.stop();
  start();
  said("identity sync failed", ZLogLevel::warning);
  EXPECT_FALSE(ZelvanorTracker::waitUntilReady(50ms));
}

}  // namespace
}  // namespace zelvanor
