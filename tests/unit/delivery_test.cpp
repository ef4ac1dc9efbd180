// Every outcome of sending a record, identity sync's answers, and reachability's reports. The
// network is an in-memory client the tests answer request by request, on the SDK's one worker.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <tuple>

#include "network/endpoints.hpp"
#include "network/https_delivery.hpp"
#include "network/identity_sync.hpp"
#include "network/reachability.hpp"
#include "queue/log_record_queue.hpp"
#include "support/data_table.hpp"
#include "support/fake_http_client.hpp"
#include "support/pending_files.hpp"
#include "support/settings.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using detail::HttpsDelivery;
using Clock = std::chrono::steady_clock;
using Names = std::vector<std::string>;
using Tally = std::vector<std::uint64_t>;

const std::string kBase = "https://collector.test";

std::string record(const std::string& name) {
  return encodeJson(ZLogRecord{.xid = {"c", "d", "s"}, .action = {"event", name, "tap"}}).value();
}

std::string nameOf(const ZHttpRequest& request) {
  auto decoded = decodeJson<ZLogRecord>(*request.body);
  return decoded ? decoded->action.name : "?";
}

Names pendingNames(const std::filesystem::path& dir) {
  Names names;
  for (const auto& r : testing::pendingRecords(dir)) names.push_back(r.action.name);
  return names;
}

Names numbered(const std::string& prefix, std::size_t count) {
  Names names;
  for (std::size_t i = 0; i < count; ++i) names.push_back(prefix + std::to_string(i));
  return names;
}

/// A delivery as the SDK builds one: the session and the delivery share one worker, and the
/// client is the in-memory one.
struct Rig {
  explicit Rig(const std::filesystem::path& dir, support::RetryTimings timings = {},
               ZStoreLimits limits = {}, bool restore = true)
      : http(std::make_shared<network::HttpClient>(fake, dir / "cookies.txt", loop)),
        delivery(std::make_shared<HttpsDelivery>(http, dir, limits, timings, loop)) {
    // As the queue does at a start (left to the test's own queue when it has one).
    if (restore) delivery->restore([](std::uint64_t) {});
  }
  ~Rig() {
    delivery->shutdown({}, {});
    http->shutdown();
    loop->stop();
  }
  void send(const Names& names, bool networkAvailable = true) {
    std::vector<std::string> records;
    for (const auto& name : names) records.push_back(record(name));
    delivery->send(0, std::move(records), networkAvailable);
  }
  Names sentNames() const {
    Names names;
    for (const auto& request : fake->sent()) names.push_back(nameOf(request));
    return names;
  }
  /// What became of the records: delivered, refused, kept on disk, resent, restored.
  Tally tally() const {
    const auto c = delivery->counts();
    return {c.delivered, c.refused, c.keptOnDisk, c.resent, c.restored};
  }
  /// Answers `count` requests ok as they come.
  void answerOk(std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) {
      ASSERT_TRUE(fake->waitForWaiting(1));
      fake->answer(ZHttpResponse{200, {}, "ok"});
    }
  }

  /// loop->sync([] {}) returns once the worker has taken in every hand-over and answer so far.
  std::shared_ptr<support::SerialQueue> loop =
      std::make_shared<support::SerialQueue>("test.worker", nullptr);
  std::shared_ptr<testing::FakeHttpClient> fake = std::make_shared<testing::FakeHttpClient>();
  std::shared_ptr<network::HttpClient> http;
  std::shared_ptr<HttpsDelivery> delivery;
};

struct DeliveryTest : ::testing::Test {
  void SetUp() override {
    // Bases as a host may write them: their trailing slashes are dropped once, when the URLs are
    // joined, and every request reads the joined ones.
    ASSERT_TRUE(detail::replaceEndpoints(ZEndpoints{.production = kBase + "//",
                                                    .sandbox = kBase + "/sandbox/",
                                                    .identitySync = kBase + "/id/"}));
    EXPECT_EQ(detail::currentRequestUrls(), detail::currentRequestUrls()) << "not joined again";
    detail::settings().usingSandbox = false;
    detail::settings().requestTimeout = 5.0;
  }
  testing::TempDir dir;
};

TEST_F(DeliveryTest, OnlyTheExactBodyOkDeliversAndEveryOtherAnswerHasItsOutcome) {
  for (const auto& row : testing::dataTable("http/answer_outcomes.tsv")) {
    SCOPED_TRACE(row[0]);
    const std::string& outcome = row[1];
    const auto headers = row.size() > 4 ? ZHttpHeaders{testing::header(row[4])} : ZHttpHeaders{};
    const ZHttpResult result = row[2] == "fail" || row[2] == "tls"
                                   ? ZHttpResult(ZHttpFailure{row[3], row[2] == "tls"})
                                   : ZHttpResponse{std::stoi(row[2]), headers, row[3]};
    testing::TempDir rowDir;
    // The back-off of its own would outlast the test: only the server's wait brings one back.
    Rig rig(rowDir.path(), {.first = 1h, .jitter = 0});
    rig.send({row[0]});
    ASSERT_TRUE(rig.fake->waitForWaiting(1));
    // What is sent again (a held one only, once the server's wait is over) is answered ok.
    rig.fake->setResponder([](const ZHttpRequest&) { return ZHttpResponse{200, {}, "ok"}; });
    rig.fake->answer(result);
    ASSERT_TRUE(rig.delivery->waitUntilSettled(5s));
    const bool delivered = outcome == "delivered" || outcome == "later";
    EXPECT_EQ(rig.tally(), (Tally{delivered, outcome == "refused", outcome == "kept", 0, 0}));
    EXPECT_EQ(pendingNames(rowDir.path()), outcome == "kept" ? Names{row[0]} : Names{});
    rig.loop->sync([] {});
    // Asked again only after the server's wait; no redirect followed.
    EXPECT_EQ(rig.sentNames(), Names(outcome == "later" ? 2 : 1, row[0]));
  }
}

TEST_F(DeliveryTest, KeptAndHeldRecordsGoFirstBehindOneProbeOnceTheirWaitIsOver) {
  // Two redirects and a transport failure: kept on disk, one back-off for all three, and the
  // redirect said once. Newer records handed over meanwhile wait behind the kept ones, and the
  // oldest kept one goes alone first, as a probe.
  auto said = std::make_shared<Names>();  // the sink may outlive the test
  ZelvanorTracker::setDiagnostics(ZLogLevel::error, [said](ZLogLevel, std::string_view line) {
    said->emplace_back(line.substr(0, line.find(" to ")));  // up to where the redirect points
  });
  Rig rig(dir.path(), {.first = 200ms, .jitter = 0});
  const auto probeAfter = [&](std::size_t sent, Clock::time_point since, auto wait) {
    ASSERT_TRUE(rig.fake->waitForSent(sent, 5s));
    EXPECT_GE(Clock::now() - since, wait) << "nothing before the wait ends";
    rig.loop->sync([] {});
    EXPECT_FALSE(rig.fake->waitForWaiting(2, 0ms)) << "the probe goes alone";
  };
  rig.send({"old-1", "old-2", "old-3"});
  ASSERT_TRUE(rig.fake->waitForWaiting(3));
  const auto failedAt = Clock::now();
  rig.fake->answer(ZHttpResponse{302, {{"Location", kBase + "/elsewhere"}}, ""});
  rig.fake->answer(ZHttpResponse{307, {}, "moved"});
  rig.fake->answer(ZHttpFailure{"connection reset"});
  rig.send({"new-1", "new-2"});
  probeAfter(4, failedAt, 200ms);
  // A "come back later" without Retry-After: the next wait is twice the first.
  const auto probedAt = Clock::now();
  rig.fake->answer(ZHttpResponse{429, {}, "slow down"});
  probeAfter(5, probedAt, 400ms);
  rig.answerOk(5);
  ASSERT_TRUE(rig.delivery->waitUntilSettled(5s));
  ZelvanorTracker::setDiagnostics(ZLogLevel::error);
  // Said once, naming the first.
  EXPECT_EQ(*said, Names{"zelvanor error: the collector answered with a redirect (HTTP 302"});

  // Held by "come back later" answered out of order: the server's wait, not the (reset) back-off,
  // then they go out again in the order they went out, and a record handed over meanwhile waits.
  rig.send({"a", "b", "c"});
  ASSERT_TRUE(rig.fake->waitForWaiting(3));
  const ZHttpResponse busy{503, {{"Retry-After", "1"}}, "busy"};
  const auto heldAt = Clock::now();
  rig.fake->answerNth(2, busy);
  rig.fake->answer(busy);
  rig.fake->answer(busy);
  rig.send({"d"});
  probeAfter(13, heldAt, 1s);
  rig.answerOk(4);
  ASSERT_TRUE(rig.delivery->waitUntilSettled(5s));
  EXPECT_EQ(rig.sentNames(), (Names{"old-1", "old-2", "old-3", "old-1", "old-1", "old-2", "old-3",
                                    "new-1", "new-2", "a", "b", "c", "a", "b", "c", "d"}));
  // The three kept ones resent; the held ones are not kept.
  EXPECT_EQ(rig.tally(), (Tally{9, 0, 3, 3, 0}));
  EXPECT_TRUE(pendingNames(dir.path()).empty());
}

TEST_F(DeliveryTest, DeletingLocalDataForgetsAllAndShutdownKeepsTheWindowsRestForTheNextStart) {
  constexpr std::size_t kWindow = HttpsDelivery::kMaxInFlight;
  Names expected;
  {
    Rig rig(dir.path());
    // Deleting the app's data forgets what was kept, what waited and what was in flight: answers
    // to requests sent before keep nothing and hold nothing back.
    rig.send({"offline"}, false);
    rig.send(numbered("gone-", kWindow + 1));
    ASSERT_TRUE(rig.fake->waitForWaiting(kWindow));
    rig.delivery->deleteLocalData();
    EXPECT_TRUE(pendingNames(dir.path()).empty());
    rig.fake->answer(ZHttpFailure{"connection reset"});
    rig.fake->answer(ZHttpResponse{503, {{"Retry-After", "3600"}}, "busy"});
    while (rig.fake->answer(ZHttpResponse{301, {}, ""})) {
    }
    // Then a window of requests, no more, and no back-off.
    const Names names = numbered("r", kWindow + 3);
    rig.send(names);
    // A sandbox switch and a new timeout apply to records handed over after them.
    detail::settings().usingSandbox = true;
    detail::settings().requestTimeout = 7.0;
    rig.send({"sandbox"});
    ASSERT_TRUE(rig.fake->waitForWaiting(kWindow));
    rig.loop->sync([] {});
    EXPECT_FALSE(rig.fake->waitForWaiting(kWindow + 1, 0ms)) << "no more than the window";
    rig.answerOk(4);
    ASSERT_TRUE(rig.fake->waitForSent(2 * kWindow + 4));
    rig.loop->sync([] {});
    EXPECT_EQ(rig.tally(), (Tally{4, 0, 1, 0, 0})) << "the offline one kept before the deletion";
    // The one that waited at the deletion is gone; each request is one record, compact.
    EXPECT_EQ(rig.fake->sent().size(), 2 * kWindow + 4);
    for (const auto& r : rig.fake->sent()) {
      const bool sandbox = nameOf(r) == "sandbox";
      EXPECT_EQ(std::tie(r.method, r.url, r.headers, *r.body, r.timeoutSeconds),
                std::make_tuple("POST", kBase + (sandbox ? "/sandbox/sdk/track" : "/sdk/track"),
                                ZHttpHeaders{{"Content-Type", "application/json"}},
                                record(nameOf(r)), sandbox ? 7.0 : 5.0));
    }
    rig.send({"waiting-1", "waiting-2"});
    rig.loop->sync([] {});
    // Cancelled in-flight ones first, in the order they went out, then the waiting, the unsent and
    // one tracked after shutdown.
    rig.delivery->shutdown({record("unsent")}, {});
    rig.delivery->keepLate(record("late"));
    expected.assign(names.begin() + 4, names.end());
    expected.insert(expected.end(), {"sandbox", "waiting-1", "waiting-2", "unsent", "late"});
    EXPECT_EQ(pendingNames(dir.path()), expected);
  }

  // The next start: offline at first, so the restored records and one tracked meanwhile wait.
  Rig second(dir.path(), {}, {}, /*restore=*/false);
  second.fake->setResponder([](const ZHttpRequest&) { return ZHttpResponse{200, {}, "ok"}; });
  detail::ZLogRecordQueue queue(second.delivery);
  queue.restorePendingRecords();
  queue.setBatchSize(1);
  queue.setAvailableNetworking(false);  // the first report: offline
  queue.enqueue(record("offline"));
  ASSERT_TRUE(second.delivery->waitUntilSettled(5s));
  // Another process of the app keeps one too, into the same file: not this run's to count.
  ASSERT_EQ(detail::PendingStore(dir.path(), {}).keep({record("other")}).written, 1u);
  queue.setAvailableNetworking(true);
  expected.insert(expected.end(), {"offline", "other"});
  ASSERT_TRUE(second.fake->waitForSent(expected.size()));
  ASSERT_TRUE(second.delivery->waitUntilSettled(5s));
  EXPECT_EQ(second.sentNames(), expected);
  // The restored records waited where they lay: only "offline" was kept and sent again. What
  // another process kept counts as restored, never as this run's own.
  EXPECT_EQ(second.tally(), (Tally{expected.size(), 0, 1, 1, expected.size() - 1}));
  EXPECT_TRUE(pendingNames(dir.path()).empty());
}

TEST_F(DeliveryTest, ABurstPastTheMemoryLimitGoesToDiskInHandOverOrder) {
  // A burst far past a small memory limit, as fast as the host can: records beyond the limit
  // are on their way to disk, in order, not piling up in memory.
  constexpr std::uint64_t kLimit = 20;
  constexpr std::size_t kBurst = 50000;
  // Beyond the limit: what the host tracks while the worker waits for its next turn, which
  // takes them all and writes them at once. About 1,000 on a quiet machine, up to 15,000 seen
  // on a loaded one; one record per write, the worker never caught up (40,000 and more).
  Rig rig(dir.path(), {}, ZStoreLimits{.maxRecordsInMemory = kLimit}, false);
  detail::ZLogRecordQueue queue(rig.delivery, kLimit);
  queue.setBatchSize(1);
  queue.setAvailableNetworking(false);
  const Names names = numbered("", kBurst);
  for (const auto& name : names) queue.enqueue(record(name));
  ASSERT_TRUE(rig.delivery->waitUntilSettled(60s));
#ifndef _WIN32  // under Wine each write costs many times more: the worker falls further behind
  EXPECT_LE(queue.peakRecordsInMemory(), kBurst / 2);
#endif
  EXPECT_TRUE(pendingNames(dir.path()) == names) << "all kept, in hand-over order";
}

TEST_F(DeliveryTest, RecordsTrackedOrHandedOverWhileShutdownRunsAreKeptOrSentAndDoNotHoldItUp) {
  // Keeping a record costs the worker far more than tracking one costs the host: shutdown must
  // end while the host still tracks, and every record tracked must be kept in tracking order,
  // whatever the moment the table is taken. What other threads hand over meanwhile is sent or
  // kept. (Limits out of the way: a slow machine tracks many.)
  Rig rig(dir.path(), {}, ZStoreLimits{.maxBytesOnDisk = 1u << 30});
  rig.fake->setResponder([](const ZHttpRequest&) { return ZHttpResponse{200, {}, "ok"}; });
  detail::ZLogRecordQueue queue(rig.delivery, 1u << 30);
  queue.setBatchSize(1'000'000);
  constexpr int kCap = 200'000;
  std::atomic<int> tracked{0};
  std::vector<std::jthread> hosts;
  hosts.emplace_back([&](const std::stop_token& shutDown) {
    for (int i = 0; i < kCap && !shutDown.stop_requested(); ++i) {
      queue.enqueue(record(std::to_string(i)));
      tracked = i + 1;
    }
  });
  for (int t = 0; t < 3; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i)
        rig.send({"t" + std::to_string(t) + "-" + std::to_string(i)}, i % 3 != 0);
    });
  }
  while (tracked < 600) std::this_thread::yield();
  rig.delivery->shutdown(queue.takeRecords(), {});
  hosts.clear();  // stopped and joined
#ifndef _WIN32    // under Wine the last write alone may outlast the host's whole run
  ASSERT_LT(tracked.load(), kCap) << "shutdown waited for the host to stop tracking";
#endif
  // The other threads' records ("t...") arrive at least once: sent, or kept.
  Names kept;
  Names handedOver = rig.sentNames();
  for (auto& name : pendingNames(dir.path())) (name[0] == 't' ? handedOver : kept).push_back(name);
  EXPECT_TRUE(kept == numbered("", tracked)) << "every record tracked kept, in order";
  EXPECT_EQ(std::set<std::string>(handedOver.begin(), handedOver.end()).size(), 300u);
}

TEST_F(DeliveryTest, IdentityComesFromAllThreeCookiesOrElseFromTheServer) {
  // Not https, or a base whose query or fragment would swallow the path joined to it: refused,
  // and the servers in force stay (the sync URL asked below).
  for (const std::string& bad : {std::string("http://127.0.0.1:1"), kBase + "?x=1", kBase + "/#"}) {
    EXPECT_FALSE(detail::replaceEndpoints(
        ZEndpoints{.production = kBase, .sandbox = kBase, .identitySync = bad}))
        << bad;
  }
  Rig rig(dir.path());
  // The first answer carries two triples, under an error status.
  const auto answers = testing::dataTable("http/id_sync_answers.txt", testing::Escapes::keep);
  // Changed only between requests, which the worker answers after the test hands them over.
  ZHttpHeaders cookies = {{"Set-Cookie", "fa_cid=k1; Path=/"}, {"set-cookie", "fa_did=k2; Path=/"}};
  rig.fake->setResponder([&](const ZHttpRequest&) {
    return ZHttpResponse{200, cookies, answers.at(0).at(0)};
  });
  auto identity = std::make_shared<detail::IdentitySync>(rig.http);
  std::vector<ZXid> seen;  // every current subscriber receives every triple
  auto first = identity->fetchXid([&](const ZXid& xid) { seen.push_back(xid); });
  rig.loop->sync([] {});

  // Two of three cookies: the server is asked again, with them, and they are not used at all.
  auto second = identity->fetchXid([](const ZXid&) {});
  rig.loop->sync([] {});
  EXPECT_EQ(seen, std::vector<ZXid>(2, ZXid{"a", "b", "c"})) << "only the first triple, each time";
  const auto asked = rig.fake->sent().at(1);
  EXPECT_EQ(asked.method + " " + asked.url + " " + *asked.body, "GET " + kBase + "/id/sync?v=1 ");
  EXPECT_EQ(asked.headers, (ZHttpHeaders{{"Cookie", "fa_cid=k1; fa_did=k2"}}));
  // A second fa_cid that also applies to the sync URL: the first in the store wins.
  cookies = {{"Set-Cookie", "fa_sid=k3; Path=/"}, {"Set-Cookie", "fa_cid=later; Path=/id"}};
  identity->fetchXid([](const ZXid&) {});
  rig.loop->sync([] {});
  std::optional<ZXid> fromCookies;
  identity->fetchXid([&](const ZXid& xid) { fromCookies = xid; });
  EXPECT_EQ(fromCookies, (ZXid{"k1", "k2", "k3"})) << "all three cookies: delivered at once";
  EXPECT_EQ(identity->requestsStarted(), 3u) << "no request when the cookies suffice";

  // An answer publishes its first triple, whatever its status code; one without a triple, nothing.
  seen.clear();
  for (const auto& row : answers) identity->handleAnswer(row[0]);
  EXPECT_EQ(seen, (std::vector<ZXid>{{"a", "b", "c"}}));
}

using Watch = std::shared_ptr<std::function<void(std::uint32_t)>>;

/// Unreadable flags (which count as 0), then changes when the test calls `watch` (none: cannot
/// watch).
struct ScriptedFlags final : platform::ReachabilityFlagSource {
  explicit ScriptedFlags(Watch watch) : watch(std::move(watch)) {}
  std::optional<std::uint32_t> currentFlags() override { return std::nullopt; }
  bool start(std::function<void(std::uint32_t)> onChange) override {
    if (watch) *watch = std::move(onChange);
    return watch != nullptr;
  }
  // No change comes after a stop (only a source that watches is kept, and stopped).
  void stop() override { *watch = nullptr; }
  Watch watch;
};

TEST(ReachabilityTest, TheFirstReportAlwaysPublishesThenChangesDedupeOnFlagsUntilTheHostReports) {
  const auto change = std::make_shared<Watch::element_type>();
  const auto watching = [&] { return std::make_unique<ScriptedFlags>(change); };
  struct Case {
    const char* name;
    detail::ZReachability::SourceFactory source;  // none: no way to watch at all
    // The SDK shuts down at once, while the first report is still queued on a busy worker: it
    // must not announce an offline the system never reported.
    bool stopFirst;
    std::string seen;
  };
  const Case cases[] = {
      {"watching", watching, false, "wifi offline wifi wifi offline offline mobile"},
      {"no source", nullptr, false, "wifi offline mobile"},
      {"cannot watch", [] { return std::make_unique<ScriptedFlags>(nullptr); }, false,
       "wifi offline mobile"},
      {"stopped at once", watching, true, "wifi offline mobile"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    // Without a worker the first flags are read at the start, on the caller's thread.
    auto worker =
        c.stopFirst ? std::make_shared<support::SerialQueue>("test.worker", nullptr) : nullptr;
    std::promise<void> release;
    if (worker) worker->async([gate = release.get_future().share()] { gate.wait(); });
    std::string seen;  // published on this thread, or on the worker before it is synced with
    auto reachability = std::make_shared<detail::ZReachability>(c.source, worker);
    reachability->states().subscribe([&](const detail::NetworkState& s) {
      seen += (seen.empty() ? "" : " ") + std::string(detail::rawValue(s));
    });
    reachability->startIfNeeded();
    reachability->startIfNeeded();  // only once
    if (c.stopFirst) reachability->stop();
    release.set_value();
    reachability->waitForReports();
    // Without a watch only wifi is seen until the host reports.
    EXPECT_EQ(seen, *change ? "wifi offline" : "wifi") << "the first report";
    // Same flags as the last report: nothing; other flags, even for the same state, publish.
    for (std::uint32_t bits : {0x0, 0x2, 0x2, 0x10002, 0x40000})
      if (*change) (*change)(bits);
    // The host's first report publishes even when its flags equal the initial 0; from then on
    // the watch is not listened to.
    for (std::uint32_t bits : {0x0, 0x0, 0x40002}) reachability->pushFlags(bits);
    if (*change) (*change)(0x2);
    EXPECT_EQ(seen, c.seen);
  }
}

}  // namespace
}  // namespace zelvanor
