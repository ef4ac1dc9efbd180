// Host threads track while the identity triple arrives: every event ends up exactly once, either
// as a record or as a template turned into a record. Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "platform/settings_store.hpp"
#include "support/fake_sources.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/platform.hpp"
#include "zelvanor/tracker.hpp"
#include "zelvanor/zelvanor.h"

namespace zelvanor {
namespace {

constexpr int kThreads = 4;

// A manager over fake sources that keep settings (a fresh install) in a data directory of its own.
class ManagerConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setPlatformFacts(ZPlatformFacts{.appVersion = "1.0", .dataDirectory = dir.path().string()});
    fakes.settings = std::make_shared<platform::SettingsStore>(dir.path() / "fake-settings.json");
    manager = detail::ZInternalLogManager::create(fakes.sources());
    manager->configure(ZConfiguration::defaults());
  }
  void TearDown() override {
    manager->stop();
    setPlatformFacts({});
  }
  testing::TempDir dir;
  testing::FakeSources fakes;
  std::shared_ptr<detail::ZInternalLogManager> manager;
};

TEST_F(ManagerConcurrencyTest, EveryEventExactlyOnceWhileTheTripleArrives) {
  constexpr int kEventsPerThread = 150;
  manager->setCommon(ZCommon({.serviceName = "svc", .deployment = "dev"}));

  std::mutex eventMutex;  // a host keeps each event's set + track together
  std::atomic<int> tracked{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEventsPerThread; ++i) {
        {
          std::lock_guard lock(eventMutex);
          manager->setAction(ZAction("event", std::to_string(t) + ":" + std::to_string(i), "tap"));
          manager->track(false, false);
        }
        tracked.fetch_add(1);
        // Context changes and flushes come from anywhere, without the host's lock.
        if (i % 10 == 0) manager->setAgent(ZAgent{.carrier = "carrier" + std::to_string(t)});
        if (i % 25 == 0) manager->queue().flush();
      }
    });
  }
  threads.emplace_back([&] {
    while (tracked.load() < kThreads * kEventsPerThread / 2) std::this_thread::yield();
    fakes.identity->deliver(ZXid{"c", "d", "s"});
  });
  for (auto& thread : threads) thread.join();
  manager->waitForIdentityWork();
  manager->queue().flush();

  // Per thread, every event exactly once and in the order it was tracked.
  std::vector<int> next(kThreads, 0);
  for (const auto& sent : fakes.transport->sent()) {
    const auto& name = sent.record.action.name;
    if (sent.record.action.kind != "tap") continue;
    const int thread = std::stoi(name.substr(0, name.find(':')));
    EXPECT_EQ(name, std::to_string(thread) + ":" + std::to_string(next.at(thread)++));
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kEventsPerThread));
}

TEST_F(ManagerConcurrencyTest, CommonBlocksSetAtOnceOnAFreshInstallMakeOneInstallEvent) {
  fakes.identity->deliver(ZXid{"c", "d", "s"});
  manager->waitForIdentityWork();

  std::atomic<int> waiting{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      manager->setCommon(ZCommon({.serviceName = "svc", .deployment = "dev"}));
    });
  }
  for (auto& thread : threads) thread.join();
  const auto kinds = fakes.transport->sentActionKinds();
  EXPECT_EQ(std::ranges::count(kinds, "install"), 1);
  EXPECT_EQ(std::ranges::count(kinds, "launch"), kThreads);
}

// Host threads that come and go while the SDK starts and stops under them: each one leaves an
// error message, decodes JSON and tracks with diagnostics on before it exits. Thread exit must
// find nothing thread-local to destroy (MinGW destroys it after the storage is gone: a crash at
// thread exit on Windows).
TEST_F(ManagerConcurrencyTest, ThreadsStartingAndStoppingTheSdkExitCleanly) {
  constexpr int kRounds = 6;
  // A closed loopback port: nothing is delivered, records stay on disk.
  ASSERT_TRUE(ZelvanorTracker::setEndpoints(
      {"https://127.0.0.1:9", "https://127.0.0.1:9", "https://127.0.0.1:9", std::nullopt}));
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
