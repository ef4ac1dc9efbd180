// Delivery against a real local collector over HTTPS on loopback, through the public facade:
//  - records delivered per second from one host thread with batch size 1;
//  - what `track` costs the host thread while the network is busy (the collector holds every
//    answer, so requests pile up in flight), as median and 99th percentile of single calls.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "collector.hpp"
#include "zelvanor/tracker.hpp"

#include "collector_session.hpp"

namespace {

using namespace zelvanor;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

using Session = bench::CollectorSession;

void trackTypicalEvent(int i) {
  ZelvanorTracker::set(
      ZPage{.id = "item-" + std::to_string(i), .name = "item", .title = "Blue mug"})
      .set(ZClick{.type = "button", .layer1 = "add-to-cart", .posX = 120, .posY = 640})
      .set(ZAction(ZAction::ZActionType::event, "add_to_cart", "click"))
      .track(false, false);
}

void BM_DeliveredRecordsPerSecond(benchmark::State& state) {
  const int perIteration = static_cast<int>(state.range(0));
  Session session;
  std::uint64_t expected = session.server.counters().storedRecords;
  for (auto _ : state) {
    const auto start = Clock::now();
    for (int i = 0; i < perIteration; ++i) trackTypicalEvent(i);
    expected += static_cast<std::uint64_t>(perIteration);
    if (!session.waitForStored(expected, std::chrono::seconds(60))) {
      state.SkipWithError("records did not all arrive");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations() * perIteration);
}
BENCHMARK(BM_DeliveredRecordsPerSecond)->Arg(2000)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same with a collector that answers "ok" without storing: what the SDK itself sustains,
// with the collector's database out of the way.
void BM_DeliveredRecordsPerSecondToAFixedAnswer(benchmark::State& state) {
  const int perIteration = static_cast<int>(state.range(0));
  Session session;
  session.server.setTrackAnswer(std::string("ok"));
  std::uint64_t expected = session.server.counters().fixedAnswers;
  for (auto _ : state) {
    const auto start = Clock::now();
    for (int i = 0; i < perIteration; ++i) trackTypicalEvent(i);
    expected += static_cast<std::uint64_t>(perIteration);
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (session.server.counters().fixedAnswers < expected && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    if (session.server.counters().fixedAnswers < expected) {
      state.SkipWithError("records did not all arrive");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  state.SetItemsProcessed(state.iterations() * perIteration);
}
BENCHMARK(BM_DeliveredRecordsPerSecondToAFixedAnswer)
    ->Arg(2000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// Single calls timed one by one, so the median and the 99th percentile can be reported.
void BM_TrackWhileTheNetworkIsBusy(benchmark::State& state) {
  Session session;
  // With a delay, every answer takes a second: each tracked record joins a growing backlog.
  const auto delay = std::chrono::milliseconds(state.range(0));
  session.server.setDelay(delay);
  std::vector<double> micros;
  micros.reserve(static_cast<std::size_t>(state.max_iterations));
  int i = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    trackTypicalEvent(i++);
    const auto end = Clock::now();
    micros.push_back(std::chrono::duration<double, std::micro>(end - start).count());
    state.SetIterationTime(std::chrono::duration<double>(end - start).count());
  }
  std::sort(micros.begin(), micros.end());
  if (!micros.empty()) {
    state.counters["median_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  }
  session.server.setDelay(std::chrono::milliseconds(0));
}
// A bounded number of calls: each one leaves a request in flight. Arg: the collector's delay in
// ms (0: the same calls while records are delivered as fast as they come, for comparison).
BENCHMARK(BM_TrackWhileTheNetworkIsBusy)
    ->Arg(1000)
    ->Arg(0)
    ->Iterations(20000)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
