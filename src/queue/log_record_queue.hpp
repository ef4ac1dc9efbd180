// Finished records waiting for the batch threshold, and the templates waiting for the identity
// triple. Records leave strictly oldest first.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
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

  explicit ZLogRecordQueue(std::shared_ptr<RecordTransport> transport);

  /// Appends the pending file's records behind whatever is in memory.
  void restorePendingRecords();
  /// Appends; once the table holds at least batchSize records, sends the oldest until fewer
  /// remain. So a batch size of 5 keeps four records waiting and sends one per further enqueue.
  void enqueue(OutgoingRecord record);
  void enqueue(ZLogRecord record) {
    enqueue(std::make_shared<const ZLogRecord>(std::move(record)));
  }
  /// Sends oldest first while the count is at least `threshold` (kNoThreshold counts as 0).
  void drain(std::uint64_t threshold);
  void flush() { drain(kNoThreshold); }

  std::uint64_t batchSize() const noexcept { return batchSize_.load(std::memory_order_relaxed); }
  /// Applies from the next enqueue; lowering it sends nothing by itself.
  void setBatchSize(std::uint64_t size) noexcept {
    batchSize_.store(size, std::memory_order_relaxed);
  }

  bool isAvailableNetworking() const noexcept { return networkAvailable_.load(); }
  void setAvailableNetworking(bool available) noexcept { networkAvailable_.store(available); }

  void appendTemplate(ZLogTemplate logTemplate);
  /// Hands over every kept template, in tracking order, and empties the list.
  std::vector<ZLogTemplate> takeTemplates();

  std::size_t recordCount() const;
  std::size_t templateCount() const;
  /// Takes every record still in memory (oldest first) without sending it, and closes the table:
  /// records enqueued afterwards (a host thread racing with shutdown) go to the transport to be
  /// kept behind these, instead of waiting in a table nobody drains. Used at shutdown.
  std::vector<OutgoingRecord> takeRecords();

 private:
  void drainLocked(std::uint64_t threshold);

  const std::shared_ptr<RecordTransport> transport_;
  mutable std::mutex mutex_;
  std::deque<OutgoingRecord> recordTable_;
  std::vector<ZLogTemplate> recordTemplates_;
  bool closed_ = false;
  std::atomic<std::uint64_t> batchSize_{kInitialBatchSize};
  std::atomic<bool> networkAvailable_{false};
};

}  // namespace zelvanor::detail
