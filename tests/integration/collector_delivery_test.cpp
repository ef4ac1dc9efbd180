// The SDK against a real local collector over HTTPS on loopback, through the public facade only:
// an app that starts offline while the sync server gives no triple, then a collector that
// refuses, drops connections or is down. Each "start" is a fresh shared instance over the same data
// directory, as the next launch of a host app would be. The back-off is shortened to a fifth of a
// second so that the tests wait for it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "api/shared_instance.hpp"
#include "collector.hpp"
#include "network/https_delivery.hpp"
#include "support/sdk_host.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using collector::Collector;
using collector::StoredEvent;
using Names = std::vector<std::string>;
using testing::eventually;
using testing::track;
namespace fs = std::filesystem;

constexpr std::uint32_t kReachable = 0x2;

class CollectorDeliveryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    detail::setRetryTimings(support::RetryTimings{.first = 200ms, .longest = 1000ms});
    startCollector(0);
  }
  void TearDown() override {
    ZelvanorTracker::shutdown();
    ZelvanorTracker::setStoreLimits(ZStoreLimits{});
    detail::setRetryTimings({});
    collector_.reset();
  }

  void startCollector(int port) {
    collector_ = std::make_unique<Collector>(
        Collector::Options{.dataDirectory = dir_.path() / "collector", .port = port});
    std::string error;
    ASSERT_TRUE(collector_->start(&error)) << error;
  }

  /// Starts the SDK as a host does at launch: servers, configuration, its user's ids and the common
  /// block, which is what install and launch detection waits for. `offline` reports no network
  /// before anything else is known.
  void startSdk(bool offline = false, std::uint64_t batchSize = 1) {
    ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.shop",
                                                     .appVersion = "1.0",
                                                     .dataDirectory = appDir().string()});
    const std::string base = collector_->baseUrl();
    ASSERT_TRUE(
        ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, collector_->caFile().string()}));
    ZelvanorTracker::setReachabilityFlags(offline ? 0 : kReachable)
        .setRequired(ZConfiguration{.timeout = 2, .batchSize = batchSize})
        .set(ZId{.appUserId = "user-7"})
        .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  }

  /// Stored events whose name starts with `prefix`, oldest first, once `count` are there (with
  /// `distinct`, `count` different names), or after about ten seconds.
  std::vector<StoredEvent> waitForEvents(std::size_t count, const std::string& prefix = "",
                                         bool distinct = false) {
    std::vector<StoredEvent> events;
    for (int i = 0; i < 500; ++i) {
      events.clear();
      std::set<std::string> names;
      for (auto& e : collector_->events({.limit = 5000, .oldestFirst = true})) {
        if (e.actionName.rfind(prefix, 0) != 0) continue;
        names.insert(e.actionName);
        events.push_back(std::move(e));
      }
      if ((distinct ? names.size() : events.size()) >= count) break;
      std::this_thread::sleep_for(20ms);
    }
    return events;
  }

  /// Action names, sorted: records go out on parallel connections, so the collector may store
  /// neighbours in either order.
  static Names sortedNames(const std::vector<StoredEvent>& events, Names names = {}) {
    for (const auto& e : events) names.push_back(e.actionName);
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path appDir() const { return dir_.path() / "app"; }
  bool pendingFile() const { return fs::exists(appDir() / "ZLogs.tmp"); }

  testing::TempDir dir_;
  std::unique_ptr<Collector> collector_;
};

TEST_F(CollectorDeliveryTest, WhatAnOfflineDroppingOrDownCollectorMissedArrivesLaterRefusalsNever) {
  // Offline is the first thing known about the network, before the triple and any record; the
  // sync server answers without a triple at first.
  collector_->setSyncAnswer(std::string("{\"busy\":true}"));
  startSdk(/*offline=*/true);
  for (const char* name : {"early-1", "early-2"}) {
    ZelvanorTracker::set(ZPage{.id = "p1", .name = "home", .title = "Home"});
    track(name);
  }
  // The sync server is asked again: the events tracked before the triple are built with it, and
  // kept while offline.
  std::this_thread::sleep_for(300ms);
  collector_->setSyncAnswer(std::nullopt);
  EXPECT_TRUE(eventually([&] { return pendingFile(); }));
  EXPECT_GE(collector_->counters().syncRequests, 2u);
  EXPECT_EQ(collector_->counters().trackRequests, 0u) << "nothing goes out while offline";

  // The network comes: what was kept goes out in this run, without a threshold or a restart, with
  // one issued triple, and context set before the triple arrived in the records. Each of the two
  // configuration passes subscribes once more: two launch events.
  ZelvanorTracker::setReachabilityFlags(kReachable);
  const auto first = waitForEvents(5);
  ASSERT_EQ(sortedNames(first), (Names{"early-1", "early-2", "앱설치", "앱실행", "앱실행"}));
  const auto issued = collector_->issuedTriples();
  EXPECT_NE(std::find(issued.begin(), issued.end(), first.front().xid), issued.end());
  for (const auto& e : first) {
    EXPECT_EQ(e.xid, first.front().xid);
    if (e.actionName.rfind("early-", 0) == 0) {
      EXPECT_EQ(e.page, "home");
    }
  }
  // An answer other than "ok" drops the record for good.
  collector_->setTrackAnswer("fail");
  track("refused");
  ASSERT_TRUE(eventually([&] { return collector_->counters().fixedAnswers > 0; }));
  collector_->setTrackAnswer(std::nullopt);

  // Connections fail: the SDK backs off instead of trying one connection per record, and what it
  // kept arrives within the run once they work again.
  collector_->setDropConnections(true);
  constexpr int kRecords = 30;
  const auto attemptsBefore = collector_->counters().trackRequests;
  for (int i = 0; i < kRecords; ++i) track("down-" + std::to_string(i));
  std::this_thread::sleep_for(300ms);
  EXPECT_LT(collector_->counters().trackRequests - attemptsBefore, 3u + kRecords / 2)
      << "no storm of connections";
  collector_->setDropConnections(false);
  const auto down = waitForEvents(kRecords, "down-", /*distinct=*/true);
  const Names downNames = sortedNames(down);
  EXPECT_EQ(std::set<std::string>(downNames.begin(), downNames.end()).size(),
            static_cast<std::size_t>(kRecords));
  EXPECT_LE(down.size(), static_cast<std::size_t>(kRecords + 8)) << "twice at most in flight";
  // Only the first window went out while connections failed (then the SDK backed off, and its
  // probes are records it kept): a probe from among them goes first. The order of the rest
  // behind it is the delivery test's, without the network's races.
  EXPECT_LT(static_cast<std::size_t>(std::stoi(down.front().actionName.substr(5))),
            detail::HttpsDelivery::kMaxInFlight)
      << "the probe is a record tried while connections failed";

  // The collector goes down: what is tracked meanwhile is kept for the next start.
  const int port = collector_->port();
  collector_->stop();
  for (const char* name : {"offline-1", "offline-2", "offline-3"}) track(name);
  EXPECT_TRUE(eventually([&] { return pendingFile(); }));
  ZelvanorTracker::shutdown();
  // The jar keeps the triple: the next start below sends it without asking.
  const ZXid kept = first.front().xid;
  EXPECT_EQ(fs::status(appDir() / "cookies.txt").permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  // The next start finds all three cookies and asks no one: no second install, the kept records
  // arrive with the same triple, the refused one never.
  collector_.reset();
  startCollector(port);
  startSdk();
  track("second-start");
  const auto all = waitForEvents(11 + down.size());
  // The refused one never arrives.
  EXPECT_EQ(sortedNames(all),
            sortedNames(down, {"앱설치", "앱실행", "앱실행", "앱실행", "앱실행", "early-1",
                               "early-2", "offline-1", "offline-2", "offline-3", "second-start"}));
  for (std::size_t i = first.size(); i < all.size(); ++i) EXPECT_EQ(all[i].xid, kept);
  EXPECT_EQ(collector_->counters().syncRequests, 0u);
  EXPECT_TRUE(eventually([&] { return !pendingFile(); }));
}

TEST_F(CollectorDeliveryTest, BeyondTheMemoryLimitRecordsWaitOnDiskAndAFlushSendsThemOldestFirst) {
  ZelvanorTracker::setStoreLimits(ZStoreLimits{.maxRecordsInMemory = 10});
  // A threshold far above what is tracked: nothing goes out before the flush.
  startSdk(/*offline=*/false, /*batchSize=*/1000);
  ASSERT_TRUE(ZelvanorTracker::waitUntilReady(std::chrono::seconds(10)));
  constexpr int kTracked = 300;
  // Names numbered with three digits: capped-000, capped-001, ...
  for (int i = 0; i < kTracked; ++i) track("capped-" + std::to_string(1000 + i).substr(1));
  const ZCounters waiting = ZelvanorTracker::counters();
  EXPECT_LE(waiting.waitingInMemory, 10u);
  EXPECT_GE(waiting.waitingOnDisk, static_cast<std::uint64_t>(kTracked - 10));
  ASSERT_TRUE(ZelvanorTracker::flush().flushAndWait(std::chrono::seconds(60)));

  Names arrived;
  for (const auto& e : waitForEvents(kTracked, "capped-", true)) arrived.push_back(e.actionName);
  ASSERT_EQ(arrived.size(), static_cast<std::size_t>(kTracked)) << "every one, none twice";
  // Oldest first: parallel connections may swap neighbours, never more than a window apart.
  constexpr int kConnections = 8;
  for (int position = 0; position < kTracked; ++position) {
    const int index = std::stoi(arrived[static_cast<std::size_t>(position)].substr(7));
    EXPECT_LT(std::abs(index - position), 2 * kConnections) << arrived[position];
  }
}

}  // namespace
}  // namespace zelvanor
