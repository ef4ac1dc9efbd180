// The pending-record file: records that could not be handed to the network wait here until the
// next start. The file is a plain run of frames, each an 8-byte signed length in native byte
// order followed by that many bytes of one record's compact JSON.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanor/record.hpp"

namespace zelvanor::detail {

/// Stateless: every call is given the file and opens it afresh. Callers serialise the calls
/// (the record queue's serial context does), since nothing here locks.
class ZLogsFileManager {
 public:
  static constexpr std::string_view kPendingFileName = "ZLogs.tmp";
  static constexpr std::size_t kLengthFieldSize = sizeof(std::int64_t);

  /// "ZLogs.tmp" inside the SDK's data directory.
  static std::filesystem::path pendingFilePath(const std::filesystem::path& dataDirectory);

  /// Appends one frame holding the record's already encoded JSON. Errors are swallowed: the
  /// record is then lost, and the caller learns nothing.
  static void appendRecordData(std::string_view json, const std::filesystem::path& file) noexcept;

  /// Gives back every pending record in file order and removes the file.
  /// - missing, unreadable or empty file: nothing, and the file is not touched;
  /// - a payload that does not decode: nothing, and the file stays (later appends go behind it);
  /// - a length that is negative or runs past the end, or a file that ends inside a length field
  ///   (a crash cut the last append short): the whole frames before it, and the file is removed;
  /// - the file cannot be removed: nothing, so the records are not delivered twice.
  static std::vector<ZLogRecord> readRecords(const std::filesystem::path& file) noexcept;
  /// Pending records as their stored compact JSON: views into one shared copy of the file, so a
  /// start allocates nothing per record.
  struct RecordTexts {
    std::shared_ptr<const std::string> content;
    std::vector<std::string_view> texts;  ///< into *content, in file order
  };
  /// The same, with the same rules, but each record comes back as its stored compact JSON (every
  /// one checked to decode as a record). What a start uses: no large record is built.
  static RecordTexts readRecordTexts(const std::filesystem::path& file) noexcept;

  /// How the frames of a pending file's content ended.
  enum class FrameEnd {
    clean,  ///< the last frame ends exactly at the end of the content
    torn,   ///< a length field or payload is cut off, or a length is negative
  };

  /// Splits content into its frames' payloads (views into content), stopping at the first frame
  /// that is not whole.
  static FrameEnd splitFrames(std::string_view content, std::vector<std::string_view>& payloads);
};

}  // namespace zelvanor::detail
