// The SDK against a real local collector over HTTPS on loopback, through the public facade only.
// Each "start" is a fresh shared instance over the same data directory, as the next launch of a
// host app would be.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "collector.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using collector::Collector;
using collector::StoredEvent;

constexpr std::uint32_t kReachable = 0x2;

class CollectorDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override { startCollector(0); }

  void TearDown() override {
    ZelvanorTracker::shutdown();
    collector_.reset();
  }

  void startCollector(int port) {
    collector_ = std::make_unique<Collector>(
        Collector::Options{.dataDirectory = dir_.path() / "collector", .port = port});
    std::string error;
    ASSERT_TRUE(collector_->start(&error)) << error;
  }

  // Points a new SDK start at the collector and the app's own data directory. Nothing starts yet.
  void prepareStart(const std::string& appVersion = "1.0") {
    ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.shop",
                                                     .appVersion = appVersion,
                                                     .dataDirectory = appDir().string()});
    const std::string base = collector_->baseUrl();
    ASSERT_TRUE(
        ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, collector_->caFile().string()}));
  }

  void startSdk() {
    prepareStart();
    // As a host does at launch: configuration, then its user's ids and the common block, which
    // is what install and launch detection waits for.
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
        .setReachabilityFlags(kReachable)
        .set(ZId{.appUserId = "user-7"})
        .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  }

  static void track(const std::string& name) {
    ZelvanorTracker::set(ZAction("event", name, "tap")).track(false, false);
  }

  // Stored events oldest first, once at least `count` are there (or after about five seconds).
  std::vector<StoredEvent> waitForEvents(std::size_t count) {
    std::vector<StoredEvent> events;
    for (int i = 0; i < 250; ++i) {
      events = collector_->events();
      if (events.size() >= count) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::reverse(events.begin(), events.end());
    return events;
  }

  // Action names in arrival order. Records go out on parallel connections, so the collector may
  // store neighbours in either order; `sorted` compares what arrived, not when.
  static std::vector<std::string> names(const std::vector<StoredEvent>& events) {
    std::vector<std::string> result;
    for (const auto& e : events) result.push_back(e.actionName);
    return result;
  }
  static std::vector<std::string> sorted(std::vector<std::string> names) {
    std::sort(names.begin(), names.end());
    return names;
  }
  static const StoredEvent& named(const std::vector<StoredEvent>& events, const std::string& name) {
    static const StoredEvent none;
    auto found = std::find_if(events.begin(), events.end(),
                              [&](const auto& e) { return e.actionName == name; });
    return found == events.end() ? none : *found;
  }

  std::filesystem::path appDir() const { return dir_.path() / "app"; }

  testing::TempDir dir_;
  std::unique_ptr<Collector> collector_;
};

// The triple the cookie jar holds for the sync server, as saved at shutdown.
ZXid tripleInJar(const std::filesystem::path& jar) {
  std::ifstream in(jar);
  std::map<std::string, std::string> cookies;
  for (std::string line; std::getline(in, line);) {
    std::vector<std::string> columns;
    std::stringstream fields(line);
    for (std::string column; std::getline(fields, column, '\t');) columns.push_back(column);
    if (columns.size() == 7) cookies[columns[5]] = columns[6];
  }
  return ZXid{cookies["fa_cid"], cookies["fa_did"], cookies["fa_sid"]};
}

TEST_F(CollectorDeliveryTest, AFreshInstallDeliversWithTheIssuedTripleAndTheNextStartReusesIt) {
  startSdk();
  // Each of the two configuration passes subscribes once more: two launch events, and a sync
  // request each, unless the first one's cookies were already in the jar when the second pass
  // looked.
  const auto first = waitForEvents(3);
  ASSERT_EQ(sorted(names(first)), sorted({"앱설치", "앱실행", "앱실행"}));

  const auto issued = collector_->issuedTriples();
  auto wasIssued = [&](const ZXid& xid) {
    return std::find(issued.begin(), issued.end(), xid) != issued.end();
  };
  for (const auto& e : first) EXPECT_TRUE(wasIssued(e.xid)) << e.xid.cid;

  ZelvanorTracker::shutdown();
  // A second request still on its way when shutdown cancelled it may still be counted: wait until
  // the count holds still.
  auto syncsAtFirstStart = collector_->counters().syncRequests;
  for (int quiet = 0; quiet < 10; ++quiet) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto now = collector_->counters().syncRequests;
    if (now != syncsAtFirstStart) quiet = 0;
    syncsAtFirstStart = now;
  }
  EXPECT_GE(syncsAtFirstStart, 1u);
  EXPECT_LE(syncsAtFirstStart, 2u);
  const ZXid kept = tripleInJar(appDir() / "cookies.txt");
  EXPECT_FALSE(kept.cid.empty() || kept.did.empty() || kept.sid.empty());
  EXPECT_EQ(
      std::filesystem::status(appDir() / "cookies.txt").permissions() & std::filesystem::perms::all,
      std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  EXPECT_TRUE(wasIssued(kept));
  // Everything delivered was answered before shutdown, so nothing is kept to be sent twice.
  EXPECT_FALSE(std::filesystem::exists(appDir() / "ZLogs.tmp"));

  // The next start finds all three cookies and asks no one.
  startSdk();
  track("second-start");
  const auto second = waitForEvents(6);
  // Two more launches and the event: no second install.
  ASSERT_EQ(sorted(names(second)),
            sorted({"앱설치", "앱실행", "앱실행", "앱실행", "앱실행", "second-start"}));
  for (std::size_t i = first.size(); i < second.size(); ++i) EXPECT_EQ(second[i].xid, kept);
  EXPECT_EQ(collector_->counters().syncRequests, syncsAtFirstStart);
}

TEST_F(CollectorDeliveryTest, RecordsThatFindTheCollectorDownArriveAtTheNextStart) {
  startSdk();
  ASSERT_EQ(waitForEvents(3).size(), 3u);
  const int port = collector_->port();
  collector_->stop();
  for (const char* name : {"offline-1", "offline-2", "offline-3"}) track(name);
  for (int i = 0; i < 250 && !std::filesystem::exists(appDir() / "ZLogs.tmp"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ZelvanorTracker::shutdown();
  EXPECT_TRUE(std::filesystem::exists(appDir() / "ZLogs.tmp"));

  collector_.reset();
  startCollector(port);
  startSdk();
  ZelvanorTracker::flush();
  const auto events = waitForEvents(8);
  auto delivered = names(events);
  std::erase_if(delivered, [](const std::string& n) { return n.rfind("offline-", 0) != 0; });
  EXPECT_EQ(sorted(delivered), sorted({"offline-1", "offline-2", "offline-3"}));
  for (int i = 0; i < 250 && std::filesystem::exists(appDir() / "ZLogs.tmp"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_FALSE(std::filesystem::exists(appDir() / "ZLogs.tmp"));
}

TEST_F(CollectorDeliveryTest, AnAnswerOtherThanOkDropsTheRecordForGood) {
  startSdk();
  ASSERT_EQ(waitForEvents(3).size(), 3u);
  collector_->setTrackAnswer("fail");
  track("refused");
  for (int i = 0; i < 250 && collector_->counters().fixedAnswers == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  collector_->setTrackAnswer(std::nullopt);
  track("accepted");
  ASSERT_EQ(named(waitForEvents(4), "accepted").actionName, "accepted");

  ZelvanorTracker::shutdown();
  EXPECT_FALSE(std::filesystem::exists(appDir() / "ZLogs.tmp"));
  startSdk();
  ZelvanorTracker::flush();
  const auto events = waitForEvents(6);
  for (const auto& name : names(events)) EXPECT_NE(name, "refused");
}

TEST_F(CollectorDeliveryTest, AClosedNetworkGateParksRecordsUntilTheNetworkReturns) {
  startSdk();
  ASSERT_EQ(waitForEvents(3).size(), 3u);
  ZelvanorTracker::setReachabilityFlags(0);
  track("gate-closed-1");
  track("gate-closed-2");
  for (int i = 0; i < 250 && !std::filesystem::exists(appDir() / "ZLogs.tmp"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(std::filesystem::exists(appDir() / "ZLogs.tmp"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(collector_->counters().trackRequests, 3u) << "nothing goes out while offline";

  // The network returns: what was parked goes out at once, oldest first, without a threshold.
  ZelvanorTracker::setReachabilityFlags(kReachable);
  auto events = waitForEvents(5);
  EXPECT_EQ(sorted(names(events)),
            sorted({"앱설치", "앱실행", "앱실행", "gate-closed-1", "gate-closed-2"}));
  track("gate-open");
  events = waitForEvents(6);
  EXPECT_EQ(names(events).back(), "gate-open");

  // Nothing of it waits for the next start, and nothing arrives twice.
  ZelvanorTracker::shutdown();
  startSdk();
  ZelvanorTracker::flush();
  events = waitForEvents(8);
  auto parked = names(events);
  std::erase_if(parked, [](const std::string& n) { return n.rfind("gate-", 0) != 0; });
  EXPECT_EQ(sorted(parked), sorted({"gate-closed-1", "gate-closed-2", "gate-open"}));
}

TEST_F(CollectorDeliveryTest, BeyondTheMemoryLimitRecordsWaitOnDiskAndAFlushSendsThemOldestFirst) {
  struct DefaultLimitsAfter {
    ~DefaultLimitsAfter() { ZelvanorTracker::setStoreLimits(ZStoreLimits{}); }
  } restore;
  ZelvanorTracker::setStoreLimits(ZStoreLimits{.maxRecordsInMemory = 10});
  prepareStart();
  // A threshold far above what is tracked: nothing goes out before the flush.
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1000})
      .setReachabilityFlags(kReachable)
      .set(ZId{.appUserId = "user-7"})
      .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  ASSERT_TRUE(ZelvanorTracker::waitUntilReady(std::chrono::seconds(10)));
  constexpr int kTracked = 300;
  for (int i = 0; i < kTracked; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "capped-%03d", i);
    track(name);
  }
  const ZCounters waiting = ZelvanorTracker::counters();
  EXPECT_LE(waiting.waitingInMemory, 10u);
  EXPECT_GE(waiting.waitingOnDisk, static_cast<std::uint64_t>(kTracked - 10));
  ASSERT_TRUE(ZelvanorTracker::flush().flushAndWait(std::chrono::seconds(60)));

  std::vector<std::string> arrived =
      names(collector_->events({.limit = 2 * kTracked, .oldestFirst = true}));
  std::erase_if(arrived, [](const std::string& n) { return n.rfind("capped-", 0) != 0; });
  ASSERT_EQ(arrived.size(), static_cast<std::size_t>(kTracked)) << "every one, none twice";
  EXPECT_EQ(std::set<std::string>(arrived.begin(), arrived.end()).size(), arrived.size());
  // Oldest first: parallel connections may swap neighbours, never more than a window apart.
  constexpr int kConnections = 8;
  for (int position = 0; position < kTracked; ++position) {
    const int index = std::stoi(arrived[static_cast<std::size_t>(position)].substr(7));
    EXPECT_LT(std::abs(index - position), 2 * kConnections) << arrived[position];
  }
}

TEST_F(CollectorDeliveryTest, AnAppThatStartsOfflineSendsWhatItKeptWhenTheNetworkComes) {
  prepareStart();
  // Offline is the first thing known about the network, before the triple and any record.
  ZelvanorTracker::setReachabilityFlags(0);
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
      .set(ZId{.appUserId = "user-7"})
      .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  track("offline-1");
  track("offline-2");
  for (int i = 0; i < 250 && !std::filesystem::exists(appDir() / "ZLogs.tmp"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(std::filesystem::exists(appDir() / "ZLogs.tmp"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(collector_->counters().trackRequests, 0u) << "nothing goes out while offline";

  // The network comes: what was kept goes out in this run, without a threshold or a restart.
  ZelvanorTracker::setReachabilityFlags(kReachable);
  const auto events = waitForEvents(5);
  EXPECT_EQ(sorted(names(events)),
            sorted({"앱설치", "앱실행", "앱실행", "offline-1", "offline-2"}));
}

TEST_F(CollectorDeliveryTest, EventsTrackedBeforeTheTripleArrivesAreDeliveredWithIt) {
  // The sync answer takes a while, so everything below is tracked before the triple is known.
  collector_->setDelay(std::chrono::milliseconds(700));
  startSdk();
  for (const char* name : {"early-1", "early-2"}) {
    ZelvanorTracker::set(ZPage{.id = "p1", .name = "home", .title = "Home"});
    track(name);
  }
  // The sync answer is still on its way, so nothing can have been sent yet.
  EXPECT_EQ(collector_->counters().trackRequests, 0u);

  const auto events = waitForEvents(5);
  ASSERT_EQ(sorted(names(events)), sorted({"앱설치", "앱실행", "앱실행", "early-1", "early-2"}));
  EXPECT_FALSE(events.front().xid.cid.empty());
  for (const auto& e : events) EXPECT_EQ(e.xid, events.front().xid);
  // Context set before the triple arrived is in the records built from the templates.
  EXPECT_EQ(named(events, "early-1").page, "home");
  EXPECT_EQ(named(events, "early-2").page, "home");
}

}  // namespace
}  // namespace zelvanor
