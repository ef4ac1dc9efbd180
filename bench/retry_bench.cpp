// Retrying against a real local collector: how many requests per second the SDK makes while the
// collector drops every connection (one per record would be a storm), and how long it takes from
// the network's return to the last of 10,000 records kept while offline being delivered.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <thread>

#include "api/shared_instance.hpp"
#include "collector.hpp"
#include "zelvanor/tracker.hpp"

#include "collector_session.hpp"

namespace {

using namespace zelvanor;
using Clock = std::chrono::steady_clock;

using Session = bench::CollectorSession;

void track(int i) {
  ZelvanorTracker::set(ZPage{.id = "item-" + std::to_string(i), .name = "item", .title = "Mug"})
      .set(ZAction(ZAction::ZActionType::event, "add_to_cart", "click"))
      .track(false, false);
}

// Requests reaching a collector that drops every connection, per second, while the host tracks
// 200 records a second for 10 seconds (the default back-off: 30 s, doubling).
void BM_RequestsPerSecondToACollectorThatDropsEveryConnection(benchmark::State& state) {
  for (auto _ : state) {
    Session session;
    session.server.setDropConnections(true);
    const auto before = session.server.counters().trackRequests;
    const auto start = Clock::now();
    for (int i = 0; i < 2000; ++i) {
      track(i);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    state.counters["requests_per_s"] =
        static_cast<double>(session.server.counters().trackRequests - before) / seconds;
    state.counters["records_tracked"] = 2000;
  }
}
BENCHMARK(BM_RequestsPerSecondToACollectorThatDropsEveryConnection)
    ->Iterations(1)
    ->Unit(benchmark::kSecond);

// 10,000 records tracked offline wait on disk; the time from the network's return to the last of
// them stored by the collector.
void BM_NetworkReturnToLastKeptRecordDelivered(benchmark::State& state) {
  const int kept = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    Session session;
    const auto stored = session.server.counters().storedRecords;
    ZelvanorTracker::setReachabilityFlags(0);
    for (int i = 0; i < kept; ++i) track(i);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the worker's writes land
    state.ResumeTiming();
    ZelvanorTracker::setReachabilityFlags(0x2);
    if (!session.waitForStored(stored + static_cast<std::uint64_t>(kept),
                               std::chrono::seconds(120))) {
      state.SkipWithError("the kept records did not all arrive");
    }
  }
}
BENCHMARK(BM_NetworkReturnToLastKeptRecordDelivered)
    ->Arg(10000)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
