// What the SDK's pending store holds on disk, in the order a start would send it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "store/pending_store.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::testing {

inline std::vector<std::string> pendingPayloads(const std::filesystem::path& dir) {
  std::vector<std::string> payloads;
  detail::PendingStore::forEachWaiting(
      dir, [&](std::string_view payload) { payloads.emplace_back(payload); });
  return payloads;
}

inline std::vector<ZLogRecord> pendingRecords(const std::filesystem::path& dir) {
  std::vector<ZLogRecord> records;
  for (const auto& payload : pendingPayloads(dir)) {
    if (auto decoded = decodeJson<ZLogRecord>(payload)) records.push_back(std::move(*decoded));
  }
  return records;
}

}  // namespace zelvanor::testing
