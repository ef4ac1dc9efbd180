// Records that wait on disk. "ZLogs.tmp" takes the records kept for a later start (a transport
// failure, a closed network gate, exit); at a start it is moved aside as a numbered segment
// ("ZLogs.tmp.1", ...) whose records are then sent from where they lie. A record leaves the disk
// only once the collector has answered for it: a cursor file ("ZLogs.cursor") says how far the
// segment being sent is answered, and a segment is removed when all of it is. So a kill at any
// moment loses nothing that was on disk, and resends at most what was in flight.
//
// Segments also take the records that overflow the queue's memory, behind the restored ones. One
// process of an app owns the segments (a lock file); another only appends to "ZLogs.tmp".
//
// The store is the only code that opens, writes or removes these files in the data directory:
//
//   ZLogs.tmp           records kept for a later start; any process of the app appends here
//   ZLogs.tmp.<n>       segments, sent from where they lie; the owner's alone
//   ZLogs.cursor        how far the oldest segment is answered: segment number, file offset
//   ZLogs.quarantine    stored payloads that are no record, moved aside (bounded)
//   ZLogs.lock[.1-.3]   who owns the segments (a later name when something else stands there)
//   ZTemplates.tmp      events tracked before the identity triple, kept at exit
//
// The store's state is the delivery worker's alone: nothing here locks against other threads.
// Writers of the same files in other threads and processes take turns in the file layer
// (platform/file_ops).
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/file_ops.hpp"
#include "store/disk_line.hpp"
#include "store/pending_frames.hpp"
#include "zelvanor/storage.hpp"

namespace zelvanor::detail {

/// Where a record read from the store lies, so that its answer can move the cursor.
struct StoreRef {
  std::uint64_t segment = 0;
  std::uint64_t end = 0;  ///< the file offset just behind its frame
};

class PendingStore {
 public:
  static constexpr std::string_view kPendingFileName = "ZLogs.tmp";
  static constexpr std::string_view kCursorFileName = "ZLogs.cursor";
  static constexpr std::string_view kQuarantineFileName = "ZLogs.quarantine";
  static constexpr std::string_view kLockFileName = "ZLogs.lock";
  static constexpr std::string_view kTemplatesFileName = "ZTemplates.tmp";

  struct Counts {
    std::uint64_t droppedForSpace = 0;  ///< oldest records dropped to stay within the disk cap
    std::uint64_t quarantined = 0;      ///< payloads that are no record, moved aside (or dropped)
    std::uint64_t skippedPieces = 0;    ///< damaged lengths and torn ends read past or cut off
  };

  /// Every record waiting on disk in `directory`, in the order a start would send them (the
  /// segments from the cursor, then "ZLogs.tmp"), as stored; read only, for tools and tests.
  static void forEachWaiting(const std::filesystem::path& directory,
                             const std::function<void(std::string_view payload)>& visit);

  /// `directory` empty: nothing is ever written, everything stays in memory. `line` counts the
  /// records waiting to be sent from the segments; the store keeps it up to date.
  PendingStore(std::filesystem::path directory, ZStoreLimits limits,
               std::shared_ptr<DiskLine> line = std::make_shared<DiskLine>());

  /// Takes over what earlier runs left: the segments, then "ZLogs.tmp" moved aside behind them.
  /// Returns how many records now wait on disk to be sent (they joined the line).
  std::uint64_t open();
  /// open() could not take everything over: another process held the store (a quick relaunch
  /// while the last run still shuts down), or "ZLogs.tmp" stayed busy. retryOpen() tries again.
  bool openUnfinished() const noexcept { return !directory_.empty() && (!owner_ || tailLeft_); }
  /// Tries again what open() could not do; returns how many more records now wait to be sent.
  std::uint64_t retryOpen();

  /// Lets go of the files and of the ownership, so that a later start (in this process or
  /// another) takes over cleanly.
  void close();
  /// Removes every file the store keeps (segments, "ZLogs.tmp", the cursor, the quarantine and
  /// the kept templates) and forgets what it knew of them; it stays the owner, and later records
  /// go to new segments numbered past the old ones (an answer for an erased record finds
  /// nothing). The host asked for the app's data to be deleted.
  void eraseAll();
  /// The same files removed in `directory`, without a store: a start finishing a deletion that a
  /// crash interrupted. The segments and "ZLogs.tmp" go first, the cursor last.
  static void removeFiles(const std::filesystem::path& directory);
  /// The records waiting to be sent, as the store counts them.
  DiskLine& line() const noexcept { return *line_; }
  /// Checked while a large backlog is counted or read past: a shutdown does not wait for either.
  void setStopFlag(const std::atomic<bool>* stop) { stop_ = stop; }

  struct Kept {
    std::size_t written = 0;  ///< now on disk
    std::size_t dropped = 0;  ///< each larger than the whole disk allowance: never written
    /// The leading records dealt with; a full or read-only disk leaves the rest to the caller,
    /// who keeps them and tries again later.
    std::size_t handled() const noexcept { return written + dropped; }
  };
  /// Appends records kept for a later start.
  Kept keep(const std::vector<std::string>& records);
  /// Appends records behind the ones waiting on disk to be sent (they joined the line when they
  /// were handed over); how many leading ones were written (or dropped, each larger than the disk
  /// allowance). Only the owning process writes segments; another one appends to "ZLogs.tmp",
  /// whose records a later owner sends: those leave this process's line.
  std::size_t spill(const std::vector<std::string>& records);

  struct Read {
    std::string bytes;  ///< decoded and encoded again: only this SDK's own encoding goes out
    StoreRef ref;
  };
  /// The oldest record waiting on disk to be sent, or nothing when none is left that the line
  /// lets go before position `through`. A long run of pieces that are no record is read past a
  /// bounded stretch per call: nothing with readPaused() set means records may follow, to be
  /// asked for in a later turn of the worker.
  std::optional<Read> next(std::uint64_t through);
  /// The last next() stopped part way (the stretch's bound, or the stop flag), not at the end.
  bool readPaused() const noexcept { return readPaused_; }
  /// Pieces that are no record read past in one call of next(), at most.
  static constexpr std::size_t kPiecesPerRead = 1024;
  /// The collector answered for it: it may leave the disk.
  void answered(StoreRef ref);
  /// It was not sent: it stays where it is for the next start.
  void unsent(StoreRef ref);

  /// Takes every record kept for a later start (after a transport failure or with the network
  /// gate closed) into those waiting to be sent now, behind them: the network is back. Only once
  /// no record read from disk is in flight (false otherwise: ask again later). `added` is how
  /// many more records wait to be sent; they join the line let go at once.
  bool adoptKept(std::uint64_t& added);
  /// Records read from disk since the oldest one not yet answered: what a kill now would send
  /// again at the next start.
  std::size_t unansweredSpread() const noexcept { return outstanding_.size(); }
  const Counts& counts() const noexcept { return counts_; }
  /// What was found in the store's place and worked around since the last call (something that
  /// is no regular file where one of ours belongs), one line each, for the error diagnostics.
  std::vector<std::string> takeFindings() { return std::exchange(findings_, {}); }
  std::uint64_t bytesOnDisk() const noexcept;
  bool hasDirectory() const noexcept { return !directory_.empty(); }
  /// "ZLogs.tmp": where records kept for a later start are appended (any thread may append).
  std::filesystem::path pendingFile() const { return directory_ / kPendingFileName; }
  /// After close(), from any thread: appends one record for the next start, behind the rest (a
  /// record tracked after shutdown, which nothing else is left to keep).
  bool appendAfterClose(std::string_view record) const;

  /// The templates kept by an earlier run, oldest first, for the owning process only (another one
  /// would share them with the owner). The file stays until forgetTakenTemplates(): a kill before
  /// then finds them again.
  std::vector<std::string> takeTemplates();
  /// The taken templates' records are on disk: the file no longer keeps those templates.
  void forgetTakenTemplates();
  /// Keeps templates (their JSON, oldest first) for the next start, behind those in the file that
  /// this process did not take, the newest within the limit; the file is replaced as a whole.
  bool writeTemplates(const std::vector<std::string>& templates);

 private:
  struct Segment {
    std::uint64_t number = 0;
    std::uint64_t bytes = 0;
    std::uint64_t start = 0;  ///< where reading begins (the cursor, for a taken-over one)
    /// Records in it not yet read (or, kept ones, in it at all). Over the queued segments they
    /// are the line's records on disk: every change to them is told to the line.
    std::uint64_t records = 0;
    std::uint64_t outstanding = 0;  ///< read and not yet answered
    std::uint64_t junk = 0;         ///< bytes in it that are no frame: not charged to the limit
    bool queued = true;             ///< its records wait to be sent in this run
    bool blocked = false;           ///< holds a record that was not sent: stays for the next start
    /// Only records this run encoded itself (its memory overflowing): read back, they are already
    /// in this build's encoding and go out as they are.
    bool ownEncoding = false;
  };
  struct Outstanding {
    StoreRef ref;
    enum class State { inFlight, done, unsent } state = State::inFlight;
  };

  /// Takes the ownership and what earlier runs left; what open() and retryOpen() share.
  std::uint64_t takeOver();
  /// The one place a segment's file is named.
  static std::filesystem::path segmentPath(const std::filesystem::path& directory,
                                           std::uint64_t number);
  std::filesystem::path segmentPath(std::uint64_t number) const {
    return segmentPath(directory_, number);
  }
  /// What a segment counts against the disk limit: from where reading begins, junk aside.
  static std::uint64_t charged(const Segment& segment) noexcept {
    const std::uint64_t live = segment.bytes - std::min(segment.bytes, segment.start);
    return live - std::min(live, segment.junk);
  }
  std::filesystem::path file(std::string_view name) const { return directory_ / name; }
  Segment* findSegment(std::uint64_t number);
  void readCursor();
  /// The regular segment files, lowest first. `highest` takes the highest number any entry of a
  /// segment's name has (a directory there included), `foreign` those that are no regular file.
  static std::vector<std::uint64_t> segmentNumbers(const std::filesystem::path& directory,
                                                   std::uint64_t* highest = nullptr,
                                                   std::vector<std::uint64_t>* foreign = nullptr);
  /// Takes the lock that makes this process the owner; see the .cpp for a lock file in the way.
  bool lockStore();
  /// Notes for takeFindings(), once, that something other than a regular file stands at `where`
  /// and what the store does about it (`then`).
  void found(const std::filesystem::path& where, std::string_view then);
  /// Appends kept records as a segment of their own, when "ZLogs.tmp" is no regular file.
  bool keepInSegment(const std::string& frames, std::size_t records);
  void advanceCursor();
  /// Writes where the answers have reached (segment, offset) to the cursor file.
  void writeCursor();
  void removeIfDone(std::uint64_t number);
  /// Drops the oldest segments until `bytes` more fit within the disk cap.
  bool makeRoom(std::uint64_t bytes);
  void dropSegment(std::deque<Segment>::iterator segment);
  /// Moves "ZLogs.tmp" aside as the newest segment.
  bool rotateTail(bool queued);
  std::uint64_t countRecords(Segment& segment);
  /// Buffers the payload; flushQuarantine() writes what was buffered in one append.
  void quarantine(std::string_view payload);
  void flushQuarantine();
  std::uint64_t segmentTarget() const;
  /// The templates file's frames, oldest first, less those this process took and still holds.
  std::vector<std::string> templatesNotTaken() const;
  /// The templates file holds `all` (the newest within the limit), or is removed when none.
  bool replaceTemplates(const std::vector<std::string>& all);

  const std::filesystem::path directory_;
  const ZStoreLimits limits_;
  platform::ProcessLock ownerLock_;
  bool owner_ = false;
  bool tailLeft_ = false;         ///< "ZLogs.tmp" was busy when taken over: not yet moved aside
  std::deque<Segment> segments_;  ///< oldest first
  std::uint64_t nextNumber_ = 1;
  std::uint64_t tailBytes_ = 0;
  std::uint64_t tailRecords_ = 0;
  std::uint64_t quarantineBytes_ = 0;
  std::string quarantineBuffer_;  ///< frames moved aside in this call of next(), not yet written
  bool readPaused_ = false;
  PendingFileReader reader_;
  platform::RewrittenFile cursorFile_;  ///< kept open while this process owns the store
  bool cursorWritten_ = false;          ///< the cursor's file exists, so rewriting needs no space
  std::uint64_t readerSegment_ = 0;     ///< 0: no segment open for reading
  std::deque<Outstanding> outstanding_;
  std::uint64_t cursorSegment_ = 0;
  std::uint64_t cursorOffset_ = 0;
  bool cursorFrozen_ = false;  ///< a record before it stays unsent: the cursor moves no more
  const std::shared_ptr<DiskLine> line_;
  Counts counts_;
  const std::atomic<bool>* stop_ = nullptr;
  std::vector<std::string> takenTemplates_;  ///< taken and not yet forgotten
  std::vector<std::string> findings_;
  std::vector<std::string> foundBefore_;  ///< said already: each finding is said once
};

}  // namespace zelvanor::detail
