// Finished records waiting for the batch threshold, and the templates waiting for the identity
// triple. Records leave strictly oldest first.
//
// A record waits as its encoded JSON. The oldest may wait on disk instead (restored from an
// earlier run, or moved there when more than the memory limit wait): those are the transport's
// disk line, which counts them; the queue only lets them go, and the transport reads them back in
// order. Every record in memory is newer than every record on disk, so moving memory to disk
// moves all of it, behind the rest.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "queue/record_transport.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

class ZLogRecordQueue {
 public:
  /// Means "no threshold": drain everything.
  static constexpr std::uint64_t kNoThreshold = std::numeric_limits<std::uint64_t>::max();
  /// The queue's own threshold; the shared tracker's configuration replaces it with 1 at once.
  static constexpr std::uint64_t kInitialBatchSize = 5;

  explicit ZLogRecordQueue(std::shared_ptr<RecordTransport> transport,
                           std::uint64_t maxRecordsInMemory = 1000);

  /// Asks the transport for what earlier runs kept; those records join the front of the table
  /// when it has looked, without the host waiting for it.
  void restorePendingRecords();
  /// Appends one encoded record; once the table holds at least batchSize records, sends the
  /// oldest until fewer remain. So a batch size of 5 keeps four records waiting and sends one per
  /// further enqueue.
  void enqueue(std::string record);
  /// After enqueue(), with no lock held: waits while the disk is far behind (see the transport).
  void keepPaceWithDisk() { state_->transport->keepPaceWithDisk(); }
  /// Appends records built from templates an earlier run kept, through the pending store: they
  /// wait on disk, behind everything enqueued so far, and the transport then forgets those
  /// templates. Called with none when all of them were dropped.
  void enqueueFromKeptTemplates(std::vector<std::string> records);
  /// Sends oldest first while the count is at least `threshold` (kNoThreshold counts as 0).
  void drain(std::uint64_t threshold);
  void flush() { drain(kNoThreshold); }

  std::uint64_t batchSize() const noexcept { return batchSize_.load(std::memory_order_relaxed); }
  /// Applies from the next enqueue; lowering it sends nothing by itself.
  void setBatchSize(std::uint64_t size) noexcept {
    batchSize_.store(size, std::memory_order_relaxed);
  }

  /// Opens or closes the network gate; the transport hears of the first state and every change.
  void setAvailableNetworking(bool available);

  void appendTemplate(ZLogTemplate logTemplate);
  /// Puts templates kept by an earlier run in front of this run's.
  void prependTemplates(std::vector<ZLogTemplate> templates);
  /// Hands over every kept template, in tracking order, and empties the list.
  std::vector<ZLogTemplate> takeTemplates();

  /// Records in the table (waiting for the threshold), in memory and on disk.
  std::size_t recordCount() const;
  struct Waiting {
    std::uint64_t inMemory = 0;
    std::uint64_t onDisk = 0;  ///< the disk line's count: on disk (or on the way), not yet read
    /// Sent off by a threshold or a flush but not yet taken by the transport (it had no room),
    /// or the store is still being looked at.
    bool handingOver = false;
  };
  Waiting waiting() const;
  std::size_t recordsInMemory() const;
  /// The most records that were in memory at once, in the queue and held by the transport, as
  /// seen at each enqueue: what the memory limit bounds.
  std::uint64_t peakRecordsInMemory() const;
  std::size_t templateCount() const;
  /// Takes every record still in memory (oldest first) without sending it, and closes the table:
  /// records enqueued afterwards (a host thread racing with shutdown) go to the transport to be
  /// kept behind these, instead of waiting in a table nobody drains. Records waiting on disk stay
  /// there. Used at shutdown.
  std::vector<std::string> takeRecords();
  /// Forgets every record and template it holds in memory (the host asked for the app's data to
  /// be deleted; the transport empties the disk line); the table stays open.
  void discardAll();

 private:
  // Shared with the transport's callbacks, which may outlive the queue.
  struct State {
    std::shared_ptr<RecordTransport> transport;
    DiskLine* line = nullptr;  ///< the transport's
    std::uint64_t maxInMemory = 0;
    std::mutex mutex;
    std::deque<std::string> records;  ///< in memory, oldest first, behind every one on disk
    std::uint64_t released = 0;  ///< leading records sent off but not yet taken by the transport
    bool diskReleased = false;   ///< records on disk were let go: the transport is still to hear
    std::uint64_t peakInMemory = 0;
    bool closed = false;
    /// The store is still being looked at: drains meanwhile are replayed once it has answered,
    /// as if the restored records had been in front all along.
    bool restoring = false;
    std::optional<std::uint64_t> drainWhileRestoring;  ///< the lowest threshold drained with
    std::optional<std::uint64_t> lastDrain;            ///< the threshold the host drained with last
    std::vector<ZLogTemplate> templates;
    std::atomic<bool> networkAvailable{false};
    std::atomic<bool> networkReported{false};  ///< the transport has heard of the network once

    void drainLocked(std::uint64_t threshold);
    /// Records waiting for the threshold: on disk and not let go, and in memory not released.
    std::uint64_t waitingLocked() const { return line->held() + records.size() - released; }
    /// Hands released records to the transport while it has room (all of them when the gate
    /// is closed: they go to disk).
    void pumpLocked();
    /// Moves every record in memory to disk, behind those already there.
    void spillLocked();
  };

  std::shared_ptr<State> state_;
  std::atomic<std::uint64_t> batchSize_{kInitialBatchSize};
};

}  // namespace zelvanor::detail
