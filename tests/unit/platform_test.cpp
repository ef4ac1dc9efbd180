// The platform layer's time facts: the agent's zone text and the zone offset it is taken from
// (the install date is checked through the manager). They run against whichever platform files
// are built (ZELVANOR_PLATFORM).
#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <limits>
#include <string>

#include "platform/platform.hpp"
#include "support/scoped_time_zone.hpp"

namespace zelvanor {
namespace {

using namespace testing;

TEST(TimezoneText, WholeHoursTruncatedTowardZeroWithAPlusUnlessNegative) {
  struct Row {
    long seconds;
    std::string expected;
  };
  // -3:30 truncates to -3, not down to -4; -0:30 to +0.
  const Row rows[] = {
      {0, "+0"},     {32400, "+9"}, {19800, "+5"},  {50400, "+14"}, {3599, "+0"},    {-1800, "+0"},
      {-3599, "+0"}, {-3600, "-1"}, {-12600, "-3"}, {-18000, "-5"}, {-43200, "-12"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(platform::timezoneTextForOffset(row.seconds), row.expected) << row.seconds;
  }
}

TEST(UtcOffset, IsExactOnEitherSideOfDaylightSavingChanges) {
  ZELVANOR_SKIP_UNLESS_ZONES_FROM_TZ();
  struct Row {
    const char* zone;
    std::int64_t instant;
    long expected;
  };
  const Row rows[] = {
      {kZoneNewYork, 1710052200, -18000},  // 2024-03-10 01:30 EST, half an hour before the change
      {kZoneNewYork, 1710054000, -14400},  // 03:00 EDT, just after it
      {kZoneNewYork, 1730611800, -14400},  // 2024-11-03 01:30 EDT, the first 01:30
      {kZoneNewYork, 1730615400, -18000},  // 01:30 EST, the second
      {kZoneStJohns, 1710052200, -9000},   // 04:00 NDT
      {kZoneStJohns, 1730615400, -12600},  // 03:00 NST
      {kZoneSeoul, 1709615229, 32400},
      {kZoneKolkata, -1, 19800},
      // Local and UTC dates in different years, both ways.
      {kZoneSeoul, 1704067199, 32400},     // 2024-01-01 08:59:59 local, still 2023 in UTC
      {kZoneNewYork, 1704067200, -18000},  // 2023-12-31 19:00 local, already 2024 in UTC
      {"<-002521>0:25:21", 1720000000, -1521},
  };
  for (const auto& row : rows) {
    ScopedTimeZone zone(row.zone);
    EXPECT_EQ(platform::secondsFromGMT(row.instant), row.expected)
        << row.zone << " @ " << row.instant;
  }
  // An instant the C library cannot convert counts as UTC.
  ScopedTimeZone zone(kZoneSeoul);
  EXPECT_EQ(platform::secondsFromGMT(std::numeric_limits<std::int64_t>::max()), 0);
}

std::tm brokenDown(int year, int dayOfYear, int hour, int minute, int second) {
  std::tm value{};
  value.tm_year = year - 1900;
  value.tm_yday = dayOfYear;
  value.tm_hour = hour;
  value.tm_min = minute;
  value.tm_sec = second;
  return value;
}

TEST(UtcOffset, FromBrokenDownTimesCountsTheDayThenHoursMinutesAndSeconds) {
  struct Row {
    const char* label;
    std::tm local;
    std::tm utc;
    long expected;
  };
  const Row rows[] = {
      {"same day", brokenDown(2024, 64, 14, 7, 9), brokenDown(2024, 64, 5, 7, 9), 32400},
      {"half hour", brokenDown(2024, 64, 10, 37, 9), brokenDown(2024, 64, 5, 7, 9), 19800},
      {"with seconds", brokenDown(2024, 64, 4, 41, 48), brokenDown(2024, 64, 5, 7, 9), -1521},
      {"local the next day", brokenDown(2024, 65, 0, 0, 0), brokenDown(2024, 64, 15, 0, 0), 32400},
      {"local the day before", brokenDown(2024, 64, 19, 0, 0), brokenDown(2024, 65, 0, 0, 0),
       -18000},
      {"local in the new year", brokenDown(2024, 0, 8, 59, 59), brokenDown(2023, 364, 23, 59, 59),
       32400},
      {"local in the old leap year", brokenDown(2024, 365, 19, 0, 0), brokenDown(2025, 0, 0, 0, 0),
       -18000},
      {"zero", brokenDown(1970, 0, 0, 0, 0), brokenDown(1970, 0, 0, 0, 0), 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(platform::offsetBetween(row.local, row.utc), row.expected) << row.label;
  }
}

}  // namespace
}  // namespace zelvanor
