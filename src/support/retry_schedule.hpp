// When to try again after a failure: exponential back-off with jitter (about 30 s, doubling to
// 15 min), or the server's own Retry-After (capped at one hour). The clock and the randomness are
// injected so that tests run in milliseconds.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <random>

namespace zelvanor::support {

struct RetryTimings {
  std::chrono::milliseconds first{30'000};
  std::chrono::milliseconds longest{15 * 60'000};
  std::chrono::milliseconds longestServerWait{60 * 60'000};
  /// Each wait is the step times a factor within 1 ± jitter; the first within 1 to 1 + jitter.
  double jitter = 0.2;
};

class RetrySchedule {
 public:
  using Clock = std::chrono::steady_clock;
  using Timings = RetryTimings;

  explicit RetrySchedule(Timings timings = {}, std::function<Clock::time_point()> now = Clock::now,
                         std::function<double()> unitRandom = {});
  // The default randomness draws from this object's own engine.
  RetrySchedule(const RetrySchedule&) = delete;
  RetrySchedule& operator=(const RetrySchedule&) = delete;

  /// A failure: how long to wait before the next attempt. A server's Retry-After wins (within its
  /// cap); otherwise the step doubles with every failure in a row.
  std::chrono::milliseconds failed(std::optional<std::chrono::seconds> retryAfter = std::nullopt);
  /// A success: the next failure starts from the first step again.
  void succeeded() noexcept;
  /// Whether a failure's wait is still running.
  bool waiting() const;
  int failuresInARow() const noexcept { return failures_; }

 private:
  Timings timings_;
  std::function<Clock::time_point()> now_;
  std::function<double()> unitRandom_;
  std::mt19937_64 engine_{std::random_device{}()};
  int failures_ = 0;
  Clock::time_point resumeAt_{};
};

}  // namespace zelvanor::support
