// The platform layer's time facts: the zone offset and the agent's zone text taken from it (the
// install date is checked through the manager). They run against whichever platform files
// are built (ZELVANOR_PLATFORM).
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "platform/platform.hpp"
#include "support/data_table.hpp"
#include "support/scoped_time_zone.hpp"

namespace zelvanor {
namespace {

using namespace testing;

TEST(UtcOffset, IsExactOnEitherSideOfDaylightSavingChanges) {
  ZELVANOR_SKIP_UNLESS_ZONES_FROM_TZ();
  for (const auto& row : dataTable("platform/zone_offsets.tsv")) {
    ScopedTimeZone zone(row.at(0).c_str());
    EXPECT_EQ(platform::secondsFromGMT(std::stoll(row.at(1))), std::stol(row.at(2)))
        << row[0] << " @ " << row[1];
  }
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

TEST(UtcOffset, FromBrokenDownTimesCountsTheDayThenHoursMinutesAndSecondsAndNamesItsHours) {
  for (const auto& row : dataTable("platform/utc_offsets.tsv")) {
    SCOPED_TRACE(row.at(0) + " / " + row.at(1));
    const long offset = platform::offsetBetween(brokenDown(row.at(0)), brokenDown(row.at(1)));
    EXPECT_EQ(offset, std::stol(row.at(2)));
    EXPECT_EQ(platform::timezoneTextForOffset(offset), row.at(3));
  }
}

}  // namespace
}  // namespace zelvanor
