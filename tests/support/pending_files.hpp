// What the SDK's pending store holds on disk, in the order a start would send it: the numbered
// segments (from the cursor, for the one it names), then "ZLogs.tmp".
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "queue/pending_frames.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::testing {

inline std::vector<std::string> pendingPayloads(const std::filesystem::path& dir) {
  std::vector<std::pair<std::uint64_t, std::filesystem::path>> segments;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("ZLogs.tmp.", 0) != 0) continue;
    try {
      segments.emplace_back(std::stoull(name.substr(10)), entry.path());
    } catch (...) {
    }
  }
  std::sort(segments.begin(), segments.end());
  std::uint64_t cursorSegment = 0;
  std::uint64_t cursorOffset = 0;
  {
    std::ifstream in(dir / "ZLogs.cursor", std::ios::binary);
    char bytes[16] = {};
    if (in.read(bytes, 16)) {
      std::memcpy(&cursorSegment, bytes, 8);
      std::memcpy(&cursorOffset, bytes + 8, 8);
    }
  }
  std::vector<std::string> payloads;
  auto readFrom = [&](const std::filesystem::path& file, std::uint64_t offset) {
    detail::PendingFileReader reader;
    if (!reader.open(file, offset)) return;
    while (auto piece = reader.next()) {
      if (piece->kind == detail::FramePiece::Kind::frame) payloads.emplace_back(piece->payload);
    }
  };
  for (const auto& [number, path] : segments) {
    readFrom(path, number == cursorSegment ? cursorOffset : 0);
  }
  readFrom(dir / "ZLogs.tmp", 0);
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
