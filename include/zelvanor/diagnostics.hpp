// What the SDK can tell a host about its events: why one was dropped or kept (the diagnostics
// sink), and how many reached each outcome since the start (the counters).
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace zelvanor {

/// How much the diagnostics sink hears, from least to most.
enum class ZLogLevel : int {
  off = -1,     ///< nothing
  error = 0,    ///< an event was lost, or every request fails (the default)
  warning = 1,  ///< kept for a later attempt: a transport failure, the identity sync failing
  info = 2,     ///< each record kept on disk, each wait before trying again
  debug = 3,    ///< each record delivered; the JSON of `verbose` tracks
};

/// One line per call, without a trailing newline. Runs on whichever thread the event happened
/// (a host thread or one of the SDK's), with no SDK lock held; it must not block for long.
/// Lines never carry a token, an id or a cookie value.
using ZDiagnosticsSink = std::function<void(ZLogLevel level, std::string_view line)>;

/// Events that reached no record, or records lost before an answer, by reason.
struct ZDropCounts {
  std::uint64_t noCommonBlock = 0;      ///< tracked before a common block was set
  std::uint64_t noAction = 0;           ///< tracked without an action block
  std::uint64_t incompleteContext = 0;  ///< a waiting event whose context was still missing
  std::uint64_t unencodable = 0;        ///< a value JSON cannot carry (invalid UTF-8, say)
  std::uint64_t storageFull = 0;        ///< the oldest, dropped to stay within the store limits
  std::uint64_t unreadable = 0;         ///< stored by an earlier run, no longer a record
  std::uint64_t collectionOff = 0;      ///< tracked while collection was switched off
  std::uint64_t beforeSend = 0;         ///< refused by the host's before-send hook
};

/// What happened since the SDK started. Without kept records sent again in the same run,
///   tracked + restored = delivered + refused + keptOnDisk + all drops + waitingInMemory
///                        + waitingOnDisk + awaitingAnswer + templatesWaiting;
/// each record kept on disk and then sent again in this run adds one to `resent`, on the left.
struct ZCounters {
  std::uint64_t tracked = 0;     ///< events tracked (disabled ones aside), the SDK's own included
  std::uint64_t restored = 0;    ///< records and waiting events an earlier run left on disk
  std::uint64_t delivered = 0;   ///< answered with exactly "ok"
  std::uint64_t refused = 0;     ///< answered with anything else: dropped, as the collector asks
  std::uint64_t keptOnDisk = 0;  ///< written to disk for a later attempt
  std::uint64_t resent = 0;      ///< kept on disk, then taken back to be sent in this run
  ZDropCounts dropped;
  std::uint64_t waitingInMemory = 0;   ///< records waiting for the batch threshold in memory
  std::uint64_t waitingOnDisk = 0;     ///< records waiting their turn on disk (restored, overflow)
  std::uint64_t awaitingAnswer = 0;    ///< handed to delivery, not yet answered or kept
  std::uint64_t bytesOnDisk = 0;       ///< the pending store's size
  std::uint64_t templatesWaiting = 0;  ///< events waiting for the identity triple
};

}  // namespace zelvanor
