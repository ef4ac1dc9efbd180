// Host-thread cost of one typical event through the facade: set page, click and action, then
// track, with batch size 1 and a transport that discards what it is handed.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <vector>

#include "api/shared_instance.hpp"
#include "network/reachability.hpp"
#include "zelvanor/tracker.hpp"

namespace {

using namespace zelvanor;

struct DiscardingTransport final : detail::RecordTransport {
  void restore(std::function<void(std::uint64_t)> restored) override { restored(0); }
  std::uint64_t room() const override { return 1u << 30; }
  void setListener(std::function<void()>) override {}
  void send(std::uint64_t, std::vector<std::string> records, bool) override {
    benchmark::DoNotOptimize(records);
  }
  void spill(std::vector<std::string> records) override { benchmark::DoNotOptimize(records); }
  void networkChanged(bool) override {}
  void keepLate(std::string) override {}
  std::vector<std::string> takeKeptTemplates() override { return {}; }
  void shutdown(std::vector<std::string>, std::vector<std::string>) override {}
};

struct ImmediateIdentity final : detail::IdentitySource {
  support::Cancellable fetchXid(std::function<void(const ZXid&)> onTriple) override {
    onTriple(ZXid{"cid-0123456789", "did-0123456789", "sid-0123456789"});
    return {};
  }
};

void startReadyTracker() {
  const auto dir = std::filesystem::temp_directory_path() / "zelvanor-track-bench";
  setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.bench", .appVersion = "1.0", .dataDirectory = dir.string()});
  detail::setSourcesFactory([] {
    return detail::ManagerSources{std::make_shared<DiscardingTransport>(),
                                  std::make_shared<ImmediateIdentity>(),
                                  std::make_shared<detail::ZReachability>(nullptr), nullptr};
  });
  ZelvanorTracker::setRequired(ZConfiguration{5.0, 1, false});
  detail::sharedIfRunning()->waitForIdentityWork();
  ZelvanorTracker::set(ZCommon({.serviceName = "shop", .deployment = "production"}))
      .set(ZId{.appUserId = "user-42"});
}

void BM_TrackTypicalEvent(benchmark::State& state) {
  startReadyTracker();
  for (auto _ : state) {
    ZelvanorTracker::set(ZPage{.id = "product-123", .name = "product", .title = "Trail shoes"})
        .set(ZClick{.type = "button", .layer1 = "buy", .posX = 12, .posY = 480})
        .set(ZAction(ZAction::ZActionType::event, "buy", "click"))
        .track(false, false);
  }
  ZelvanorTracker::shutdown();
}
BENCHMARK(BM_TrackTypicalEvent);

// The same calls timed one by one: the spread of single calls with no network at all, the
// baseline for the delivery benchmark's figures while the network is busy.
void BM_TrackTypicalEventSingleCalls(benchmark::State& state) {
  startReadyTracker();
  std::vector<double> micros;
  micros.reserve(static_cast<std::size_t>(state.max_iterations));
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    ZelvanorTracker::set(ZPage{.id = "product-123", .name = "product", .title = "Trail shoes"})
        .set(ZClick{.type = "button", .layer1 = "buy", .posX = 12, .posY = 480})
        .set(ZAction(ZAction::ZActionType::event, "buy", "click"))
        .track(false, false);
    const auto end = std::chrono::steady_clock::now();
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  std::sort(micros.begin(), micros.end());
  state.counters["median_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  ZelvanorTracker::shutdown();
}
BENCHMARK(BM_TrackTypicalEventSingleCalls)->Iterations(20000)->UseManualTime();

}  // namespace
