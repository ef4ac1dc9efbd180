// Every wait and every answer's meaning: the back-off doubles from the first step to the
// longest, spread by jitter, reset by a success; a server's Retry-After wins within its cap, for
// the collector only; each reason counts its own failures.
#include <gtest/gtest.h>

#include "network/answer.hpp"
#include "support/retry_policy.hpp"

namespace zelvanor::support {
namespace {

using namespace std::chrono_literals;
using Clock = RetrySchedule::Clock;

struct ScheduleTest : ::testing::Test {
  Clock::time_point now{};
  double random = 0.5;
  RetrySchedule schedule{RetryTimings{}, [this] { return now; }, [this] { return random; }};
  RetrySchedule unspread{RetryTimings{.jitter = 0}, [this] { return now; }};
};

TEST_F(ScheduleTest, StepsDoubleUpToTheLongestSpreadByJitterAndASuccessStartsOver) {
  std::vector<std::chrono::milliseconds> waits;
  for (int i = 0; i < 8; ++i) waits.push_back(unspread.failed());
  EXPECT_EQ(waits,
            (std::vector<std::chrono::milliseconds>{30s, 60s, 120s, 240s, 480s, 900s, 900s, 900s}));
  unspread.succeeded();
  EXPECT_EQ(unspread.failed(), 30s);

  // The first wait is only ever lengthened: a run shorter than the first step resends nothing.
  random = 0.0;
  EXPECT_EQ(schedule.failed(), 30s);
  EXPECT_EQ(schedule.failed(), 48s) << "later steps may be shortened too";
  schedule.succeeded();
  random = 1.0;
  EXPECT_EQ(schedule.failed(), 36s);
  EXPECT_EQ(schedule.failed(), 72s);
  schedule.succeeded();
  random = 0.5;
  EXPECT_EQ(schedule.failed(), 33s);
  for (int i = 0; i < 10; ++i) schedule.failed();
  EXPECT_EQ(schedule.failed(), 900s) << "the longest wait is a cap, jitter included";
}

TEST_F(ScheduleTest, TheServersRetryAfterWinsUpToAnHourAndWaitingLastsUntilTheWaitEnds) {
  EXPECT_FALSE(schedule.waiting());
  EXPECT_EQ(schedule.failed(7s), 7s);
  EXPECT_EQ(schedule.failed(std::chrono::seconds(86400)), 3600s);
  EXPECT_EQ(schedule.failed(), 120s) << "failures in a row still count for the back-off";
  EXPECT_EQ(schedule.failed(0s), 0s) << "now";
  random = 0.0;
  schedule.succeeded();
  schedule.failed();
  EXPECT_TRUE(schedule.waiting());
  now += 29s;
  EXPECT_TRUE(schedule.waiting());
  now += 1s;
  EXPECT_FALSE(schedule.waiting());
}

TEST(RetryPolicyTest, EachReasonWaitsByItsOwnRowAndCountsItsOwnFailures) {
  struct Row {
    RetryReason reason;
    std::optional<std::chrono::seconds> retryAfter;
    std::vector<long long> waitsMs;  ///< three failures in a row, jitter at its middle
  };
  const std::vector<Row> rows = {
      {RetryReason::collector, std::nullopt, {33'000, 60'000, 120'000}},
      {RetryReason::collector, 7s, {7'000, 7'000, 7'000}},
      {RetryReason::identitySync, 7s, {33'000, 60'000, 120'000}},  // no server wait here
      {RetryReason::storeBusy, std::nullopt, {100, 200, 400}},
      {RetryReason::diskRefused, std::nullopt, {1'000, 2'000, 4'000}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(static_cast<int>(row.reason));
    Clock::time_point now{};
    RetryPolicy policy(
        RetryTimings{}, [&] { return now; }, [] { return 0.5; });
    for (const long long expected : row.waitsMs) {
      EXPECT_EQ(policy.failed(row.reason, row.retryAfter).count(), expected);
    }
    EXPECT_TRUE(policy.waiting(row.reason));
    for (const RetryReason other : {RetryReason::collector, RetryReason::identitySync,
                                    RetryReason::storeBusy, RetryReason::diskRefused}) {
      EXPECT_TRUE(other == row.reason || !policy.waiting(other));
    }
    policy.succeeded(row.reason);
    EXPECT_EQ(policy.failuresInARow(row.reason), 0);
    EXPECT_EQ(policy.failed(row.reason, row.retryAfter).count(), row.waitsMs.front());
  }
}

TEST(AnswerTest, OnlyTheExactBodyOkDeliversAndOnlyBusyAnswersAskForLater) {
  using detail::AnswerKind;
  const auto answer = [](long status, std::string body) {
    return network::HttpOutcome(network::HttpResponse{status, std::move(body), {}, {}});
  };
  // The rest of the answers are the delivery test's, end to end.
  const std::vector<std::pair<network::HttpOutcome, AnswerKind>> rows = {
      {answer(200, "ok"), AnswerKind::delivered},
      {answer(503, "ok"), AnswerKind::delivered},
      {answer(200, "OK"), AnswerKind::refused},
      {answer(200, ""), AnswerKind::refused},
      {answer(501, ""), AnswerKind::refused},
      {answer(0, ""), AnswerKind::refused},
      {answer(503, ""), AnswerKind::comeBackLater},
      {answer(504, ""), AnswerKind::comeBackLater},
      {answer(300, ""), AnswerKind::redirected},
      {answer(399, ""), AnswerKind::redirected},
      {network::TransportError{"reset", false}, AnswerKind::transportFailure},
  };
  for (const auto& [outcome, kind] : rows) {
    const auto* response = std::get_if<network::HttpResponse>(&outcome);
    SCOPED_TRACE(response ? std::to_string(response->status) + " " + response->body : "failure");
    EXPECT_EQ(detail::classifyAnswer(outcome), kind);
  }
}

}  // namespace
}  // namespace zelvanor::support
