// An app whose first launch cannot reach the identity sync server: the events it tracks wait for
// the triple, are kept at exit, and arrive, in order, once a later start learns the triple.
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>

#include "collector.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using collector::Collector;

TEST(FirstLaunch, EventsTrackedBeforeTheTripleSurviveExitAndArriveInOrder) {
  testing::TempDir dir;
  Collector server(Collector::Options{.dataDirectory = dir.path() / "collector"});
  std::string error;
  ASSERT_TRUE(server.start(&error)) << error;
  const std::string base = server.baseUrl();
  const std::string ca = server.caFile().string();
  const auto appDir = dir.path() / "app";

  auto start = [&](const std::string& syncServer, std::uint32_t reachability) {
    ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.first",
                                                     .appVersion = "1.0",
                                                     .dataDirectory = appDir.string()});
    ASSERT_TRUE(ZelvanorTracker::setEndpoints(ZEndpoints{base, base, syncServer, ca}));
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 2, .batchSize = 1})
        .setReachabilityFlags(reachability)
        .set(ZCommon({.serviceName = "first", .deployment = "production"}));
  };

  // First launch: nothing answers at the sync server's address.
  start("https://127.0.0.1:9", 0x2);
  // setRequired after the start configures a second time, so the common block is looked at twice
  // per start: install and launch, then one more launch (and two launches on later starts).
  std::vector<std::string> tracked = {"앱설치", "앱실행", "앱실행"};
  for (int i = 0; i < 20; ++i) {
    tracked.push_back("e" + std::to_string(i));
    ZelvanorTracker::set(ZAction("event", tracked.back(), "tap")).track(false, false);
  }
  ZelvanorTracker::shutdown();
  EXPECT_TRUE(server.events().empty());

  // Second launch learns the triple but is offline: the records are built, in tracking order,
  // and wait in the pending file behind nothing else.
  start(base, 0x0);
  tracked.insert(tracked.end(), {"앱실행", "앱실행"});
  for (int i = 0; i < 500 && testing::pendingRecords(appDir).size() < tracked.size(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ZelvanorTracker::shutdown();
  std::vector<std::string> kept;
  for (const auto& record : testing::pendingRecords(appDir)) kept.push_back(record.action.name);
  EXPECT_EQ(kept, tracked);

  // Third launch, online: every one of them arrives.
  start(base, 0x2);
  ZelvanorTracker::flush();
  std::multiset<std::string> arrived;
  for (int i = 0; i < 500 && arrived.size() < tracked.size() + 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    arrived.clear();
    for (const auto& event : server.events()) arrived.insert(event.actionName);
  }
  ZelvanorTracker::shutdown();
  std::multiset<std::string> expected(tracked.begin(), tracked.end());
  expected.insert({"앱실행", "앱실행"});  // the third start's own
  EXPECT_EQ(arrived, expected);
}

}  // namespace
}  // namespace zelvanor
