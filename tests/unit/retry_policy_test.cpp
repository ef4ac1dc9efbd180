// Every wait: the back-off doubles from the first step to the longest, spread by jitter, reset by
// a success; a server's Retry-After wins within its cap, for the collector only; each reason
// counts its own failures. What an answer means is the delivery test's, end to end.
#include <gtest/gtest.h>

#include <algorithm>

#include "support/retry_policy.hpp"

namespace zelvanor::support {
namespace {

using namespace std::chrono_literals;

TEST(RetryPolicyTest, EachReasonWaitsByItsOwnRowAndCountsItsOwnFailures) {
  const auto collector = RetryReason::collector;
  struct Row {
    RetryReason reason;
    double random;                ///< the jitter's draw: 0 shortens most, 1 lengthens most
    std::vector<int> retryAfter;  ///< the server's, in seconds, per failure (-1: none)
    std::vector<long long> waitsMs;
  };
  const std::vector<Row> rows = {
      {collector, 0.5, {}, {33'000, 60'000, 120'000, 240'000, 480'000, 900'000, 900'000}},
      // The first wait is only ever lengthened: a run shorter than the first step resends nothing.
      {collector, 0.0, {}, {30'000, 48'000}},
      // The longest wait is a cap, jitter included.
      {collector, 1.0, {}, {36'000, 72'000, 144'000, 288'000, 576'000, 900'000}},
      // The server's wait wins, up to an hour; its failures still count for the back-off.
      {collector, 0.5, {7, 86400, -1, 0}, {7'000, 3'600'000, 120'000, 0}},
      {RetryReason::identitySync, 0.5, {7, 7, 7}, {33'000, 60'000, 120'000}},  // never the server's
      {RetryReason::storeBusy, 0.5, {}, {100, 200, 400}},
      {RetryReason::diskRefused, 0.5, {}, {1'000, 2'000, 4'000}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << static_cast<int>(row.reason) << " " << row.random);
    RetrySchedule::Clock::time_point now{};
    RetryPolicy policy(
        RetryTimings{}, [&] { return now; }, [&] { return row.random; });
    const auto fail = [&](std::size_t i) {
      const int seconds = i < row.retryAfter.size() ? row.retryAfter[i] : -1;
      return policy.failed(
          row.reason, seconds < 0 ? std::nullopt : std::optional(std::chrono::seconds(seconds)));
    };
    EXPECT_FALSE(policy.waiting(row.reason));
    std::vector<long long> waits;
    for (std::size_t i = 0; i < row.waitsMs.size(); ++i) waits.push_back(fail(i).count());
    EXPECT_EQ(waits, row.waitsMs);
    // Waiting lasts until the last wait ends, for this reason only.
    now += std::chrono::milliseconds(std::max(waits.back() - 1, 0LL));
    EXPECT_EQ(policy.waiting(row.reason), waits.back() > 0);
    for (const RetryReason other : {RetryReason::collector, RetryReason::identitySync,
                                    RetryReason::storeBusy, RetryReason::diskRefused}) {
      EXPECT_TRUE(other == row.reason || !policy.waiting(other));
    }
    now += 1ms;
    EXPECT_FALSE(policy.waiting(row.reason));
    policy.succeeded(row.reason);
    EXPECT_EQ(policy.failuresInARow(row.reason), 0);
    EXPECT_EQ(fail(0).count(), row.waitsMs.front()) << "a success starts over";
  }
}

}  // namespace
}  // namespace zelvanor::support
