#include "support/retry_policy.hpp"

namespace zelvanor::support {

using std::chrono::milliseconds;

RetryTimings RetryPolicy::timingsFor(RetryReason reason, const RetryTimings& network) {
  switch (reason) {
    case RetryReason::collector:
      // About 30 s doubling to 15 min, spread by jitter; a Retry-After is honoured up to an hour.
      return network;
    case RetryReason::identitySync:
      // Events wait for the triple: the same pace as the collector's, without a server's wait.
      return RetryTimings{network.first, network.longest, milliseconds(0), network.jitter};
    case RetryReason::storeBusy:
      // Most often the last run still shutting down: its records are taken over as soon as it
      // lets go, without polling the lock for long.
      return RetryTimings{milliseconds(100), milliseconds(30'000), milliseconds(0), 0.0};
    case RetryReason::diskRefused:
      // A full disk frees up on the user's time, not ours: soon, then no more than once a minute.
      return RetryTimings{milliseconds(1'000), milliseconds(60'000), milliseconds(0), 0.0};
  }
  return network;
}

RetryPolicy::RetryPolicy(RetryTimings timings, const std::function<Clock::time_point()>& now,
                         const std::function<double()>& unitRandom)
    : tracks_{RetrySchedule(timingsFor(RetryReason::collector, timings), now, unitRandom),
              RetrySchedule(timingsFor(RetryReason::identitySync, timings), now, unitRandom),
              RetrySchedule(timingsFor(RetryReason::storeBusy, timings), now, unitRandom),
              RetrySchedule(timingsFor(RetryReason::diskRefused, timings), now, unitRandom)} {}

milliseconds RetryPolicy::failed(RetryReason reason,
                                 std::optional<std::chrono::seconds> retryAfter) {
  // Only the collector's own answers name a wait; elsewhere one is ignored.
  if (reason != RetryReason::collector) retryAfter.reset();
  return track(reason).failed(retryAfter);
}

void RetryPolicy::succeeded(RetryReason reason) noexcept {
  track(reason).succeeded();
}

bool RetryPolicy::waiting(RetryReason reason) const {
  return track(reason).waiting();
}

int RetryPolicy::failuresInARow(RetryReason reason) const noexcept {
  return track(reason).failuresInARow();
}

}  // namespace zelvanor::support
