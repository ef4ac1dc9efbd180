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
  double random = 0.5;  // the middle of the jitter: no spread
  RetrySchedule schedule{RetryTimings{}, [this] { return now; }, [this] { return random; }};
};

TEST_F(ScheduleTest, StepsDoubleFromThirtySecondsToFifteenMinutesAndASuccessStartsOver) {
  std::vector<std::chrono::milliseconds> waits;
  for (int i = 0; i < 8; ++i) waits.push_back(schedule.failed());
  EXPECT_EQ(waits,
            (std::vector<std::chrono::milliseconds>{30s, 60s, 120s, 240s, 480s, 900s, 900s, 900s}));
  schedule.succeeded();
  EXPECT_EQ(schedule.failed(), 30s);
}

TEST_F(ScheduleTest, JitterSpreadsEachStepByAFifthEitherWayButNeverPastTheLongest) {
  random = 0.0;
  EXPECT_EQ(schedule.failed(), 24s);
  random = 1.0;
  EXPECT_EQ(schedule.failed(), 72s);
  for (int i = 0; i < 10; ++i) schedule.failed();
  EXPECT_EQ(schedule.failed(), 900s) << "the longest wait is a cap, jitter included";
}

TEST_F(ScheduleTest, TheServersRetryAfterWinsUpToAnHour) {
  EXPECT_EQ(schedule.failed(7s), 7s);
  EXPECT_EQ(schedule.failed(std::chrono::seconds(86400)), 3600s);
  EXPECT_EQ(schedule.failed(), 120s) << "failures in a row still count for the back-off";
}

TEST_F(ScheduleTest, WaitingLastsUntilTheWaitEnds) {
  EXPECT_FALSE(schedule.waiting());
  schedule.failed();
  EXPECT_TRUE(schedule.waiting());
  now += 29s;
  EXPECT_TRUE(schedule.waiting());
  now += 1s;
  EXPECT_FALSE(schedule.waiting());
}

}  // namespace
}  // namespace zelvanor::support
