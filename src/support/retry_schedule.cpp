#include "support/retry_schedule.hpp"

#include <algorithm>

namespace zelvanor::support {

RetrySchedule::RetrySchedule(Timings timings, std::function<Clock::time_point()> now,
                             std::function<double()> unitRandom)
    : timings_(timings), now_(std::move(now)), unitRandom_(std::move(unitRandom)) {
  if (!unitRandom_) {
    unitRandom_ = [this] { return std::uniform_real_distribution<double>(0.0, 1.0)(engine_); };
  }
}

std::chrono::milliseconds RetrySchedule::failed(std::optional<std::chrono::seconds> retryAfter) {
  using std::chrono::milliseconds;
  ++failures_;
  milliseconds wait;
  if (retryAfter) {
    wait = std::min<milliseconds>(std::max<milliseconds>(*retryAfter, milliseconds(0)),
                                  timings_.longestServerWait);
  } else {
    // Doubling from the first step; the shift is bounded so that it cannot overflow.
    const int doublings = std::min(failures_ - 1, 30);
    const double step = std::min(
        static_cast<double>(timings_.first.count()) * static_cast<double>(1LL << doublings),
        static_cast<double>(timings_.longest.count()));
    // Spread the clients of one collector that failed together, so they do not return together.
    // The first wait is only ever lengthened: a run shorter than the first step sends nothing
    // again, as if it had never failed.
    const double spread = failures_ == 1 ? unitRandom_() : 2.0 * unitRandom_() - 1.0;
    const double factor = 1.0 + timings_.jitter * spread;
    wait = milliseconds(static_cast<long long>(
        std::min(step * factor, static_cast<double>(timings_.longest.count()))));
  }
  resumeAt_ = now_() + wait;
  return wait;
}

void RetrySchedule::succeeded() noexcept {
  failures_ = 0;
  resumeAt_ = {};
}

bool RetrySchedule::waiting() const {
  return failures_ > 0 && now_() < resumeAt_;
}

}  // namespace zelvanor::support
