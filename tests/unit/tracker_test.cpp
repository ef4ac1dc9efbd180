// The static facade: chaining, when the shared instance starts, and how configuration calls
// overwrite each other.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <set>
#include <thread>

#include "api/shared_instance.hpp"
#include "network/https_delivery.hpp"
#include "support/pending_files.hpp"
#include "support/shared_tracker.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using TrackerTest = testing::SharedTrackerTest;

TEST_F(TrackerTest, ChainedCallsProduceOneRecordWithTheDefaultSdkBlock) {
  becomeReady();
  ZelvanorTracker::setDevelopment()
      .set([] { return ZPage{.id = "p", .name = "home", .title = "Home"}; })
      .set(ZBucket{.name = "b1"})
      .set([] { return std::vector<ZBucket>{{.name = "b2"}}; })
      .set([] { return std::string("ignored"); })
      .set(ZAction(ZAction::ZActionType::pageView, "home", "view"))
      .track(false, false);
  const auto sent = fakes.transport->sent();
  ASSERT_EQ(sent.size(), 2u);  // the launch, then ours (batch size 1 by default)
  const ZLogRecord& record = sent[1].record;
  EXPECT_EQ(record.page->name, "home");
  EXPECT_EQ(record.buckets->size(), 2u);
  EXPECT_FALSE(record.free) << "the text set is dropped";
  const std::string json = *encodeJson(record.sdk);
  EXPECT_EQ(json, R"({"type":"development","version":"0.9.0","common_log_version":"1.2.0"})");

  ZelvanorTracker::setProduction().set(ZAction("e", "n", "k")).track(false, false);
  EXPECT_EQ(*encodeJson(fakes.transport->sent().back().record.sdk),
            R"({"type":"production","version":"0.9.0","common_log_version":"1.2.0"})");
}

TEST_F(TrackerTest, SettingsCallsStartTheSdkOnlyWhenNeededAndOverwriteEachOther) {
  // Switches do not start the SDK; the start applies the defaults over them.
  ZelvanorTracker::turnOffConsoleLogs();
  ZelvanorTracker::setTimeout(30);
  EXPECT_EQ(detail::sharedIfRunning(), nullptr);
  EXPECT_FALSE(detail::settings().consoleLogsEnabled);
  EXPECT_EQ(detail::settings().requestTimeout, 30.0);

  // A host's callable is called once, with the SDK already running.
  int calls = 0;
  bool runningDuringCall = false;
  ZelvanorTracker::set([&] {
    ++calls;
    runningDuringCall = detail::sharedIfRunning() != nullptr;
    return ZPage{.id = "p", .name = "home", .title = "Home"};
  });
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(runningDuringCall);
  EXPECT_EQ(detail::settings().requestTimeout, 5.0);
  EXPECT_EQ(detail::sharedIfRunning()->queue().batchSize(), 1u);

  detail::shutdownShared();
  runningDuringCall = false;
  ZelvanorTracker::setRequired([&] {
    runningDuringCall = detail::sharedIfRunning() != nullptr;
    return ZConfiguration{.timeout = 10, .batchSize = 3, .usingSandboxEnvironment = true};
  }).useGeneralEnvrionment();
  EXPECT_TRUE(runningDuringCall);
  EXPECT_EQ(detail::settings().requestTimeout, 10.0);
  EXPECT_FALSE(detail::settings().usingSandbox);
  EXPECT_EQ(detail::sharedIfRunning()->queue().batchSize(), 3u);

  ZelvanorTracker::setTimeout(-1).setBatchSize(0).useSandboxEnvironment();
  EXPECT_EQ(detail::settings().requestTimeout, -1.0) << "no range check";
  EXPECT_EQ(detail::sharedIfRunning()->queue().batchSize(), 0u);
  EXPECT_TRUE(detail::settings().usingSandbox);

  ZelvanorTracker::setRequired(ZConfiguration::defaults());
  EXPECT_EQ(detail::settings().requestTimeout, 5.0);
  EXPECT_FALSE(detail::settings().usingSandbox);
  EXPECT_EQ(ZConfiguration::defaults(), (ZConfiguration{5.0, 1, false}));
}

TEST_F(TrackerTest, GetDataBatchSizeFlushAndLifecyclePostingGoThroughTheSharedInstance) {
  EXPECT_EQ(ZelvanorTracker::getData(), "Zelvanor Status unstable not yet.");
  becomeReady();
  ZelvanorTracker::setBatchSize(5);
  for (int i = 0; i < 4; ++i)
    ZelvanorTracker::set(ZAction("e", std::to_string(i), "k")).track(false, false);
  EXPECT_EQ(fakes.transport->sent().size(), 1u);  // only the launch from becomeReady
  ZelvanorTracker::flush();
  const auto sent = fakes.transport->sent();
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_EQ(sent[1].record.action.name, "0");
  EXPECT_EQ(sent[4].record.action.name, "3");

  ZelvanorTracker::set(ZId{.appUserId = "me"});
  EXPECT_EQ(ZelvanorTracker::getData(), "Can't make logRecord.");
  ZelvanorTracker::post(ZLifecycleEvent::willResignActive);
  ZelvanorTracker::flush();
  EXPECT_EQ(fakes.transport->sentActionKinds().back(), "background");
}

TEST_F(TrackerTest, ShutdownHandsOverUnsentRecordsAndTheNextCallStartsAfresh) {
  becomeReady();
  ZelvanorTracker::setBatchSize(10).set(ZAction("e", "waiting", "k")).track(false, false);
  auto firstTransport = fakes.transport;
  fakes = testing::FakeSources{.settings = fakes.settings};
  ZelvanorTracker::shutdown();
  ASSERT_EQ(firstTransport->unsentAtShutdown().size(), 1u);
  EXPECT_EQ(firstTransport->unsentAtShutdown()[0].action.name, "waiting");
  EXPECT_EQ(detail::sharedIfRunning(), nullptr);
  ZelvanorTracker::setDevelopment();
  EXPECT_NE(detail::sharedIfRunning(), nullptr);
  EXPECT_EQ(fakes.transport->restoreCalls(), 1);
}

TEST_F(TrackerTest, AStartDuringAnotherThreadsShutdownLosesNoRecord) {
  // Real pending-file delivery behind a closed network gate: every record goes to the file. One
  // thread shuts down while another's call starts the next instance, which reads that file.
  ASSERT_TRUE(ZelvanorTracker::setEndpoints(
      ZEndpoints{"https://127.0.0.1:1", "https://127.0.0.1:1", "https://127.0.0.1:1", {}}));
  detail::setSourcesFactory([&] {
    auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
    auto network = std::make_shared<testing::ManualNetwork>();
    network->pushFlags(0);
    return detail::ManagerSources{std::make_shared<detail::HttpsDelivery>(http, dir.path()),
                                  std::make_shared<testing::ImmediateIdentity>(), network,
                                  fakes.settings};
  });
  constexpr int kRounds = 4;
  constexpr int kPerRound = 400;
  for (int round = 0; round < kRounds; ++round) {
    ZelvanorTracker::setDevelopment();
    detail::sharedIfRunning()->waitForIdentityWork();
    ZelvanorTracker::set(ZCommon({.serviceName = "svc", .deployment = "dev"}));
    for (int i = 0; i < kPerRound; ++i) {
      ZelvanorTracker::set(
          ZAction("event", "r" + std::to_string(round) + "-" + std::to_string(i), "tap"))
          .track(false, false);
    }
    std::atomic<bool> shutDown{false};
    std::thread restarter([&] {
      for (int calls = 0; calls < 100000 && !shutDown; ++calls) ZelvanorTracker::setBatchSize(1);
    });
    ZelvanorTracker::shutdown();
    shutDown = true;
    restarter.join();
  }
  ZelvanorTracker::shutdown();
  std::multiset<std::string> kept;
  for (const auto& record : testing::pendingRecords(dir.path())) {
    if (record.action.type == "event") kept.insert(record.action.name);
  }
  EXPECT_EQ(kept.size(), static_cast<std::size_t>(kRounds * kPerRound));
  EXPECT_EQ(std::set<std::string>(kept.begin(), kept.end()).size(), kept.size()) << "no twice";
}

TEST_F(TrackerTest, AShutdownFromAnOnReadyCallbackKeepsEverythingBeforeItReturns) {
  // onReady's callback runs on the SDK's one worker, the thread that also writes the pending
  // file: a shutdown started there must still have written every record when it returns.
  auto identity = std::make_shared<testing::ManualIdentity>();
  detail::setSourcesFactory([&] {
    auto worker = std::make_shared<support::SerialQueue>("test.worker", nullptr);
    auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
    auto network = std::make_shared<testing::ManualNetwork>();
    network->pushFlags(0);  // offline: every record is kept for the next start
    return detail::ManagerSources{
        .transport = std::make_shared<detail::HttpsDelivery>(http, dir.path(), ZStoreLimits{},
                                                             support::RetryTimings{}, worker),
        .identity = identity,
        .network = network,
        .settingsStore = fakes.settings,
        .worker = worker};
  });
  ZelvanorTracker::setDevelopment();
  ZelvanorTracker::set(ZCommon({.serviceName = "svc", .deployment = "dev"}));
  for (int i = 0; i < 3; ++i) {
    ZelvanorTracker::set(ZAction("event", "before-" + std::to_string(i), "tap"))
        .track(false, false);
  }
  struct Seen {
    bool flushed = true;
    std::vector<std::string> kept;
  };
  std::promise<Seen> done;
  ZelvanorTracker::onReady([&] {
    ZelvanorTracker::set(ZAction("event", "in-callback", "tap")).track(false, false);
    Seen seen;
    // Answers are taken on this thread: waiting for them here could only time out.
    seen.flushed = ZelvanorTracker::flushAndWait(std::chrono::seconds(5));
    ZelvanorTracker::shutdown();
    for (const auto& record : testing::pendingRecords(dir.path())) {
      if (record.action.type == "event") seen.kept.push_back(record.action.name);
    }
    done.set_value(std::move(seen));
  });
  identity->deliver(ZXid{"c", "d", "s"});
  auto result = done.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  const Seen seen = result.get();
  EXPECT_FALSE(seen.flushed);
  EXPECT_EQ(seen.kept,
            (std::vector<std::string>{"before-0", "before-1", "before-2", "in-callback"}));
}

TEST_F(TrackerTest, ATrackFromAnOnReadyCallbackWhileAnotherThreadShutsDownDoesNotHangEither) {
  ZelvanorTracker::setDevelopment();
  ZelvanorTracker::set(ZCommon({.serviceName = "svc", .deployment = "dev"}));
  std::atomic<bool> tracked{false};
  ZelvanorTracker::onReady([&] {
    // On the SDK's worker: the other thread's shutdown takes the instance out, then waits for
    // this thread. A call back into the SDK now must not wait for that shutdown in turn.
    for (int i = 0; i < 5000 && detail::sharedIfRunning(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ZelvanorTracker::set(ZAction("event", "from-callback", "tap")).track(false, false);
    tracked = true;
  });
  fakes.identity->deliver(ZXid{"c", "d", "s"});
  auto finished = std::make_shared<std::promise<void>>();
  std::thread([finished] {
    ZelvanorTracker::shutdown();
    finished->set_value();
  }).detach();
  if (finished->get_future().wait_for(std::chrono::seconds(30)) != std::future_status::ready) {
    std::fprintf(stderr, "shutdown and the onReady callback wait for each other\n");
    std::abort();  // the SDK's locks stay held: no later test could run
  }
  EXPECT_TRUE(tracked);
}

}  // namespace
}  // namespace zelvanor
