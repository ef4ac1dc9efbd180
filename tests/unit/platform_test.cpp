// The platform layer's time facts: the agent's zone text and the zone offset it is taken from
// (the install date is checked through the manager). They run against whichever platform files
// are built (ZELVANOR_PLATFORM).
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <limits>
#include <string>

#include "platform/platform.hpp"
#include "support/data_table.hpp"
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

/// "2024 64 14:07:09": a year, a day of the year (from 0) and a time of day.
std::tm brokenDown(const std::string& text) {
  std::tm value{};
  EXPECT_EQ(std::sscanf(text.c_str(), "%d %d %d:%d:%d", &value.tm_year, &value.tm_yday,
                        &value.tm_hour, &value.tm_min, &value.tm_sec),
            5)
      << text;
  value.tm_year -= 1900;
  return value;
}

TEST(UtcOffset, FromBrokenDownTimesCountsTheDayThenHoursMinutesAndSeconds) {
  for (const auto& row : dataTable("platform/utc_offsets.tsv")) {
    EXPECT_EQ(platform::offsetBetween(brokenDown(row.at(0)), brokenDown(row.at(1))),
              std::stol(row.at(2)))
        << row[0] << " / " << row[1];
  }
}

}  // namespace
}  // namespace zelvanor
