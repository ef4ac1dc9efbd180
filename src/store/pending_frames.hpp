// Reading the frames of a pending-record file: an 8-byte signed length in native byte order, then
// that many bytes of one record's compact JSON. A crash, a power cut or a foreign writer may leave
// anything behind, so the reader never trusts a length: one bad piece is reported and skipped,
// and reading goes on at the next whole frame. The SDK's store and `zelvanor pending show` both
// read through here.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/file_ops.hpp"

namespace zelvanor::detail {

inline constexpr std::size_t kFrameLengthSize = sizeof(std::int64_t);
/// No record is larger (the collector refuses bodies over 16 MiB); a longer length is garbage.
inline constexpr std::uint64_t kMaxFramePayload = 16u << 20;

/// One piece of a pending file as the reader sees it.
struct FramePiece {
  enum class Kind {
    frame,    ///< a whole frame; `payload` is its record text (not yet checked to decode)
    skipped,  ///< bytes that are no whole frame (a length that is negative, too small, too large
              ///< or runs over the next frame); reading went on at the next whole frame
    torn,     ///< the end of the file cuts the last frame short (a crash mid-append)
  };
  Kind kind = Kind::frame;
  std::uint64_t offset = 0;  ///< where the piece starts in the file (a frame's length field)
  std::uint64_t size = 0;    ///< bytes it covers, a frame's length field included
  std::string_view payload;  ///< frames only: a view into the bytes being scanned
};

/// Splits `bytes`, the file's content from file offset `base`, into pieces and hands each to
/// `visit`. Returns how many leading bytes it consumed; the rest is the start of a piece that
/// needs more of the file, to be given again with what follows. With `endOfFile` everything is
/// consumed (what cannot be completed is torn).
std::size_t scanFrames(std::string_view bytes, std::uint64_t base, bool endOfFile,
                       const std::function<void(const FramePiece&)>& visit);

/// Appends one frame holding `payload` to `out`.
void appendFrame(std::string& out, std::string_view payload);

/// Reads a pending file piece by piece from a given offset, holding at most about one frame and a
/// read-ahead window in memory whatever the file's size. Never follows a symbolic link, never
/// opens anything but a regular file and never blocks on a FIFO or device.
class PendingFileReader {
 public:
  PendingFileReader() = default;
  ~PendingFileReader() = default;
  PendingFileReader(const PendingFileReader&) = delete;
  PendingFileReader& operator=(const PendingFileReader&) = delete;

  /// Lets go of the file.
  void close();
  /// Opens `file` for reading from `offset`; false when it is missing or no regular file.
  bool open(const std::filesystem::path& file, std::uint64_t offset = 0);
  /// The next piece, or nothing at the end of the file (or on a read error). The payload view
  /// stays valid until the next call.
  std::optional<FramePiece> next();
  /// The file's size when it was opened.
  std::uint64_t size() const noexcept { return size_; }

 private:
  /// Reads more of the file behind what the buffer holds; false at the end or on an error.
  bool readMore();

  platform::ReadableFile file_;
  std::uint64_t size_ = 0;
  std::uint64_t bufferOffset_ = 0;  ///< file offset of buffer_[0]
  std::string buffer_;              ///< file content from bufferOffset_
  std::size_t consumed_ = 0;        ///< leading bytes of buffer_ already handed out as pieces
  bool endOfFile_ = false;
  std::vector<FramePiece> ready_;  ///< pieces scanned but not handed out yet
  std::size_t nextReady_ = 0;
};

}  // namespace zelvanor::detail
