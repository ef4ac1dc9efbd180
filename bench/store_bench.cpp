// What a backlog costs: the host's first operation with a very large pending file, resident
// memory while records wait for the batch threshold, and shutdown with a large backlog. Each runs
// the real facade over the real pending store; nothing is sent (the threshold is never reached).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "api/shared_instance.hpp"
#include "network/https_delivery.hpp"
#include "network/reachability.hpp"
#include "store/pending_frames.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

#include "bench_support.hpp"

namespace {

using namespace zelvanor;
namespace fs = std::filesystem;

struct ImmediateIdentity final : detail::IdentitySource {
  support::Cancellable fetchXid(std::function<void(const ZXid&)> onTriple) override {
    onTriple(ZXid{"cid-0123456789", "did-0123456789", "sid-0123456789"});
    return {};
  }
};

double residentMegabytes() {
  long pages = 0;
  long resident = 0;
  if (std::FILE* statm = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(statm);
  }
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1e6;
}

/// The real delivery and store in `dir`, a triple known from the start, no route watch.
void useRealStoreIn(const fs::path& dir) {
  setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.bench", .appVersion = "1.0", .dataDirectory = dir.string()});
  ZelvanorTracker::setEndpoints(
      ZEndpoints{"https://127.0.0.1:9", "https://127.0.0.1:9", "https://127.0.0.1:9", {}});
  detail::setSourcesFactory([dir] {
    auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
    detail::ManagerSources sources{
        std::make_shared<detail::HttpsDelivery>(http, dir, detail::storeLimits()),
        std::make_shared<ImmediateIdentity>(), std::make_shared<detail::ZReachability>(nullptr),
        nullptr};
    sources.storeLimits = detail::storeLimits();
    return sources;
  });
}

void trackTypicalEvent(int i) {
  ZelvanorTracker::set(ZPage{.id = "product-" + std::to_string(i),
                             .name = "product",
                             .title = "Trail running shoes, blue, size 42"})
      .set(ZClick{.type = "button", .layer1 = "buy", .layer2 = "hero", .posX = 12, .posY = 480})
      .set(ZAction(ZAction::ZActionType::event, "buy", "click"))
      .track(false, false);
}

void startWithCommon() {
  ZelvanorTracker::setRequired(ZConfiguration{5.0, 1'000'000'000, false})
      .setReachabilityFlags(0x2)
      .set(ZCommon({.serviceName = "shop", .deployment = "production"}))
      .set(ZId{.appUserId = "user-42"});
}

// Listed first: the whole process's resident memory is what counts, before other benchmarks
// have touched anything.
void BM_ResidentMemoryWithRecordsWaiting(benchmark::State& state) {
  const int waiting = static_cast<int>(state.range(0));
  const bench::TempDir dir;
  useRealStoreIn(dir.path);
  for (auto _ : state) {
    const double before = residentMegabytes();
    startWithCommon();
    for (int i = 0; i < waiting; ++i) trackTypicalEvent(i);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the worker's writes land
    state.counters["rss_mb"] = residentMegabytes();
    state.counters["rss_growth_mb"] = residentMegabytes() - before;
    if (auto manager = detail::sharedIfRunning()) {
      state.counters["in_memory"] = static_cast<double>(manager->queue().recordsInMemory());
      state.counters["waiting"] = static_cast<double>(manager->queue().recordCount());
    }
    std::uintmax_t onDisk = 0;
    for (const auto& entry : fs::directory_iterator(dir.path)) {
      if (entry.path().filename().string().rfind("ZLogs.tmp", 0) == 0) onDisk += entry.file_size();
    }
    state.counters["disk_bytes"] = static_cast<double>(onDisk);
    ZelvanorTracker::shutdown();
  }
  detail::setSourcesFactory({});
}
BENCHMARK(BM_ResidentMemoryWithRecordsWaiting)
    ->Arg(10000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

void BM_ShutdownWithRecordsWaiting(benchmark::State& state) {
  const int waiting = static_cast<int>(state.range(0));
  const bench::TempDir dir;
  useRealStoreIn(dir.path);
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& entry : fs::directory_iterator(dir.path)) fs::remove_all(entry.path());
    startWithCommon();
    for (int i = 0; i < waiting; ++i) trackTypicalEvent(i);
    state.ResumeTiming();
    ZelvanorTracker::shutdown();
  }
  detail::setSourcesFactory({});
}
BENCHMARK(BM_ShutdownWithRecordsWaiting)
    ->Arg(100000)
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The host's first call after a start over a pending file of a million records: the store is
// looked at on the SDK's worker, so the host does not wait for it.
void BM_FirstOperationWithLargePendingFile(benchmark::State& state) {
  const int records = static_cast<int>(state.range(0));
  const bench::TempDir dir;
  const bench::TempDir source;
  const fs::path prepared = source.path / "ZLogs.tmp";
  {
    const std::string json =
        encodeJson(ZLogRecord{.xid = {"c", "d", "s"}, .action = {"event", "restored", "tap"}})
            .value();
    std::string frames;
    for (int i = 0; i < 10000; ++i) detail::appendFrame(frames, json);
    std::ofstream out(prepared, std::ios::binary);
    for (int i = 0; i < records / 10000; ++i) out << frames;
  }
  useRealStoreIn(dir.path);
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& entry : fs::directory_iterator(dir.path)) fs::remove_all(entry.path());
    fs::copy_file(prepared, dir.path / "ZLogs.tmp");
    state.ResumeTiming();
    ZelvanorTracker::setBatchSize(1);
    state.PauseTiming();
    ZelvanorTracker::shutdown();
    state.ResumeTiming();
  }
  state.counters["file_mb"] = static_cast<double>(fs::file_size(prepared)) / 1e6;
  detail::setSourcesFactory({});
}
BENCHMARK(BM_FirstOperationWithLargePendingFile)
    ->Arg(1'000'000)
    ->Iterations(5)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Shutdown while the worker reads past a long run of stored payloads that are no record (a later
// build's, say): shutdown does not wait for the rest of the run to be read past.
void BM_ShutdownWithUndecodableFramesWaiting(benchmark::State& state) {
  const int frames = static_cast<int>(state.range(0));
  const bench::TempDir dir;
  const bench::TempDir source;
  const fs::path prepared = source.path / "ZLogs.tmp";
  {
    std::string one;
    detail::appendFrame(one, R"({"a":1})");
    std::string all;
    all.reserve(one.size() * static_cast<std::size_t>(frames));
    for (int i = 0; i < frames; ++i) all += one;
    std::ofstream(prepared, std::ios::binary) << all;
  }
  useRealStoreIn(dir.path);
  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& entry : fs::directory_iterator(dir.path)) fs::remove_all(entry.path());
    fs::copy_file(prepared, dir.path / "ZLogs.tmp");
    ZelvanorTracker::setBatchSize(1);
    ZelvanorTracker::flush();  // what waits on disk goes out as soon as the store is open
    // The store is open and the worker is reading past the run when shutdown begins.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    state.ResumeTiming();
    ZelvanorTracker::shutdown();
  }
  detail::setSourcesFactory({});
}
// One shutdown per repetition: run with --benchmark_repetitions=5 for a median.
BENCHMARK(BM_ShutdownWithUndecodableFramesWaiting)
    ->Arg(500'000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
