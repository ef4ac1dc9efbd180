// The pending-file reader's rules, checked on arbitrary file content: by the pending-file fuzzer
// and by the corpus replay test. Returns an empty string when every rule holds, else which broke.
#pragma once

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "queue/logs_file_manager.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::fuzzing {

inline std::string checkPendingContent(std::string_view content,
                                       const std::filesystem::path& scratchFile) {
  using detail::ZLogsFileManager;
  constexpr std::size_t kLength = ZLogsFileManager::kLengthFieldSize;

  // 1. The frames found are the file's own, one after another from offset 0; a clean end
  //    consumed everything, a torn one stopped where no whole frame was left.
  std::vector<std::string_view> payloads;
  const auto end = ZLogsFileManager::splitFrames(content, payloads);
  std::size_t offset = 0;
  for (const std::string_view payload : payloads) {
    std::int64_t length = 0;
    if (content.size() - offset < kLength) return "a frame was found past the end";
    std::memcpy(&length, content.data() + offset, kLength);
    offset += kLength;
    if (length < 0 || static_cast<std::uint64_t>(length) != payload.size() ||
        payload.data() != content.data() + offset) {
      return "a payload is not the bytes its length field names";
    }
    offset += payload.size();
  }
  const std::size_t left = content.size() - offset;
  if (end == ZLogsFileManager::FrameEnd::clean && left != 0) return "clean, but bytes are left";
  if (end == ZLogsFileManager::FrameEnd::torn) {
    if (left == 0) return "torn, but nothing is left";
    if (left >= kLength) {
      std::int64_t length = 0;
      std::memcpy(&length, content.data() + offset, kLength);
      if (length >= 0 && static_cast<std::uint64_t>(length) <= left - kLength) {
        return "torn, but a whole frame was left unread";
      }
    }
  }

  // 2. Reading the file gives back every record or nothing: all of them, in order, and the file
  //    is gone; or, when one payload does not decode, nothing, and the file is left as it was.
  {
    std::ofstream out(scratchFile, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
  }
  bool allDecode = true;
  for (const std::string_view payload : payloads) {
    if (!decodeJson<ZLogRecord>(payload)) {
      allDecode = false;
      break;
    }
  }
  const ZLogsFileManager::RecordTexts restored = ZLogsFileManager::readRecordTexts(scratchFile);
  const std::vector<std::string_view>& texts = restored.texts;
  const bool fileLeft = std::filesystem::exists(scratchFile);
  if (content.empty()) return fileLeft && texts.empty() ? "" : "an empty file was not left alone";
  if (allDecode) {
    if (fileLeft) return "every record decoded, but the file was not removed";
    if (texts.size() != payloads.size()) return "not every whole frame came back";
    for (std::size_t i = 0; i < texts.size(); ++i) {
      if (texts[i] != payloads[i]) return "a record came back changed or out of order";
    }
  } else {
    if (!texts.empty()) return "records came back although one does not decode";
    if (!fileLeft) return "a file with an undecodable record was removed";
  }
  std::filesystem::remove(scratchFile);
  return {};
}

}  // namespace zelvanor::fuzzing
