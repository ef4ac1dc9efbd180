#include "queue/logs_file_manager.hpp"

#include <cstring>
#include <string>

#include "model/field_tables.hpp"
#include "platform/file_ops.hpp"
#include "platform/memory_hints.hpp"

namespace zelvanor::detail {
namespace {

/// Parses one payload with this thread's parser, which keeps its buffers between records; `root`
/// lives until the thread's next parse. The parser reads a little past the end of what it parses;
/// a payload with enough of the file after it is parsed where it lies instead of being copied.
bool parseRecord(std::string_view json, std::string_view content, simdjson::dom::element& root) {
  thread_local simdjson::dom::parser parser;
  const auto readableAfter =
      static_cast<std::size_t>(content.data() + content.size() - (json.data() + json.size()));
  const bool copy = readableAfter < simdjson::SIMDJSON_PADDING;
  return parser.parse(json.data(), json.size(), copy).get(root) == simdjson::SUCCESS;
}

/// Decodes exactly as decodeJson<ZLogRecord> does, but straight into the record's slot in the
/// result: a ZLogRecord is several kilobytes, and going through Result would move each one three
/// times, which is most of the cost of restoring a large file.
bool decodeRecordInto(std::string_view json, std::string_view content, ZLogRecord& record) {
  simdjson::dom::element root;
  CodecError error;
  return parseRecord(json, content, root) && decodeValue(root, record, error);
}

/// Whether decodeRecordInto would accept `json`, without building the record: restoring keeps the
/// text, so building strings only to throw them away would be most of the cost of a start.
bool recordDecodes(std::string_view json, std::string_view content) {
  simdjson::dom::element root;
  CodecError error;
  return parseRecord(json, content, root) && checkValue<ZLogRecord>(root, error);
}

/// Reads the whole file into `content`, splits it into whole frames and, when `accept` takes every
/// payload (it says whether one decodes), removes the file; false when the records must not be
/// used (see readRecords). Appends wait until this is done, so none is removed unread.
template <class Accept>
bool restoreFrames(const std::filesystem::path& file, std::string& content,
                   std::vector<std::string_view>& payloads, Accept&& accept) {
  return platform::consumeWhole(file, [&](std::string&& read) {
    if (read.empty()) return false;
    content = std::move(read);
    payloads.reserve(content.size() / 512 + 1);
    // A torn end still gives back the whole frames before it; the file goes away with them.
    (void)ZLogsFileManager::splitFrames(content, payloads);
    for (const std::string_view payload : payloads) {
      // A record this build cannot read stays on disk rather than being thrown away.
      if (!accept(payload)) return false;
    }
    return true;
  });
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
    std::string content;
    std::vector<std::string_view> payloads;
    std::vector<ZLogRecord> records;
    const bool restored = restoreFrames(file, content, payloads, [&](std::string_view payload) {
      if (records.capacity() == 0) {
        records.reserve(payloads.size());
        platform::adviseLargeBuffer(records.data(), records.capacity() * sizeof(ZLogRecord));
      }
      return decodeRecordInto(payload, content, records.emplace_back());
    });
    return restored ? std::move(records) : std::vector<ZLogRecord>{};
  } catch (...) {
    return {};
  }
}

ZLogsFileManager::RecordTexts ZLogsFileManager::readRecordTexts(
    const std::filesystem::path& file) noexcept {
  try {
    auto content = std::make_shared<std::string>();
    std::vector<std::string_view> payloads;
    const bool restored = restoreFrames(file, *content, payloads, [&](std::string_view payload) {
      return recordDecodes(payload, *content);
    });
    if (!restored) return {};
    return {std::move(content), std::move(payloads)};
  } catch (...) {
    return {};
  }
}

}  // namespace zelvanor::detail
