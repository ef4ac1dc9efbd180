#include "store/pending_frames.hpp"

#include <algorithm>
#include <cstring>

namespace zelvanor::detail {
namespace {

/// Read-ahead per refill: large enough that a start reads a big backlog in few calls, small
/// enough to be nothing beside the records themselves.
constexpr std::size_t kReadWindow = 256u << 10;

std::int64_t lengthAt(std::string_view bytes, std::size_t pos) {
  std::int64_t length = 0;
  std::memcpy(&length, bytes.data() + pos, kFrameLengthSize);
  return length;
}

/// A record is a JSON object, so its text has at least two bytes.
bool plausibleLength(std::int64_t length) {
  return length >= 2 && static_cast<std::uint64_t>(length) <= kMaxFramePayload;
}

/// Where to go on after bad bytes at `from - 1`: the first later place that holds a whole frame of
/// record-shaped text (a plausible length, then "{" ... "}"), or the place where such a frame
/// might start but the bytes end (so more of the file must be seen). npos when there is none.
struct Resync {
  std::size_t at = std::string_view::npos;
  bool needsMore = false;
};

Resync findNextFrame(std::string_view bytes, std::size_t from, bool endOfFile) {
  const std::size_t n = bytes.size();
  for (std::size_t q = from; q + kFrameLengthSize < n; ++q) {
    if (bytes[q + kFrameLengthSize] != '{') continue;
    const std::int64_t length = lengthAt(bytes, q);
    if (!plausibleLength(length)) continue;
    const std::size_t end = q + kFrameLengthSize + static_cast<std::size_t>(length);
    if (end <= n) {
      if (bytes[end - 1] == '}') return {q, false};
      continue;
    }
    if (!endOfFile) return {q, true};
  }
  return {};
}

}  // namespace

std::size_t scanFrames(std::string_view bytes, std::uint64_t base, bool endOfFile,
                       const std::function<void(const FramePiece&)>& visit) {
  const std::size_t n = bytes.size();
  std::size_t pos = 0;
  while (pos < n) {
    const std::size_t left = n - pos;
    if (left < kFrameLengthSize) {
      if (!endOfFile) break;
      visit({FramePiece::Kind::torn, base + pos, left, {}});
      return n;
    }
    const std::int64_t length = lengthAt(bytes, pos);
    if (plausibleLength(length)) {
      const auto payloadSize = static_cast<std::size_t>(length);
      if (payloadSize <= left - kFrameLengthSize) {
        visit({FramePiece::Kind::frame, base + pos, kFrameLengthSize + payloadSize,
               bytes.substr(pos + kFrameLengthSize, payloadSize)});
        pos += kFrameLengthSize + payloadSize;
        continue;
      }
      if (!endOfFile) break;  // the rest of the frame is still to be read
      // At the end of the file a length that runs past it is either a torn last frame or a
      // damaged length in the middle: a whole frame after it tells which.
    }
    const Resync resync = findNextFrame(bytes, pos + 1, endOfFile);
    if (resync.at != std::string_view::npos && !resync.needsMore) {
      visit({FramePiece::Kind::skipped, base + pos, resync.at - pos, {}});
      pos = resync.at;
      continue;
    }
    if (endOfFile) {
      visit({FramePiece::Kind::torn, base + pos, n - pos, {}});
      return n;
    }
    // Where the next frame starts cannot be told from what was given: a place that may hold it
    // runs past the end, or the last bytes may begin one. Handing out the bad bytes before that
    // place would make the next call start there and take it for a frame on its length alone,
    // unchecked, where more of the file might show it is none; so the bad bytes stay unconsumed
    // and are judged again with more. Only a run of bad bytes longer than any frame is handed
    // out anyway, so that a reader never holds more than about two frames' worth.
    const std::size_t undecided = resync.needsMore ? resync.at : n - kFrameLengthSize;
    if (n - pos <= kFrameLengthSize || undecided - pos <= kMaxFramePayload) break;
    visit({FramePiece::Kind::skipped, base + pos, undecided - pos, {}});
    pos = undecided;
    break;
  }
  return pos;
}

void appendFrame(std::string& out, std::string_view payload) {
  const auto length = static_cast<std::int64_t>(payload.size());
  const std::size_t at = out.size();
  out.resize(at + kFrameLengthSize);
  std::memcpy(out.data() + at, &length, kFrameLengthSize);
  out.append(payload);
}

void PendingFileReader::close() {
  file_.close();
  buffer_.clear();
  buffer_.shrink_to_fit();
  ready_.clear();
  nextReady_ = 0;
  consumed_ = 0;
  endOfFile_ = false;
}

bool PendingFileReader::open(const std::filesystem::path& file, std::uint64_t offset) {
  buffer_.clear();
  ready_.clear();
  nextReady_ = 0;
  consumed_ = 0;
  endOfFile_ = false;
  if (!file_.open(file)) return false;
  size_ = file_.size();
  bufferOffset_ = std::min(offset, size_);
  return true;
}

bool PendingFileReader::readMore() {
  if (!file_.isOpen() || endOfFile_) return false;
  // Drop what was handed out; what remains is the start of a piece that needs more bytes.
  buffer_.erase(0, consumed_);
  bufferOffset_ += consumed_;
  consumed_ = 0;
  const std::uint64_t readFrom = bufferOffset_ + buffer_.size();
  // Only what the file held when it was opened: bytes appended since belong to a later read.
  if (readFrom >= size_) {
    endOfFile_ = true;
    return true;
  }
  const std::size_t want = static_cast<std::size_t>(
      std::min<std::uint64_t>(size_ - readFrom, std::max(kReadWindow, buffer_.size())));
  const std::size_t old = buffer_.size();
  buffer_.resize(old + want);
  std::size_t got = 0;
  while (got < want) {
    const std::int64_t n = file_.readAt(readFrom + got, buffer_.data() + old + got, want - got);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  buffer_.resize(old + got);
  if (got < want) {
    // Shorter than it was (cut by someone else) or unreadable: what was read is all there is.
    size_ = readFrom + got;
  }
  if (bufferOffset_ + buffer_.size() >= size_) endOfFile_ = true;
  return true;
}

std::optional<FramePiece> PendingFileReader::next() {
  while (nextReady_ >= ready_.size()) {
    ready_.clear();
    nextReady_ = 0;
    if (!file_.isOpen()) return std::nullopt;
    if (consumed_ >= buffer_.size() && endOfFile_) return std::nullopt;
    const bool atEnd = endOfFile_;
    if (!atEnd && !readMore()) return std::nullopt;
    const std::string_view unread = std::string_view(buffer_).substr(consumed_);
    const std::size_t used =
        scanFrames(unread, bufferOffset_ + consumed_, endOfFile_, [&](const FramePiece& piece) {
          // A run of garbage read in several windows is one skipped piece.
          if (piece.kind == FramePiece::Kind::skipped && !ready_.empty() &&
              ready_.back().kind == FramePiece::Kind::skipped &&
              ready_.back().offset + ready_.back().size == piece.offset) {
            ready_.back().size += piece.size;
            return;
          }
          ready_.push_back(piece);
        });
    consumed_ += used;
    if (atEnd && ready_.empty()) return std::nullopt;
  }
  return ready_[nextReady_++];
}

}  // namespace zelvanor::detail
