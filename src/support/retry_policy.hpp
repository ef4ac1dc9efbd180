// Every wait before trying again, in one table: after the collector failed or asked to come back
// later, after identity sync failed, while another process holds the store, and after the disk
// refused a write. Each reason keeps its own count of failures in a row; a success resets it.
#pragma once

#include <array>
#include <chrono>
#include <functional>
#include <optional>

#include "support/retry_schedule.hpp"

namespace zelvanor::support {

enum class RetryReason {
  collector,     ///< a transport failure, a redirect, or "come back later" (with its Retry-After)
  identitySync,  ///< the sync server gave no triple
  storeBusy,     ///< another process of the app holds the store
  diskRefused,   ///< a write the disk refused (full, read-only)
};

class RetryPolicy {
 public:
  using Clock = RetrySchedule::Clock;

  /// `timings` are the network's waits (the host's tests shorten them); the store's are fixed.
  explicit RetryPolicy(RetryTimings timings = {},
                       const std::function<Clock::time_point()>& now = Clock::now,
                       const std::function<double()>& unitRandom = {});

  /// The waits for one reason: first step, longest step, jitter, and the cap on a server's own
  /// Retry-After (only the collector's answers carry one).
  static RetryTimings timingsFor(RetryReason reason, const RetryTimings& network);

  /// A failure: how long to wait before the next attempt.
  std::chrono::milliseconds failed(RetryReason reason,
                                   std::optional<std::chrono::seconds> retryAfter = std::nullopt);
  void succeeded(RetryReason reason) noexcept;
  /// Whether a failure's wait for this reason is still running.
  bool waiting(RetryReason reason) const;
  int failuresInARow(RetryReason reason) const noexcept;

 private:
  static constexpr std::size_t kReasons = 4;
  RetrySchedule& track(RetryReason reason) { return tracks_[static_cast<std::size_t>(reason)]; }
  const RetrySchedule& track(RetryReason reason) const {
    return tracks_[static_cast<std::size_t>(reason)];
  }
  std::array<RetrySchedule, kReasons> tracks_;
};

}  // namespace zelvanor::support
