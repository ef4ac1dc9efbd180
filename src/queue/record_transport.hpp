// The narrow seam between the record queue and delivery (HTTPS and the pending store).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "store/disk_line.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

/// Built records travel by shared pointer where a request is built from the record itself.
using RecordPtr = std::shared_ptr<const ZLogRecord>;

/// What became of the records handed to a transport, since it started.
struct TransportCounts {
  std::uint64_t delivered = 0;        ///< answered exactly "ok"
  std::uint64_t refused = 0;          ///< answered anything else: dropped
  std::uint64_t keptOnDisk = 0;       ///< written to disk for a later attempt (real writes only)
  std::uint64_t resent = 0;           ///< kept records taken back to be sent in the same run
  std::uint64_t droppedForSpace = 0;  ///< the oldest, dropped to stay within the limits
  std::uint64_t quarantined = 0;      ///< stored payloads that are no record, moved aside
  std::uint64_t restored = 0;         ///< records found on disk at the start
  std::uint64_t awaitingAnswer = 0;   ///< handed over, no outcome yet
  std::uint64_t bytesOnDisk = 0;
};

/// Records travel as their compact JSON, encoded once when they were built: a waiting record
/// costs about its encoded size, and the same bytes go to the network or to disk.
class RecordTransport {
 public:
  virtual ~RecordTransport() = default;
  /// Records waiting on disk to be sent, counted once: the queue counts them toward its
  /// threshold and lets the oldest go; the transport reads them as far as they are let go.
  DiskLine& diskLine() const { return *line_; }
  /// Takes over what earlier runs kept, on the SDK's own thread (the host never waits for the
  /// disk); they join the line, and `restored` then runs on that thread with how many there are,
  /// and again with how many more whenever it takes over more later (another process held the
  /// store at the start and has let go of it).
  virtual void restore(std::function<void(std::uint64_t count)> restored) = 0;
  /// How many more records the transport takes now for the network; the queue holds the rest,
  /// in order, until the listener says there is room.
  virtual std::uint64_t room() const = 0;
  /// Records handed over that are in memory: taken for the network and not yet answered, or on
  /// their way to disk and not yet written. The queue counts them against its memory limit.
  virtual std::uint64_t recordsHeld() const { return 0; }
  /// Called on a host's thread with no SDK lock held, after it tracked: while more than the
  /// memory limit waits to be written to disk, waits (bounded) for the writes to catch up. A host
  /// tracking faster than the disk takes records would otherwise hold an unbounded backlog in
  /// memory, all of it lost to a kill.
  virtual void keepPaceWithDisk() {}
  /// Runs on an SDK thread, with no lock held, when room frees up.
  virtual void setListener(std::function<void()> roomFreed) = 0;
  /// Sends records oldest first: those waiting on disk that the line has let go before position
  /// `diskThrough`, then `records`. With the network gate closed they are kept for a later start
  /// instead (those on disk stay where they are). Never blocks on I/O.
  virtual void send(std::uint64_t diskThrough, std::vector<std::string> records,
                    bool networkAvailable) = 0;
  /// The network gate's first state, then each time it opens or closes. Records kept on disk
  /// while it was closed, or after transport failures, go out again at once when it opens.
  virtual void networkChanged(bool available) = 0;
  /// Moves records (oldest first) behind those waiting on disk: the queue's memory is full. They
  /// join the line at once, before they are written.
  virtual void spill(std::vector<std::string> records) = 0;
  /// Like spill(), for records built from the templates takeKeptTemplates() gave: once they are
  /// on disk, those templates are no longer kept (a kill before then finds the templates again).
  virtual void spillFromKeptTemplates(std::vector<std::string> records) {
    spill(std::move(records));
  }
  /// A record tracked after the queue closed for shutdown: kept for the next start, behind the
  /// unsent ones. Must not block on I/O while a shutdown is still to come or under way.
  virtual void keepLate(std::string record) = 0;
  /// Templates (their JSON, oldest first) an earlier run kept; taken once, after restore().
  virtual std::vector<std::string> takeKeptTemplates() = 0;
  /// Stops delivery for good: records in flight, `unsent` ones (oldest first) and late ones are
  /// kept for the next start, in that order, and so are `templates`. Returns once nothing more
  /// will be written.
  virtual void shutdown(std::vector<std::string> unsent, std::vector<std::string> templates) = 0;
  /// Forgets every record handed over and not yet sent, and removes everything kept on disk
  /// (records, cursor, quarantine, kept templates); returns once the files are gone. Answers
  /// still on their way are counted but keep nothing.
  virtual void deleteLocalData() {}
  /// Collection is back on: sending resumes.
  virtual void resumeSending() {}
  virtual TransportCounts counts() const { return {}; }
  /// Waits until every record handed over so far has reached an outcome (an answer, or kept on
  /// disk); false when `timeout` passed first.
  virtual bool waitUntilSettled(std::chrono::milliseconds /*timeout*/) { return true; }

 protected:
  const std::shared_ptr<DiskLine> line_ = std::make_shared<DiskLine>();
};

}  // namespace zelvanor::detail
