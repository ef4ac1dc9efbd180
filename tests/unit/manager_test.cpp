// The flows a host goes through: first launch, later launch, update, events before and after the
// identity triple, context merges, getData.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/platform.hpp"
#include "support/data_table.hpp"
#include "support/fake_sources.hpp"
#include "support/scoped_time_zone.hpp"
#include "support/temp_dir.hpp"
#include "support/wire_samples.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor {
namespace {

using detail::NetworkState;
using detail::ZInternalLogManager;
using testing::FakeSources;

const ZXid kTriple{"cid-1", "did-1", "sid-1"};

ZCommon shopCommon() {
  return ZCommon({.serviceName = "shop", .deployment = "prod", .svcDomain = "shop.example"});
}

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setFacts("2.0");
    fakes.settings = std::make_shared<platform::SettingsStore>(dir.path() / "settings.json");
  }
  void TearDown() override {
    if (manager) manager->stop();
    setPlatformFacts({});
  }

  void setFacts(std::optional<std::string> appVersion) {
    setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.shop",
                                    .appVersion = std::move(appVersion),
                                    .dataDirectory = dir.path().string()});
  }
  void start(int configureCalls = 1) {
    manager = ZInternalLogManager::create(fakes.sources());
    for (int i = 0; i < configureCalls; ++i) manager->configure(ZConfiguration::defaults());
  }
  // A later start of the app: new sources around the same settings store.
  void restart(int configureCalls = 1) {
    if (manager) manager->stop();
    fakes = FakeSources{.settings = fakes.settings};
    start(configureCalls);
  }
  void deliverTriple() {
    fakes.identity->deliver(kTriple);
    manager->waitForIdentityWork();
  }
  std::vector<ZLogRecord> sentRecords() const {
    std::vector<ZLogRecord> records;
    for (auto& s : fakes.transport->sent()) records.push_back(s.record);
    return records;
  }

  testing::TempDir dir;
  FakeSources fakes;
  std::shared_ptr<ZInternalLogManager> manager;
};

// What a start records follows what earlier starts left in the settings store, and the app
// version the host gives ("Unknown Version" when it gives none): tests/data/manager/launches.tsv
// has the cases. In a zone whose date is not
// UTC's: a fresh install's event carries today's date there and the moment's timestamp, and the
// settings store keeps both.
TEST_F(ManagerTest, InstallUpdateAndLaunchFollowTheStoredVersion) {
  const testing::OtherDateZone far = testing::zoneWithAnotherDateThanUtc();
  std::optional<testing::ScopedTimeZone> zone;
  if (testing::kZonesFromTz) zone.emplace(far.rule);
  for (const auto& row : testing::dataTable("manager/launches.tsv")) {
    SCOPED_TRACE(row.at(0));
    const auto given = [&](int i) -> std::optional<std::string> {
      return row.at(i) == "-" ? std::nullopt : std::optional(row.at(i));
    };
    setFacts(given(4));
    fakes.settings =
        row.at(2) == "yes"
            ? std::make_shared<platform::SettingsStore>(dir.path() / (row.at(0) + ".json"))
            : nullptr;
    if (given(3)) fakes.settings->setString("latestAppVersion", *given(3));
    if (row.at(5) == "yes") {
      fakes.settings->setString("appInstalledDate", "2020-01-02");
      fakes.settings->setInteger("appInstalledTimestamp", 1577923200);
    }
    const std::int64_t before = testing::nowSeconds();
    restart(std::stoi(row.at(1)));
    deliverTriple();
    manager->setCommon(shopCommon());
    const std::int64_t after = testing::nowSeconds();
    manager->stop();  // no SDK thread runs while the zone is put back
    const std::string version = given(4).value_or("Unknown Version");
    EXPECT_EQ(manager->agent()->appVersion, version);
    // The device's zone in whole hours, taken when configured.
    if (testing::kZonesFromTz) {
      EXPECT_EQ(manager->agent()->timezone, far.offset > 0 ? "+14" : "-12");
    }
    std::string kinds;
    for (const auto& kind : fakes.transport->sentActionKinds()) kinds += "," + kind;
    ASSERT_EQ(kinds, "," + row.at(6));
    const ZLogRecord first = sentRecords()[0];
    const std::int64_t at = first.app->appInstallTimestamp.value_or(0);
    const std::string fresh = *encodeJson(
        ZApp{.appInstall = true,
             .appLaunch = true,
             .appInstallDate = testing::dateAt(at, testing::kZonesFromTz ? far.offset : 0),
             .appInstallTimestamp = at});
    EXPECT_EQ(*encodeJson(*first.app), given(7).value_or(fresh));
    EXPECT_TRUE(given(7) || (at >= before && at <= after)) << at;  // a fresh install's moment
    EXPECT_TRUE(first.common->requestTimeStamp);
    if (fakes.settings) {
      const bool installed = kinds.starts_with(",install");
      EXPECT_EQ(fakes.settings->string("latestAppVersion"), version);
      EXPECT_EQ(fakes.settings->string("appInstalledDate"),
                installed ? first.app->appInstallDate : std::nullopt);
      EXPECT_EQ(fakes.settings->integer("appInstalledTimestamp"),
                installed ? first.app->appInstallTimestamp : std::nullopt);
    }
  }
}

TEST_F(ManagerTest, EventsBeforeTheTripleBecomeRecordsWithContextCurrentWhenItArrives) {
  start();
  manager->setPage(ZPage{.id = "p1", .name = "home", .title = "Home"});
  manager->setAction(ZAction(ZAction::ZActionType::pageView, "home", "view"));
  manager->track(false, false);
  manager->setClick(ZClick{.type = "banner"});  // no action: the template makes no record
  manager->track(false, false);
  manager->setAction(ZAction("event", "ignored", "disabled"));
  manager->track(false, /*disabled=*/true);  // not even kept as a template
  manager->setAction(ZAction("event", "second", "tap"));
  manager->track(true, false);
  EXPECT_EQ(manager->queue().templateCount(), 3u);
  EXPECT_TRUE(fakes.transport->sent().empty());

  // Context that arrives later is what the records carry.
  fakes.settings->setString("latestAppVersion", "2.0");
  manager->setCommon(shopCommon());  // runs launch detection, itself kept as a template
  // Id blocks merge member by member.
  manager->setId(ZId{.accountId = "acct-9", .appUserId = "", .webIdEnabled = false});
  manager->setId(ZId{.customId = "c9"});
  EXPECT_EQ(manager->id(),
            (ZId{.accountId = "acct-9", .appUserId = "", .webIdEnabled = false, .customId = "c9"}));
  deliverTriple();

  const auto records = sentRecords();
  ASSERT_EQ(fakes.transport->sentActionKinds(),
            (std::vector<std::string>{"view", "tap", "launch"}));
  EXPECT_EQ(records[0].page->name, "home");
  EXPECT_FALSE(records[1].page);  // the builder started afresh after the first track
  for (const auto& record : records) {
    ASSERT_TRUE(record.common);
    EXPECT_FALSE(record.common->requestTimeStamp) << "templates are never stamped";
    EXPECT_EQ(record.ucid->id, "acct-9");
    EXPECT_EQ(record.xid, kTriple);
  }
  EXPECT_EQ(manager->queue().templateCount(), 0u);

  // A second configuration pass asked the sync server again and got another triple: records
  // from then on carry the later one, stamped and built at once, the ids still giving the ucid.
  // A plain track encodes straight from the blocks where they live; a verbose one builds the whole
  // record first. Both must send the same record, every block of the event and the id in it.
  const ZXid later{"cid-2", "did-2", "sid-2"};
  fakes.identity->deliver(later);
  manager->waitForIdentityWork();
  manager->setId(samples::id());
  const ZLogTemplate blocks = samples::logTemplate();
  manager->track(blocks, false, false);
  manager->track(blocks, true, false);
  const auto all = sentRecords();
  ASSERT_EQ(all.size(), 5u);
  ZLogRecord plain = all[3];
  const ZLogRecord& built = all[4];
  EXPECT_TRUE(plain.common->requestTimeStamp && built.common->requestTimeStamp);
  EXPECT_EQ(built.xid, later);
  EXPECT_NE(built.ucid->id, later.cid);
  plain.common->requestTimeStamp = built.common->requestTimeStamp;
  EXPECT_EQ(plain, built);
  // The event's blocks as they read back from the wire (some members are never written).
  const auto eventPart = [](const ZLogRecord& r) {
    return ZLogTemplate{r.agreement, r.app,  r.click,     r.domain,
                        r.location,  r.page, r.promotion, r.status,
                        r.usage,     r.utm,  r.buckets,   r.viewImpressionContents,
                        r.action,    r.free};
  };
  ZLogRecord expected = samples::recordAsRead();
  expected.free = blocks.free;
  EXPECT_EQ(eventPart(plain), eventPart(expected));
  EXPECT_EQ(plain.id, manager->id());
}

// An app that starts offline: the transport must know, or it would not resend what it keeps
// once the network comes. Without a triple the sync is asked again when the network returns (the
// back-off's first step is 30 s); with one, never. The agent and the gate follow the state.
TEST_F(ManagerTest, NetworkStateReachesTheTransportTheSyncTheAgentAndTheGate) {
  fakes.network->states().send(NetworkState::offline);
  start();  // the fake does not answer yet: no triple
  manager->waitForIdentityWork();
  EXPECT_EQ(fakes.transport->networkChanges(), (std::vector<bool>{false}));
  EXPECT_EQ(fakes.identity->retries(), 0) << "nothing to gain while offline";
  fakes.network->states().send(NetworkState::wifi);
  manager->waitForIdentityWork();
  EXPECT_EQ(fakes.identity->retries(), 1);
  fakes.network->states().send(NetworkState::mobile);  // still online: no change to tell
  manager->waitForIdentityWork();
  EXPECT_EQ(fakes.identity->retries(), 1) << "online to online is no return";
  EXPECT_EQ(fakes.transport->networkChanges(), (std::vector<bool>{false, true}));

  // An event tracked with no common block yet is dropped when the triple arrives.
  manager->setAction(ZAction("event", "orphan", "tap"));
  manager->track(false, false);
  deliverTriple();
  EXPECT_TRUE(fakes.transport->sent().empty());
  EXPECT_EQ(manager->queue().templateCount(), 0u);
  fakes.settings->setString("latestAppVersion", "2.0");
  manager->setCommon(shopCommon());
  fakes.network->states().send(NetworkState::offline);
  EXPECT_EQ(manager->agent()->networkState, "offline");
  manager->setAction(ZAction("event", "x", "offline-tap"));
  manager->track(false, false);
  fakes.network->states().send(NetworkState::mobile);
  manager->waitForIdentityWork();
  EXPECT_EQ(fakes.identity->retries(), 1) << "a known triple is not asked for again";
  manager->setAction(ZAction("event", "y", "mobile-tap"));
  manager->track(false, false);

  std::vector<std::pair<bool, std::string>> sent;  // the launch, then the two taps
  for (const auto& s : fakes.transport->sent())
    sent.emplace_back(s.networkAvailable, s.record.agent->networkState.value_or(""));
  EXPECT_EQ(sent, (std::vector<std::pair<bool, std::string>>{
                      {true, "mobile"}, {false, "offline"}, {true, "mobile"}}));
}

// The ucid's id is the first non-empty one of these, in this order; otherwise the triple's cid.
const std::pair<const char*, std::optional<std::string> ZId::*> kUcidOrder[] = {
    {"appUserId", &ZId::appUserId},     {"accountId", &ZId::accountId},
    {"plovaUserId", &ZId::plovaUserId}, {"hestroUserId", &ZId::hestroUserId},
    {"tunqaId", &ZId::tunqaId},         {"accessToken", &ZId::accessToken},
    {"customId", &ZId::customId},
};

TEST_F(ManagerTest, UcidTakesTheFirstNonEmptyIdInItsOrder) {
  // A fresh start per case: the id merge never forgets a member.
  auto ucidFor = [&](const ZId& id) -> std::optional<std::string> {
    fakes.settings->setString("latestAppVersion", "2.0");
    restart();
    deliverTriple();
    manager->setId(id);
    manager->setCommon(shopCommon());
    const auto records = sentRecords();
    if (records.size() != 1 || !records[0].ucid) return "no single record with a ucid";
    return records[0].ucid->id;
  };

  // Every id before the i-th empty, every id from it on set: it wins; with all of them empty
  // (i past the end), the cid does.
  for (std::size_t i = 0; i <= std::size(kUcidOrder); ++i) {
    ZId crowded;
    for (std::size_t j = 0; j < std::size(kUcidOrder); ++j) {
      crowded.*(kUcidOrder[j].second) = j < i ? "" : std::string("v-") + kUcidOrder[j].first;
    }
    EXPECT_EQ(ucidFor(crowded),
              i < std::size(kUcidOrder) ? std::string("v-") + kUcidOrder[i].first : kTriple.cid)
        << i;
  }
  // Ids outside the order never become the ucid.
  EXPECT_EQ(ucidFor(ZId{.appId = "a", .uuid = "u", .webId = "w", .adid = "d"}), kTriple.cid);
}

TEST_F(ManagerTest, EachConfigureRecordsALaunchAndALifecycleEventOneRecordAfterRestoredOnes) {
  fakes.transport->setPending({ZLogRecord{.xid = kTriple, .action = {"a", "b", "restored"}}});
  start();
  manager->configure(ZConfiguration{.timeout = 2, .batchSize = 2, .usingSandboxEnvironment = true});
  EXPECT_EQ(fakes.identity->fetches(), 2);
  EXPECT_EQ(fakes.transport->restoreCalls(), 1);

  deliverTriple();
  fakes.settings->setString("latestAppVersion", "2.0");
  manager->setCommon(shopCommon());
  platform::lifecycleEvents().send(platform::LifecycleEvent::willEnterForeground);
  platform::lifecycleEvents().send(platform::LifecycleEvent::willResignActive);
  platform::lifecycleEvents().send(platform::LifecycleEvent::willTerminate);
  manager->queue().flush();
  EXPECT_EQ(fakes.transport->sentActionKinds(),
            (std::vector<std::string>{"restored", "launch", "launch", "launch", "background",
                                      "background"}))
      << "the restored record first, a launch for each of the two configures, and one (not "
         "one per configure) for each lifecycle event";
  EXPECT_EQ(sentRecords().back().app, (ZApp{.appExit = true}));
}

// Host threads that set the common block at once on a fresh install: one install event between
// them, and a launch each.
TEST_F(ManagerTest, CommonBlocksSetAtOnceOnAFreshInstallMakeOneInstallEvent) {
  constexpr int kThreads = 4;
  start();
  deliverTriple();
  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      manager->setCommon(shopCommon());
    });
  }
  for (auto& thread : threads) thread.join();
  const auto kinds = fakes.transport->sentActionKinds();
  EXPECT_EQ(std::ranges::count(kinds, "install"), 1);
  EXPECT_EQ(std::ranges::count(kinds, "launch"), kThreads);
}

}  // namespace
}  // namespace zelvanor
