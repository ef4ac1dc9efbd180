// Retrying while the app runs, against a real collector over HTTPS: a collector that is down and
// comes back, and a sync server that is down at the first start and comes back. The back-off is
// shortened to a fifth of a second so that the tests wait for it.
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

class CollectorRetryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    detail::setRetryTimings(support::RetryTimings{.first = 200ms, .longest = 1000ms});
    ASSERT_TRUE(server_.start(&error_)) << error_;
  }
  void TearDown() override {
    ZelvanorTracker::shutdown();
    detail::setRetryTimings({});
  }

  void startSdk() {
    ZelvanorTracker::setPlatformFacts(
        ZPlatformFacts{.bundleIdentifier = "com.example.retry",
                       .appVersion = "1.0",
                       .dataDirectory = (dir_.path() / "app").string()});
    const std::string base = server_.baseUrl();
    ASSERT_TRUE(
        ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, server_.caFile().string()}));
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 2, .batchSize = 1})
        .setReachabilityFlags(0x2)
        .set(ZCommon({.serviceName = "retry", .deployment = "production"}));
  }

  /// Names of the stored events whose name starts with `prefix`, oldest first, once `count`
  /// different ones are there (or after ten seconds).
  std::vector<std::string> stored(const std::string& prefix, std::size_t count) {
    std::vector<std::string> names;
    for (int i = 0; i < 500; ++i) {
      names.clear();
      auto events = server_.events(collector::EventQuery{.limit = 5000, .oldestFirst = true});
      for (const auto& event : events) {
        if (event.actionName.rfind(prefix, 0) == 0) names.push_back(event.actionName);
      }
      if (std::set<std::string>(names.begin(), names.end()).size() >= count) break;
      std::this_thread::sleep_for(20ms);
    }
    return names;
  }

  testing::TempDir dir_;
  Collector server_{Collector::Options{.dataDirectory = dir_.path() / "collector"}};
  std::string error_;
};

TEST_F(CollectorRetryTest, RecordsKeptWhileTheCollectorWasDownArriveInTheSameRun) {
  startSdk();
  ASSERT_EQ(stored("앱", 3).size(), 3u);  // install and two launches: the triple is known
  server_.setDropConnections(true);
  constexpr int kRecords = 30;
  for (int i = 0; i < kRecords; ++i) testing::track("down-" + std::to_string(i));
  std::this_thread::sleep_for(300ms);
  // Connections fail: the SDK backs off instead of trying one connection per record.
  const auto attemptsWhileDown = server_.counters().trackRequests;
  EXPECT_LT(attemptsWhileDown, 3u + kRecords / 2) << "no storm of connections";

  server_.setDropConnections(false);
  const auto names = stored("down-", kRecords);
  ASSERT_EQ(std::set<std::string>(names.begin(), names.end()).size(),
            static_cast<std::size_t>(kRecords))
      << "every record arrives within the run";
  EXPECT_LE(names.size(), static_cast<std::size_t>(kRecords + 8)) << "twice at most in flight";

  // Only the first window of records went out while the collector was down (then the SDK backed
  // off, and its probes are records it kept); once it is back, a probe from among them goes first.
  // The order of the rest behind it is the delivery test's, without the network's races.
  const auto isOld = [&](const std::string& name) {
    return static_cast<std::size_t>(std::stoi(name.substr(5))) <
           detail::HttpsDelivery::kMaxInFlight;
  };
  EXPECT_TRUE(isOld(names.front())) << "the probe is a record tried while the collector was down";
}

TEST_F(CollectorRetryTest, ASyncServerDownAtTheFirstStartIsAskedAgainAndTheEventsArrive) {
  server_.setSyncAnswer(std::string("{\"busy\":true}"));  // no triple in it
  startSdk();
  for (int i = 0; i < 5; ++i) testing::track("early-" + std::to_string(i));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(server_.counters().trackRequests, 0u) << "nothing can be built without the triple";
  server_.setSyncAnswer(std::nullopt);
  // Built in tracking order; parallel connections may store neighbours in either order.
  const auto names = stored("early-", 5);
  EXPECT_EQ(std::multiset<std::string>(names.begin(), names.end()),
            (std::multiset<std::string>{"early-0", "early-1", "early-2", "early-3", "early-4"}));
  EXPECT_GE(server_.counters().syncRequests, 2u);
}

}  // namespace
}  // namespace zelvanor
