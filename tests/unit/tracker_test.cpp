// The static facade: chaining, when the shared instance starts, how configuration calls
// overwrite each other, and starts, shutdowns and host threads racing each other.
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
#include "zelvanor/zelvanor.h"

namespace zelvanor {
namespace {

class TrackerTest : public testing::SharedTrackerTest {
 protected:
  // Real pending-file delivery, on the SDK's one worker, behind a closed network gate: every
  // record goes to the pending file.
  void deliverToThePendingFile(std::shared_ptr<detail::IdentitySource> identity) {
    detail::setSourcesFactory([this, identity] {
      auto worker = std::make_shared<support::SerialQueue>("test.worker", nullptr);
      auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
      auto network = std::make_shared<testing::ManualNetwork>();
      network->pushFlags(0);
      return detail::ManagerSources{
          .transport = std::make_shared<detail::HttpsDelivery>(http, dir.path(), ZStoreLimits{},
                                                               support::RetryTimings{}, worker),
          .identity = identity,
          .network = network,
          .settingsStore = fakes.settings,
          .worker = worker};
    });
  }
  std::vector<std::string> keptEvents() const {
    std::vector<std::string> names;
    for (const auto& record : testing::pendingRecords(dir.path())) {
      if (record.action.type == "event") names.push_back(record.action.name);
    }
    return names;
  }
};

TEST_F(TrackerTest, SettingsCallsStartTheSdkOnlyWhenNeededOverwriteEachOtherAndChain) {
  // Switches do not start the SDK; the start applies the defaults over them.
  ZelvanorTracker::turnOffConsoleLogs();
  ZelvanorTracker::setTimeout(30);
  EXPECT_EQ(detail::sharedIfRunning(), nullptr);

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

  // Chained calls make one record, with the SDK block of the deployment type set last.
  deliverTriple();
  setCommon();
  ZelvanorTracker::setDevelopment()
      .set([] { return ZPage{.id = "p", .name = "home", .title = "Home"}; })
      .set(ZBucket{.name = "b1"})
      .set([] { return std::vector<ZBucket>{{.name = "b2"}}; })
      .set([] { return std::string("ignored"); })
      .set(ZAction(ZAction::ZActionType::pageView, "home", "view"))
      .track(false, false);
  ZelvanorTracker::setProduction().set(ZAction("e", "n", "k")).track(false, false);
  const auto records = hostRecords();  // batch size 1 by default: each sent at once
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].page->name, "home");
  EXPECT_EQ(records[0].buckets->size(), 2u);
  EXPECT_FALSE(records[0].free) << "the text set is dropped";
  EXPECT_EQ(records[0].sdk, (ZSDK{DeploymentType::development, std::string(kSdkVersion),
                                  std::string(kCommonLogVersion)}));
  EXPECT_EQ(records[1].sdk.type, DeploymentType::production);

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
}

TEST_F(TrackerTest, AStartDuringAnotherThreadsShutdownLosesNoRecord) {
  // One thread shuts down while another's call starts the next instance, which reads the file.
  ASSERT_TRUE(ZelvanorTracker::setEndpoints(
      ZEndpoints{"https://127.0.0.1:1", "https://127.0.0.1:1", "https://127.0.0.1:1", {}}));
  deliverToThePendingFile(std::make_shared<testing::ManualIdentity>(ZXid{"c", "d", "s"}));
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
  const auto kept = keptEvents();
  EXPECT_EQ(kept.size(), static_cast<std::size_t>(kRounds * kPerRound));
  EXPECT_EQ(std::set<std::string>(kept.begin(), kept.end()).size(), kept.size()) << "no twice";
}

TEST_F(TrackerTest, AShutdownFromAnOnReadyCallbackKeepsEverythingBeforeItReturns) {
  // onReady's callback runs on the SDK's one worker, the thread that also writes the pending
  // file: a shutdown started there must still have written every record when it returns.
  auto identity = std::make_shared<testing::ManualIdentity>();
  deliverToThePendingFile(identity);
  ZelvanorTracker::setDevelopment();
  ZelvanorTracker::set(ZCommon({.serviceName = "svc", .deployment = "dev"}));
  for (int i = 0; i < 3; ++i) {
    ZelvanorTracker::set(ZAction("event", "before-" + std::to_string(i), "tap"))
        .track(false, false);
  }
  std::promise<std::pair<bool, std::vector<std::string>>> done;  // flushed, then what was kept
  ZelvanorTracker::onReady([&] {
    ZelvanorTracker::set(ZAction("event", "in-callback", "tap")).track(false, false);
    // Answers are taken on this thread: waiting for them here could only time out.
    const bool flushed = ZelvanorTracker::flushAndWait(std::chrono::seconds(5));
    ZelvanorTracker::shutdown();
    done.set_value({flushed, keptEvents()});
  });
  identity->deliver(ZXid{"c", "d", "s"});
  auto result = done.get_future();
  ASSERT_EQ(result.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  EXPECT_EQ(result.get(),
            std::make_pair(false, std::vector<std::string>{"before-0", "before-1", "before-2",
                                                           "in-callback"}));
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

// Host threads that come and go while the SDK starts and stops under them: each one leaves an
// error message, decodes JSON and tracks with diagnostics on before it exits. Thread exit must
// find nothing thread-local to destroy (MinGW destroys it after the storage is gone: a crash at
// thread exit on Windows).
TEST_F(TrackerTest, ThreadsStartingAndStoppingTheSdkExitCleanly) {
  constexpr int kRounds = 6;
  constexpr int kThreads = 4;
  std::atomic<int> lines{0};
  ASSERT_EQ(zelvanor_set_diagnostics(
                ZELVANOR_LOG_DEBUG,
                [](int, const char*, size_t, void* count) {
                  static_cast<std::atomic<int>*>(count)->fetch_add(1);
                },
                &lines),
            ZELVANOR_OK);
  std::atomic<int> errorsSeen{0};
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        if (zelvanor_set("page", R"({"id":"p","name":"p","title":7})") != ZELVANOR_OK &&
            std::string_view(zelvanor_last_error()).find("title") != std::string_view::npos) {
          errorsSeen.fetch_add(1);
        }
        zelvanor_event* event = zelvanor_event_new();
        zelvanor_event_set(event, "page", R"({"id":"p","name":"p","title":"P"})");
        zelvanor_event_set(event, "action", R"({"type":"page_view","name":"p","kind":"view"})");
        zelvanor_event_track(event, 1, 0);
        zelvanor_event_free(event);
        if (t == 0) zelvanor_shutdown();
      });
    }
    for (auto& thread : threads) thread.join();
  }
  zelvanor_shutdown();
  zelvanor_set_diagnostics(ZELVANOR_LOG_ERROR, nullptr, nullptr);
  EXPECT_EQ(errorsSeen.load(), kRounds * kThreads);
  EXPECT_GT(lines.load(), 0);
}

}  // namespace
}  // namespace zelvanor
