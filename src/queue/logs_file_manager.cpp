#include "queue/logs_file_manager.hpp"

#include <cstring>
#include <string>

#include "model/field_tables.hpp"
#include "platform/file_ops.hpp"
#include "platform/memory_hints.hpp"

namespace zelvanor::detail {
namespace {

/// Decodes exactly as decodeJson<ZLogRecord> does, but straight into the record's slot in the
/// result: a ZLogRecord is several kilobytes, and going through Result would move each one three
/// times, which is most of the cost of restoring a large file.
bool decodeRecordInto(std::string_view json, ZLogRecord& record) {
  thread_local simdjson::dom::parser parser;
  simdjson::dom::element root;
  if (parser.parse(json.data(), json.size(), true).get(root) != simdjson::SUCCESS) return false;
  CodecError error;
  return decodeValue(root, record, error);
}

/// Reads the whole file, hands each whole frame's payload to `take` (which says whether it
/// decodes) and removes the file; false when the records must not be used (see readRecords).
template <class Take>
bool restoreFrames(const std::filesystem::path& file, std::size_t& count, Take&& take) {
  const std::optional<std::string> content = platform::readWhole(file);
  if (!content || content->empty()) return false;
  std::vector<std::string_view> payloads;
  payloads.reserve(content->size() / 512 + 1);
  // A torn end still gives back the whole frames before it; the file goes away with them.
  (void)ZLogsFileManager::splitFrames(*content, payloads);
  count = payloads.size();
  for (const std::string_view payload : payloads) {
    // A record this build cannot read stays on disk rather than being thrown away.
    if (!take(payload)) return false;
  }
  return platform::removeFile(file);
}

}  // namespace

std::filesystem::path ZLogsFileManager::pendingFilePath(
    const std::filesystem::path& dataDirectory) {
  return dataDirectory / kPendingFileName;
}

void ZLogsFileManager::appendRecordData(std::string_view json,
                                        const std::filesystem::path& file) noexcept {
  try {
    // The frame is built whole and appended in one write, so a crash mid-append leaves at most
    // this frame torn, and the reader gives back everything before it.
    const auto length = static_cast<std::int64_t>(json.size());
    std::string frame(kLengthFieldSize + json.size(), '\0');
    std::memcpy(frame.data(), &length, kLengthFieldSize);
    std::memcpy(frame.data() + kLengthFieldSize, json.data(), json.size());
    (void)platform::appendPrivate(file, frame);
  } catch (...) {
    // Out of memory: the record is lost, like any other write failure.
  }
}

ZLogsFileManager::FrameEnd ZLogsFileManager::splitFrames(std::string_view content,
                                                         std::vector<std::string_view>& payloads) {
  std::size_t offset = 0;
  while (offset < content.size()) {
    const std::size_t left = content.size() - offset;
    if (left < kLengthFieldSize) return FrameEnd::torn;
    std::int64_t length = 0;
    std::memcpy(&length, content.data() + offset, kLengthFieldSize);
    offset += kLengthFieldSize;
    if (length < 0 || static_cast<std::uint64_t>(length) > content.size() - offset) {
      return FrameEnd::torn;
    }
    payloads.push_back(content.substr(offset, static_cast<std::size_t>(length)));
    offset += static_cast<std::size_t>(length);
  }
  return FrameEnd::clean;
}

std::vector<ZLogRecord> ZLogsFileManager::readRecords(const std::filesystem::path& file) noexcept {
  try {
    std::vector<ZLogRecord> records;
    std::size_t count = 0;
    const bool restored = restoreFrames(file, count, [&](std::string_view payload) {
      if (records.capacity() == 0) {
        records.reserve(count);
        platform::adviseLargeBuffer(records.data(), records.capacity() * sizeof(ZLogRecord));
      }
      return decodeRecordInto(payload, records.emplace_back());
    });
    return restored ? std::move(records) : std::vector<ZLogRecord>{};
  } catch (...) {
    return {};
  }
}

std::vector<std::string> ZLogsFileManager::readRecordTexts(
    const std::filesystem::path& file) noexcept {
  try {
    std::vector<std::string> texts;
    // One record to decode into, reused: only whether each payload decodes matters here.
    auto scratch = std::make_unique<ZLogRecord>();
    std::size_t count = 0;
    const bool restored = restoreFrames(file, count, [&](std::string_view payload) {
      if (texts.capacity() == 0) texts.reserve(count);
      if (!decodeRecordInto(payload, *scratch)) return false;
      texts.emplace_back(payload);
      return true;
    });
    return restored ? std::move(texts) : std::vector<std::string>{};
  } catch (...) {
    return {};
  }
}

}  // namespace zelvanor::detail
