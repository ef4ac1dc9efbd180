// The pending store's files as found in the data directory: the segments beside "ZLogs.tmp", the
// lock that makes one process the owner, the cursor, and what an earlier run, a power cut or a
// stranger left in their place.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <system_error>

#include "platform/file_ops.hpp"
#include "store/pending_store.hpp"

namespace zelvanor::detail {
namespace {

/// Segment numbers count up by one per segment: no store gets near this, and a number past it
/// (a damaged cursor, a crafted name) would wrap the next one round to 0, which means "none".
constexpr std::uint64_t kLastSegmentNumber = std::uint64_t{1} << 62;

/// "ZLogs.tmp.<digits>" names a segment; anything else beside it is not ours to read.
std::optional<std::uint64_t> segmentNumber(std::string_view name) {
  constexpr std::string_view prefix = "ZLogs.tmp.";
  if (name.size() <= prefix.size() || name.substr(0, prefix.size()) != prefix) return {};
  const std::string_view digits = name.substr(prefix.size());
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  if (error != std::errc{} || end != digits.data() + digits.size() || number == 0 ||
      number > kLastSegmentNumber) {
    return {};
  }
  return number;
}

/// How many names the lock may take when something else stands at the first ones.
constexpr int kLockNames = 4;

}  // namespace

std::vector<std::uint64_t> PendingStore::segmentNumbers(const std::filesystem::path& directory,
                                                        std::uint64_t* highest,
                                                        std::vector<std::uint64_t>* foreign) {
  std::error_code error;
  std::vector<std::uint64_t> numbers;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    const auto number = segmentNumber(entry.path().filename().string());
    if (!number) continue;
    // A new segment never takes a name that something else holds: a rename onto a directory
    // would fail for good.
    if (highest) *highest = std::max(*highest, *number);
    // Anything but a regular file (a FIFO, a directory, a link) is left alone, never opened.
    if (platform::regularFileSize(entry.path())) {
      numbers.push_back(*number);
    } else if (foreign) {
      foreign->push_back(*number);
    }
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

void PendingStore::forEachWaiting(const std::filesystem::path& directory,
                                  const std::function<void(std::string_view)>& visit) {
  PendingStore store(directory, {});
  store.readCursor();
  auto readFrom = [&](const std::filesystem::path& file, std::uint64_t offset) {
    PendingFileReader reader;
    if (!reader.open(file, offset)) return;
    while (auto piece = reader.next()) {
      if (piece->kind == FramePiece::Kind::frame) visit(piece->payload);
    }
  };
  for (const std::uint64_t number : segmentNumbers(directory)) {
    readFrom(store.segmentPath(number), number == store.cursorSegment_ ? store.cursorOffset_ : 0);
  }
  readFrom(store.file(kPendingFileName), 0);
}

void PendingStore::found(const std::filesystem::path& where, std::string_view then) {
  const auto what = platform::somethingElseAt(where);
  if (!what) return;
  std::string line =
      where.filename().string() + " is " + *what + ", not a regular file: " + std::string(then);
  if (std::find(foundBefore_.begin(), foundBefore_.end(), line) != foundBefore_.end()) return;
  foundBefore_.push_back(line);
  findings_.push_back(std::move(line));
}

bool PendingStore::lockStore() {
  // Something that is no regular file at the lock's name (a FIFO, a directory, a link) can never
  // be locked, and waiting for it would leave every record on disk unsent for good. It is left
  // alone and the next name is locked instead: every process of the app sees the same and picks
  // the same name, so there is still one owner.
  for (int i = 0; i < kLockNames; ++i) {
    std::string name(kLockFileName);
    if (i > 0) name += "." + std::to_string(i);
    const std::filesystem::path lock = file(name);
    if (platform::somethingElseAt(lock)) {
      found(lock, i + 1 < kLockNames
                      ? "left alone; the store is locked through " + std::string(kLockFileName) +
                            "." + std::to_string(i + 1) + " instead"
                      : std::string("left alone; this process sends what is on disk unlocked"));
      continue;
    }
    return ownerLock_.tryLock(lock);
  }
  // Every name is taken by something else: as on a file system without locks, this process goes
  // on as the owner rather than leave the records unsent.
  return true;
}

std::uint64_t PendingStore::countRecords(Segment& segment) {
  PendingFileReader reader;
  segment.records = 0;
  segment.junk = 0;
  if (!reader.open(segmentPath(segment.number), segment.start)) return 0;
  std::uint64_t wholeEnd = segment.start;  // just behind the last whole frame
  std::uint64_t tailPieces = 0;
  while (auto piece = reader.next()) {
    if (piece->kind == FramePiece::Kind::frame) {
      ++segment.records;
      wholeEnd = piece->offset + piece->size;
      tailPieces = 0;
    } else {
      segment.junk += piece->size;
      ++tailPieces;
    }
    // A shutdown does not wait for a large backlog to be counted: nothing was changed yet.
    if (stop_ && (segment.records & 1023) == 0 && stop_->load()) return segment.records;
  }
  // Only the owner appends to a segment, and only whole frames: a tail that is no frame (zeros a
  // power cut left, a length that runs past the end) can never become one. It is cut off, so it
  // neither holds the disk nor pushes the good records out as "storage full".
  const std::uint64_t tail = reader.size() - std::min(reader.size(), wholeEnd);
  if (tail > 0 && tailPieces > 0 &&
      platform::cutRegularFile(segmentPath(segment.number), wholeEnd)) {
    counts_.skippedPieces += tailPieces;
    segment.junk -= std::min(segment.junk, tail);
    segment.bytes = wholeEnd;
  }
  return segment.records;
}

void PendingStore::readCursor() {
  const auto content = platform::readWhole(file(kCursorFileName));
  if (!content || content->size() < 2 * sizeof(std::uint64_t)) return;
  std::memcpy(&cursorSegment_, content->data(), sizeof(std::uint64_t));
  std::memcpy(&cursorOffset_, content->data() + sizeof(std::uint64_t), sizeof(std::uint64_t));
  if (cursorSegment_ > kLastSegmentNumber) {
    // Damaged: as if there were none, so every segment is read from its start (sent again
    // rather than lost).
    cursorSegment_ = 0;
    cursorOffset_ = 0;
  }
}

void PendingStore::writeCursor() {
  std::string bytes(2 * sizeof(std::uint64_t), '\0');
  std::memcpy(bytes.data(), &cursorSegment_, sizeof(std::uint64_t));
  std::memcpy(bytes.data() + sizeof(std::uint64_t), &cursorOffset_, sizeof(std::uint64_t));
  // After every answer: a descriptor kept open makes it one write.
  if (cursorFile_.writeAtStart(file(kCursorFileName), bytes)) cursorWritten_ = true;
}

bool PendingStore::keepInSegment(const std::string& frames, std::size_t records) {
  if (!owner_) return false;
  Segment* last = segments_.empty() ? nullptr : &segments_.back();
  const bool appendToLast = last && !last->queued && last->number + 1 == nextNumber_ &&
                            readerSegment_ != last->number &&
                            last->bytes + frames.size() <= segmentTarget();
  const std::uint64_t number = appendToLast ? last->number : nextNumber_;
  if (!platform::appendPrivate(segmentPath(number), frames)) return false;
  if (appendToLast) {
    last->bytes += frames.size();
    last->records += records;
    return true;
  }
  ++nextNumber_;
  Segment segment;
  segment.number = number;
  segment.bytes = frames.size();
  segment.records = records;
  segment.queued = false;  // kept for later, like "ZLogs.tmp" moved aside
  segments_.push_back(segment);
  if (!cursorWritten_) writeCursor();
  return true;
}

void PendingStore::eraseAll() {
  reader_.close();
  readerSegment_ = 0;
  cursorFile_.close();
  segments_.clear();
  outstanding_.clear();
  tailBytes_ = 0;
  tailRecords_ = 0;
  tailLeft_ = false;
  quarantineBytes_ = 0;
  quarantineBuffer_.clear();
  readPaused_ = false;
  cursorSegment_ = 0;
  cursorOffset_ = 0;
  cursorFrozen_ = false;
  line_->clear();
  takenTemplates_.clear();
  cursorWritten_ = false;
  findings_.clear();
  if (!directory_.empty()) removeFiles(directory_);
}

void PendingStore::removeFiles(const std::filesystem::path& directory) {
  for (const std::uint64_t number : segmentNumbers(directory)) {
    (void)platform::removeFile(segmentPath(directory, number));
  }
  for (const std::string_view name :
       {kPendingFileName, kTemplatesFileName, kQuarantineFileName, kCursorFileName}) {
    (void)platform::removeFile(directory / name);
  }
}

}  // namespace zelvanor::detail
