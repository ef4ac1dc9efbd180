#include "store/pending_store.hpp"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "platform/file_ops.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {
namespace {

/// Tries a few times: the lock wait inside is short, and a start must not give up on the file
/// because another process happened to be appending.
template <class Attempt>
bool retried(Attempt&& attempt) {
  for (int i = 0; i < 3; ++i) {
    if (attempt()) return true;
  }
  return false;
}

}  // namespace

PendingStore::PendingStore(std::filesystem::path directory, ZStoreLimits limits,
                           std::shared_ptr<DiskLine> line)
    : directory_(std::move(directory)), limits_(limits), line_(std::move(line)) {}

std::filesystem::path PendingStore::segmentPath(const std::filesystem::path& directory,
                                                std::uint64_t number) {
  return directory / (std::string(kPendingFileName) + "." + std::to_string(number));
}

std::uint64_t PendingStore::segmentTarget() const {
  // Small enough that dropping the oldest one frees little, large enough to be few files.
  return std::max<std::uint64_t>(limits_.maxBytesOnDisk / 8, 4096);
}

PendingStore::Segment* PendingStore::findSegment(std::uint64_t number) {
  for (auto& segment : segments_) {
    if (segment.number == number) return &segment;
  }
  return nullptr;
}

std::uint64_t PendingStore::bytesOnDisk() const noexcept {
  std::uint64_t total = tailBytes_;
  for (const auto& segment : segments_) total += charged(segment);
  return total;
}

std::uint64_t PendingStore::open() {
  if (directory_.empty()) return 0;
  tailBytes_ = platform::regularFileSize(file(kPendingFileName)).value_or(0);
  quarantineBytes_ = platform::regularFileSize(file(kQuarantineFileName)).value_or(0);
  return takeOver();
}

std::uint64_t PendingStore::retryOpen() {
  if (!openUnfinished()) return 0;
  if (!owner_) return takeOver();
  // Owner already: only "ZLogs.tmp" is left to move aside, behind what is queued by now.
  tailBytes_ = platform::regularFileSize(file(kPendingFileName)).value_or(0);
  if (tailBytes_ == 0 || !rotateTail(/*queued=*/true)) {
    tailLeft_ = tailBytes_ > 0 && platform::regularFileSize(file(kPendingFileName)).has_value();
    return 0;
  }
  tailLeft_ = false;
  const std::uint64_t number = segments_.back().number;
  line_->join(countRecords(segments_.back()));
  (void)makeRoom(0);
  const Segment* moved = findSegment(number);
  return moved ? moved->records : 0;
}

std::uint64_t PendingStore::takeOver() {
  owner_ = lockStore();
  if (!owner_) return 0;  // another process of the app sends what is on disk

  std::uint64_t highest = 0;
  std::vector<std::uint64_t> foreign;
  const std::vector<std::uint64_t> numbers = segmentNumbers(directory_, &highest, &foreign);
  for (const std::uint64_t number : foreign) {
    found(segmentPath(number), "left alone; new segments are numbered past it");
  }
  readCursor();
  // Written now, while the disk most likely has room: rewriting a file in place later takes no
  // more space, so a disk that fills up meanwhile still lets the answers be recorded. With
  // nothing on disk it waits for the first segment: a start that keeps nothing writes nothing.
  if (!numbers.empty() || platform::regularFileSize(file(kPendingFileName)).value_or(0) > 0) {
    writeCursor();
  }
  nextNumber_ = std::max(highest, cursorSegment_) + 1;
  for (const std::uint64_t number : numbers) {
    Segment segment;
    segment.number = number;
    segment.bytes = platform::regularFileSize(segmentPath(number)).value_or(0);
    if (number == cursorSegment_ && cursorOffset_ <= segment.bytes) segment.start = cursorOffset_;
    segments_.push_back(segment);
  }
  tailBytes_ = platform::regularFileSize(file(kPendingFileName)).value_or(0);
  tailLeft_ = tailBytes_ > 0 && !retried([&] { return rotateTail(/*queued=*/true); }) &&
              platform::regularFileSize(file(kPendingFileName)).has_value();
  for (auto& segment : segments_) (void)countRecords(segment);
  // Nothing left to send in it (all answered before a kill, or nothing but junk): it goes now.
  if (!(stop_ && stop_->load())) {
    std::erase_if(segments_, [&](const Segment& segment) {
      return segment.records == 0 && platform::removeFile(segmentPath(segment.number));
    });
  }
  std::uint64_t found = 0;
  for (const auto& segment : segments_) found += segment.records;
  line_->join(found);
  // A backlog larger than the disk may hold (an older build, a long time offline) loses its
  // oldest records now rather than holding the disk past its limit.
  (void)makeRoom(0);
  std::uint64_t waiting = 0;
  for (const auto& segment : segments_) waiting += segment.records;
  return waiting;
}

void PendingStore::close() {
  reader_.close();
  cursorFile_.close();
  cursorWritten_ = false;
  readerSegment_ = 0;
  ownerLock_.unlock();
  owner_ = false;
}

bool PendingStore::rotateTail(bool queued) {
  if (!owner_) return false;
  const std::uint64_t number = nextNumber_;
  if (!platform::moveAside(file(kPendingFileName), segmentPath(number))) {
    // Gone already (nothing to move) or not movable now: either way appends go on as they are.
    if (!platform::regularFileSize(file(kPendingFileName))) tailBytes_ = 0;
    return false;
  }
  ++nextNumber_;
  Segment segment;
  segment.number = number;
  segment.bytes = platform::regularFileSize(segmentPath(number)).value_or(tailBytes_);
  segment.records = tailRecords_;
  segment.queued = queued;
  segments_.push_back(segment);
  tailBytes_ = 0;
  tailRecords_ = 0;
  if (!cursorWritten_) writeCursor();
  return true;
}

void PendingStore::dropSegment(std::deque<Segment>::iterator segment) {
  if (segment->queued) line_->leave(segment->records);
  counts_.droppedForSpace += segment->records + segment->outstanding;
  if (readerSegment_ == segment->number) {
    reader_.close();
    readerSegment_ = 0;
  }
  // Answers still to come for its records find nothing to move.
  std::erase_if(outstanding_,
                [&](const Outstanding& entry) { return entry.ref.segment == segment->number; });
  (void)platform::removeFile(segmentPath(segment->number));
  segments_.erase(segment);
}

bool PendingStore::makeRoom(std::uint64_t bytes) {
  while (bytesOnDisk() + bytes > limits_.maxBytesOnDisk && !segments_.empty()) {
    auto oldest = segments_.begin();
    const std::uint64_t excess = bytesOnDisk() + bytes - limits_.maxBytesOnDisk;
    const std::uint64_t live = charged(*oldest);
    // Dropping only part of a segment leaves its file as large as it was; one within the usual
    // size goes whole, so the files themselves stay within the limit. Only a larger one (an
    // older build's, another process's long offline spell) loses just its oldest part.
    if (live <= excess || oldest->bytes <= segmentTarget() || oldest->outstanding > 0 ||
        readerSegment_ == oldest->number) {
      dropSegment(oldest);
      continue;
    }
    // Only part of the oldest must go: move its start past enough whole frames.
    PendingFileReader reader;
    std::uint64_t dropped = 0;
    std::uint64_t newStart = oldest->start;
    if (reader.open(segmentPath(oldest->number), oldest->start)) {
      while (newStart - oldest->start < excess) {
        const auto piece = reader.next();
        if (!piece) break;
        if (piece->kind == FramePiece::Kind::frame) ++dropped;
        newStart = piece->offset + piece->size;
      }
    }
    if (newStart - oldest->start < excess) {
      dropSegment(oldest);
      continue;
    }
    oldest->start = newStart;
    oldest->junk = std::min(oldest->junk, oldest->bytes - newStart);
    dropped = std::min(dropped, oldest->records);
    oldest->records -= dropped;
    if (oldest->queued) line_->leave(dropped);
    counts_.droppedForSpace += dropped;
    if (!cursorFrozen_ && outstanding_.empty()) {
      cursorSegment_ = oldest->number;
      cursorOffset_ = newStart;
      writeCursor();
    }
  }
  return bytesOnDisk() + bytes <= limits_.maxBytesOnDisk;
}

PendingStore::Kept PendingStore::keep(const std::vector<std::string>& records) {
  Kept kept;
  if (directory_.empty()) return kept;
  std::string frames;
  while (kept.handled() < records.size()) {
    const std::size_t first = kept.handled();
    // One write per batch of records, each batch within a segment's size.
    frames.clear();
    std::size_t batch = 0;
    while (first + batch < records.size() &&
           (batch == 0 ||
            frames.size() + kFrameLengthSize + records[first + batch].size() <= segmentTarget())) {
      appendFrame(frames, records[first + batch]);
      ++batch;
    }
    if (frames.size() > limits_.maxBytesOnDisk) {
      counts_.droppedForSpace += batch;  // one record larger than the whole disk allowance
      kept.dropped += batch;
      continue;
    }
    // Something that is no regular file at "ZLogs.tmp" (a link, a FIFO) is never written
    // through: the owner keeps the records in a segment of their own instead.
    const bool tailUsable = !platform::somethingElseAt(file(kPendingFileName));
    if (!tailUsable) {
      found(file(kPendingFileName),
            owner_ ? "left alone; records kept for later go into segments beside it"
                   : "left alone; records this process keeps for later wait in memory");
    }
    // The owner moves the shared file aside and other processes append to it: its size now is
    // what counts, not what this process has appended to it over its life.
    tailBytes_ = platform::regularFileSize(file(kPendingFileName)).value_or(0);
    if (owner_ && tailBytes_ > 0 && tailBytes_ + frames.size() > segmentTarget()) {
      (void)rotateTail(/*queued=*/false);
    }
    // Another process owns the segments and only it may drop the oldest: the caller keeps these
    // in memory until the owner has sent some.
    if (!makeRoom(frames.size())) return kept;
    if (!tailUsable) {
      if (!keepInSegment(frames, batch)) return kept;
    } else {
      if (!platform::appendPrivate(file(kPendingFileName), frames)) return kept;
      tailBytes_ += frames.size();
      tailRecords_ += batch;
    }
    kept.written += batch;
  }
  return kept;
}

std::size_t PendingStore::spill(const std::vector<std::string>& records) {
  if (directory_.empty() || records.empty()) return 0;
  // Another process owns the segments: the shared file takes them, for whichever process next
  // takes the store over (this one too, once the owner lets go).
  if (!owner_) {
    const std::size_t handled = keep(records).handled();
    line_->leave(handled);
    return handled;
  }
  std::string frames;
  for (const auto& record : records) appendFrame(frames, record);
  if (frames.size() > limits_.maxBytesOnDisk / 2) return 0;
  Segment* last = segments_.empty() ? nullptr : &segments_.back();
  // The segment being read is never grown: its reader only sees what it held when opened.
  const bool appendToLast = last && last->queued && !last->blocked &&
                            last->number + 1 == nextNumber_ && readerSegment_ != last->number &&
                            last->bytes + frames.size() <= segmentTarget();
  if (!makeRoom(frames.size())) return 0;
  const std::uint64_t number = appendToLast ? segments_.back().number : nextNumber_;
  if (!platform::appendPrivate(segmentPath(number), frames)) return 0;
  if (appendToLast) {
    segments_.back().bytes += frames.size();
    segments_.back().records += records.size();
  } else {
    ++nextNumber_;
    Segment segment;
    segment.number = number;
    segment.bytes = frames.size();
    segment.records = records.size();
    segment.ownEncoding = true;
    segments_.push_back(segment);
  }
  return records.size();
}

bool PendingStore::adoptKept(std::uint64_t& added) {
  added = 0;
  if (!owner_) return true;
  if (!outstanding_.empty()) return false;
  if (tailBytes_ > 0 && rotateTail(/*queued=*/false)) {
    // Counted again below like any kept segment: another process may have appended to it.
  }
  cursorFrozen_ = false;
  for (auto& segment : segments_) {
    if (segment.queued && !segment.blocked) continue;
    // A segment holding a record that was not sent is read again from the cursor (or from its
    // start): answered records after the unsent one may go out twice, none is skipped.
    const std::uint64_t counted = segment.queued ? segment.records : 0;
    if (segment.blocked && segment.number != cursorSegment_) {
      // The cursor moved on past it no more: it is read again from where it began.
    } else if (segment.blocked) {
      segment.start = std::max(segment.start, cursorOffset_);
    }
    if (readerSegment_ == segment.number) {
      reader_.close();
      readerSegment_ = 0;
    }
    segment.queued = true;
    segment.blocked = false;
    const std::uint64_t now = countRecords(segment);
    added += now > counted ? now - counted : 0;
    // Counted fewer than the line holds for it (a file cut short meanwhile): those leave.
    if (now < counted) line_->leave(counted - now);
  }
  line_->joinReleased(added);
  return true;
}

std::optional<PendingStore::Read> PendingStore::next(std::uint64_t through) {
  readPaused_ = false;
  // Pieces read past are moved aside and answered in one go when this call ends: a long run of
  // them costs one quarantine append and one cursor write per call, not one each.
  std::size_t passed = 0;
  auto settlePassed = [&] {
    if (passed == 0) return;
    flushQuarantine();
    advanceCursor();
  };
  auto passOne = [&] {
    ++passed;
    if (passed < kPiecesPerRead && !(stop_ && stop_->load())) return false;
    readPaused_ = true;
    return true;
  };
  for (;;) {
    Segment* segment = readerSegment_ ? findSegment(readerSegment_) : nullptr;
    if (!segment) {
      readerSegment_ = 0;
      for (auto& candidate : segments_) {
        if (candidate.queued && candidate.records > 0) {
          segment = &candidate;
          break;
        }
      }
      if (!segment) {
        settlePassed();
        return std::nullopt;
      }
      if (!reader_.open(segmentPath(segment->number), segment->start)) {
        // Gone or replaced by something that is no file of ours: nothing to read there.
        line_->leave(std::exchange(segment->records, 0));
        removeIfDone(segment->number);
        continue;
      }
      readerSegment_ = segment->number;
    }
    // Only as far as the queue has let records go: the rest still count toward its threshold.
    if (!line_->mayTake(through)) break;
    const auto piece = reader_.next();
    if (!piece || segment->records == 0) {
      // Whatever is left cannot be read as records; the segment goes once it is answered.
      line_->leave(std::exchange(segment->records, 0));
      readerSegment_ = 0;
      reader_.close();
      removeIfDone(segment->number);
      continue;
    }
    const StoreRef ref{segment->number, piece->offset + piece->size};
    if (piece->kind != FramePiece::Kind::frame) {
      ++counts_.skippedPieces;
      outstanding_.push_back({ref, Outstanding::State::done});
      if (passOne()) break;
      continue;
    }
    --segment->records;
    (void)line_->takeOne(through);
    std::optional<std::string> encoded;
    if (segment->ownEncoding) {
      encoded = std::string(piece->payload);
    } else if (auto decoded = decodeJson<ZLogRecord>(piece->payload)) {
      if (auto again = encodeJson(*decoded)) encoded = std::move(again).value();
    }
    if (!encoded) {
      // Not a record this build can send (damaged, or from a later format): moved aside so that
      // it never holds up the records around it.
      quarantine(piece->payload);
      outstanding_.push_back({ref, Outstanding::State::done});
      if (passOne()) break;
      continue;
    }
    ++segment->outstanding;
    outstanding_.push_back({ref, Outstanding::State::inFlight});
    settlePassed();
    return Read{std::move(*encoded), ref};
  }
  settlePassed();
  return std::nullopt;
}

void PendingStore::quarantine(std::string_view payload) {
  ++counts_.quarantined;
  const std::size_t before = quarantineBuffer_.size();
  appendFrame(quarantineBuffer_, payload);
  if (quarantineBytes_ + quarantineBuffer_.size() > limits_.maxQuarantineBytes) {
    quarantineBuffer_.resize(before);  // past the limit: counted, not kept
  }
}

void PendingStore::flushQuarantine() {
  if (quarantineBuffer_.empty()) return;
  // Written before the cursor moves past these frames: a kill in between moves them aside again.
  if (platform::appendPrivate(file(kQuarantineFileName), quarantineBuffer_)) {
    quarantineBytes_ += quarantineBuffer_.size();
  }
  quarantineBuffer_.clear();
}

void PendingStore::answered(StoreRef ref) {
  for (auto& entry : outstanding_) {
    if (entry.ref.segment == ref.segment && entry.ref.end == ref.end &&
        entry.state == Outstanding::State::inFlight) {
      entry.state = Outstanding::State::done;
      if (Segment* segment = findSegment(ref.segment); segment && segment->outstanding > 0) {
        --segment->outstanding;
      }
      break;
    }
  }
  advanceCursor();
  removeIfDone(ref.segment);
}

void PendingStore::unsent(StoreRef ref) {
  for (auto& entry : outstanding_) {
    if (entry.ref.segment == ref.segment && entry.ref.end == ref.end &&
        entry.state == Outstanding::State::inFlight) {
      entry.state = Outstanding::State::unsent;
      if (Segment* segment = findSegment(ref.segment)) {
        if (segment->outstanding > 0) --segment->outstanding;
        segment->blocked = true;
      }
      break;
    }
  }
  advanceCursor();
}

void PendingStore::advanceCursor() {
  bool moved = false;
  while (!outstanding_.empty() && outstanding_.front().state != Outstanding::State::inFlight) {
    const Outstanding front = outstanding_.front();
    outstanding_.pop_front();
    // A record that stays unsent holds the cursor where it is: the next start sends it again,
    // and what follows it, rather than skip it.
    if (front.state == Outstanding::State::unsent) cursorFrozen_ = true;
    if (cursorFrozen_) continue;
    cursorSegment_ = front.ref.segment;
    cursorOffset_ = front.ref.end;
    moved = true;
  }
  if (moved) writeCursor();
}

void PendingStore::removeIfDone(std::uint64_t number) {
  for (auto it = segments_.begin(); it != segments_.end(); ++it) {
    if (it->number != number) continue;
    // Once its last record is answered it goes at once, even with the reader still on it (no
    // further read would come to find its end): bytesOnDisk falls as answers come in.
    if (it->queued && it->records == 0 && it->outstanding == 0 && !it->blocked) {
      if (readerSegment_ == number) {
        reader_.close();
        readerSegment_ = 0;
      }
      (void)platform::removeFile(segmentPath(number));
      segments_.erase(it);
    }
    return;
  }
}

bool PendingStore::appendAfterClose(std::string_view record) const {
  if (!hasDirectory()) return false;
  std::string frame;
  appendFrame(frame, record);
  return platform::appendPrivate(pendingFile(), frame);
}

}  // namespace zelvanor::detail
