// The narrow seam between the record queue and delivery (HTTPS and the pending-record file).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zelvanor/record.hpp"
#include "zelvanor/result.hpp"

namespace zelvanor::detail {

/// Records travel by shared pointer: one allocation at build time, no copies on the way.
using RecordPtr = std::shared_ptr<const ZLogRecord>;

/// One record on its way out. A record built in this process travels as itself; one restored from
/// the pending file stays the compact JSON stored there (checked to decode as a record when it was
/// read), because rebuilding thousands of multi-kilobyte records would hold up the host's start
/// and the text is exactly what goes on the wire again.
class OutgoingRecord {
 public:
  // Implicit: the queue takes built records as they are.
  OutgoingRecord(RecordPtr record) noexcept : record_(std::move(record)) {}  // NOLINT
  static OutgoingRecord restored(std::string json);
  /// A restored record whose text is `json`, a view into `storage` (the pending file as read),
  /// which it keeps alive.
  static OutgoingRecord restored(std::shared_ptr<const std::string> storage, std::string_view json);

  /// The record, or null for a restored one.
  const ZLogRecord* record() const noexcept { return record_.get(); }
  bool isRestored() const noexcept { return storage_ != nullptr; }
  /// The compact JSON to send or keep: a restored record's stored text, or the record encoded now.
  Result<std::string> json() const;
  /// The record itself, decoding a restored one (tests and diagnostics).
  std::optional<ZLogRecord> decoded() const;

 private:
  RecordPtr record_;
  std::shared_ptr<const std::string> storage_;
  std::string_view json_;  ///< a restored record's text, inside *storage_
};

class RecordTransport {
 public:
  virtual ~RecordTransport() = default;
  /// Takes one record, oldest first. `networkAvailable` is the network gate at hand-over: closed
  /// means the record goes to the pending file instead of the network. Must not block on I/O:
  /// the queue calls it under its lock, on the host's thread.
  virtual void send(OutgoingRecord record, bool networkAvailable) = 0;
  /// Every record earlier runs kept on disk, in file order; they leave the disk.
  virtual std::vector<OutgoingRecord> takePendingRecords() = 0;
  /// A record tracked after the queue closed for shutdown: kept for the next start, behind the
  /// unsent ones. Must not block on I/O while a shutdown is still to come or under way.
  virtual void keepLate(OutgoingRecord record) = 0;
  /// Stops delivery for good: records still in flight, `unsent` ones (oldest first) and late ones
  /// are kept for the next start, in that order. Returns once nothing more will be written.
  virtual void shutdown(std::vector<OutgoingRecord> unsent) = 0;
};

}  // namespace zelvanor::detail
