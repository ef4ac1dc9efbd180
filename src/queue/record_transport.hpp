// The narrow seam between the record queue and delivery (HTTPS and the pending-record file).
#pragma once

#include <memory>
#include <vector>

#include "zelvanor/record.hpp"

namespace zelvanor::detail {

/// Records travel by shared pointer: one allocation at build time, no copies on the way.
using RecordPtr = std::shared_ptr<const ZLogRecord>;

class RecordTransport {
 public:
  virtual ~RecordTransport() = default;
  /// Takes one record, oldest first. `networkAvailable` is the network gate at hand-over: closed
  /// means the record goes to the pending file instead of the network. Must not block on I/O:
  /// the queue calls it under its lock, on the host's thread.
  virtual void send(RecordPtr record, bool networkAvailable) = 0;
  /// Every record earlier runs kept on disk, in file order; they leave the disk.
  virtual std::vector<ZLogRecord> takePendingRecords() = 0;
  /// Stops delivery for good: records still in flight and `unsent` ones (oldest first) are kept
  /// for the next start. Returns once nothing more will be written.
  virtual void shutdown(std::vector<RecordPtr> unsent) = 0;
};

}  // namespace zelvanor::detail
