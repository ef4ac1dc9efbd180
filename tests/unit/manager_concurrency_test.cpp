// Host threads track while the identity triple arrives: every event ends up exactly once, either
// as a record or as a template turned into a record. Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <map>
#include <thread>

#include "platform/settings_store.hpp"
#include "support/fake_sources.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor {
namespace {

TEST(ManagerConcurrencyTest, EveryEventExactlyOnceWhileTheTripleArrives) {
  constexpr int kThreads = 4;
  constexpr int kEventsPerThread = 150;
  testing::TempDir dir;
  setPlatformFacts(ZPlatformFacts{.appVersion = "1.0", .dataDirectory = dir.path().string()});
  testing::FakeSources fakes;
  auto manager = detail::ZInternalLogManager::create(fakes.sources());
  manager->configure(ZConfiguration::defaults());
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

  std::map<std::string, int> seen;
  for (const auto& sent : fakes.transport->sent()) {
    if (sent.record.action.kind == "tap") ++seen[sent.record.action.name];
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kEventsPerThread));
  for (const auto& [name, count] : seen) EXPECT_EQ(count, 1) << name;
  // Per thread, events leave in the order they were tracked.
  std::map<int, int> lastIndex;
  for (const auto& sent : fakes.transport->sent()) {
    if (sent.record.action.kind != "tap") continue;
    const auto& name = sent.record.action.name;
    const int thread = std::stoi(name.substr(0, name.find(':')));
    const int index = std::stoi(name.substr(name.find(':') + 1));
    auto [it, inserted] = lastIndex.try_emplace(thread, index);
    if (!inserted) {
      EXPECT_GT(index, it->second) << name;
      it->second = index;
    }
  }
  manager->stop();
  setPlatformFacts({});
}

TEST(ManagerConcurrencyTest, CommonBlocksSetAtOnceOnAFreshInstallMakeOneInstallEvent) {
  constexpr int kThreads = 4;
  testing::TempDir dir;
  setPlatformFacts(ZPlatformFacts{.appVersion = "1.0", .dataDirectory = dir.path().string()});
  testing::FakeSources fakes;
  fakes.settings = std::make_shared<platform::SettingsStore>(dir.path() / "settings.json");
  auto manager = detail::ZInternalLogManager::create(fakes.sources());
  manager->configure(ZConfiguration::defaults());
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
  std::map<std::string, int> kinds;
  for (const auto& sent : fakes.transport->sent()) ++kinds[sent.record.action.kind];
  EXPECT_EQ(kinds["install"], 1);
  EXPECT_EQ(kinds["launch"], kThreads);
  manager->stop();
  setPlatformFacts({});
}

}  // namespace
}  // namespace zelvanor
