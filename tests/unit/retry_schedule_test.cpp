// The back-off: doubling from the first step to the longest, spread by jitter, reset by a
// success; a server's Retry-After wins within its cap.
#include <gtest/gtest.h>

#include "support/retry_schedule.hpp"

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

TEST_F(ScheduleTest, StepsDoubleFromThirtySecondsToFifteenMinutesAndASuccessStartsOver) {
  std::vector<std::chrono::milliseconds> waits;
  waits.reserve(8);
  for (int i = 0; i < 8; ++i) waits.push_back(unspread.failed());
  EXPECT_EQ(waits,
            (std::vector<std::chrono::milliseconds>{30s, 60s, 120s, 240s, 480s, 900s, 900s, 900s}));
  unspread.succeeded();
  EXPECT_EQ(unspread.failed(), 30s);
}

TEST_F(ScheduleTest, JitterSpreadsEachStepByAFifthButNeverPastTheLongest) {
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

TEST_F(ScheduleTest, TheServersRetryAfterWinsUpToAnHour) {
  EXPECT_EQ(schedule.failed(7s), 7s);
  EXPECT_EQ(schedule.failed(std::chrono::seconds(86400)), 3600s);
  EXPECT_EQ(schedule.failed(), 120s) << "failures in a row still count for the back-off";
  EXPECT_EQ(schedule.failed(0s), 0s) << "now";
}

TEST_F(ScheduleTest, WaitingLastsUntilTheWaitEnds) {
  EXPECT_FALSE(schedule.waiting());
  random = 0.0;
  schedule.failed();
  EXPECT_TRUE(schedule.waiting());
  now += 29s;
  EXPECT_TRUE(schedule.waiting());
  now += 1s;
  EXPECT_FALSE(schedule.waiting());
}

}  // namespace
}  // namespace zelvanor::support
