// Restoring the pending-record file at start: move it aside and count the records waiting there,
// which is all that happens before the first send (records are read back as they are sent). The
// host never waits for it; 10,000 records should still stay under 20 ms. For comparison:
// building every record as a struct. And the append a record kept for a later start costs.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "store/pending_frames.hpp"
#include "store/pending_store.hpp"
#include "zelvanor/json.hpp"

#include "bench_support.hpp"

namespace {

using zelvanor::detail::PendingStore;
namespace fs = std::filesystem;

/// A record as a shop app would send it, about 600 bytes of JSON, varying with i.
zelvanor::ZLogRecord realisticRecord(int i) {
  using namespace zelvanor;
  const std::string n = std::to_string(i);
  ZLogRecord record;
  record.xid = ZXid{"8f14e45f-ceea-467f-a0e6-7d1c4e2b9a31", "d41d8cd9-8f00-4b20", "s-" + n};
  record.sdk = ZSDK{DeploymentType::production, "0.9.0", "1.2.0"};
  record.action = ZAction("event", "add_to_cart", "click");
  ZCommon common;
  common.serviceName = "shop";
  common.svcDomain = "com.example.shop";
  common.requestTimeStamp = 1764000000 + i;
  common.deployment = "production";
  common.url = "app://shop/item/" + n;
  record.common = common;
  record.agent = ZAgent{.os = "Linux", .osVersion = "6.1.0", .networkState = "wifi"};
  record.page = ZPage{.id = "item-" + n, .name = "item", .title = "Blue mug / 350 ml"};
  record.click = ZClick{.type = "button", .layer1 = "buy", .posX = 120, .posY = 640 + i % 100};
  record.buckets = std::vector<ZBucket>{ZBucket{.name = "checkout", .group = "B"}};
  return record;
}

std::string pendingFileContent(int records, std::size_t* jsonBytes) {
  std::string content;
  *jsonBytes = 0;
  for (int i = 0; i < records; ++i) {
    const zelvanor::Result<std::string> json = zelvanor::encodeJson(realisticRecord(i));
    if (!json) std::abort();
    const auto length = static_cast<std::int64_t>(json->size());
    content.append(reinterpret_cast<const char*>(&length), sizeof length);
    content += *json;
    *jsonBytes += json->size();
  }
  return content;
}

using zelvanor::bench::TempDir;

void writeFile(const fs::path& file, const std::string& content) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

// What a start does before the first send: the store takes over "ZLogs.tmp" (moved aside as a
// segment) and counts the whole frames waiting there, on the SDK's worker.
void BM_RestorePendingRecords(benchmark::State& state) {
  using namespace zelvanor;
  const int count = static_cast<int>(state.range(0));
  std::size_t jsonBytes = 0;
  const std::string content = pendingFileContent(count, &jsonBytes);
  const TempDir dir;
  const fs::path file = dir.path / PendingStore::kPendingFileName;

  for (auto _ : state) {
    state.PauseTiming();
    for (const auto& entry : fs::directory_iterator(dir.path)) fs::remove(entry.path());
    writeFile(file, content);
    state.ResumeTiming();

    PendingStore store(dir.path, ZStoreLimits{.maxBytesOnDisk = 1u << 30});
    const std::uint64_t waiting = store.open();

    state.PauseTiming();
    if (waiting != static_cast<std::uint64_t>(count) || fs::exists(file)) {
      state.SkipWithError("restore lost records or left the file");
    }
    state.ResumeTiming();
  }
  state.counters["records"] = count;
  state.counters["avg_json_bytes"] = static_cast<double>(jsonBytes) / count;
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * content.size()));
}
BENCHMARK(BM_RestorePendingRecords)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DecodeEveryPendingRecord(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  std::size_t jsonBytes = 0;
  const std::string content = pendingFileContent(count, &jsonBytes);
  const TempDir dir;
  const fs::path file = dir.path / PendingStore::kPendingFileName;

  writeFile(file, content);

  for (auto _ : state) {
    std::vector<zelvanor::ZLogRecord> records;
    records.reserve(static_cast<std::size_t>(count));
    zelvanor::detail::PendingFileReader reader;
    if (!reader.open(file)) state.SkipWithError("no pending file");
    while (auto piece = reader.next()) {
      if (piece->kind != zelvanor::detail::FramePiece::Kind::frame) continue;
      auto record = zelvanor::decodeJson<zelvanor::ZLogRecord>(piece->payload);
      if (record) records.push_back(std::move(*record));
    }

    state.PauseTiming();
    if (records.size() != static_cast<std::size_t>(count)) {
      state.SkipWithError("decoding lost records");
    }
    benchmark::DoNotOptimize(records.data());
    records.clear();  // freeing the records is the queue's cost later, not the restore's
    state.ResumeTiming();
  }
  state.counters["records"] = count;
  state.counters["avg_json_bytes"] = static_cast<double>(jsonBytes) / count;
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * content.size()));
}
BENCHMARK(BM_DecodeEveryPendingRecord)->Arg(10000)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_AppendPendingRecord(benchmark::State& state) {
  const zelvanor::Result<std::string> json = zelvanor::encodeJson(realisticRecord(1));
  if (!json) std::abort();
  const TempDir dir;
  const fs::path file = dir.path / PendingStore::kPendingFileName;
  // Not the owner (no open()): every record goes to "ZLogs.tmp", as a kept record does.
  PendingStore store(
      dir.path,
      zelvanor::ZStoreLimits{.maxBytesOnDisk = std::numeric_limits<std::uint64_t>::max() / 2});
  const std::vector<std::string> one{*json};
  std::int64_t appended = 0;
  for (auto _ : state) {
    if (store.keep(one).written != 1) state.SkipWithError("append failed");
    // Keep the file from growing without bound over millions of iterations.
    if (++appended % 100000 == 0) {
      state.PauseTiming();
      fs::remove(file);
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(appended);
}
BENCHMARK(BM_AppendPendingRecord)->UseRealTime();

}  // namespace
