// How much the SDK may hold while records wait for the collector.
#pragma once

#include <cstdint>

namespace zelvanor {

/// Bounds on records that wait for delivery. The defaults suit a phone: about 1 MB of memory and
/// 8 MiB of disk, which is some 10,000 typical records kept through a long time offline.
struct ZStoreLimits {
  /// Records waiting in memory (about their JSON size each); beyond this they wait on disk, in
  /// order, and still go out oldest first.
  std::uint64_t maxRecordsInMemory = 1000;
  /// Bytes of records kept on disk for later; when full, the oldest are dropped (and counted).
  std::uint64_t maxBytesOnDisk = 8u << 20;
  /// Bytes of unreadable pieces of the pending file kept aside for inspection.
  std::uint64_t maxQuarantineBytes = 256u << 10;
  /// Events tracked before the identity triple is known, kept at exit for the next start.
  std::uint64_t maxTemplatesKept = 1000;

  friend bool operator==(const ZStoreLimits&, const ZStoreLimits&) = default;
};

}  // namespace zelvanor
