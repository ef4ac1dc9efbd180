// The platform layer's time facts: the agent's zone text and the offset it is taken from.
#include <gtest/gtest.h>

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

TEST(TimezoneText, ComesFromTheDevicesCurrentZone) {
  // Zones without daylight time, so "now" has one known offset.
  struct Row {
    const char* zone;
    std::string expected;
  };
  const Row rows[] = {
      {kZoneUtc, "+0"},      {kZoneSeoul, "+9"}, {kZoneKolkata, "+5"},
      {"<-0030>0:30", "+0"}, {"EST5", "-5"},     {"<-0330>3:30", "-3"},
  };
  for (const auto& row : rows) {
    ScopedTimeZone zone(row.zone);
    EXPECT_EQ(platform::timezoneText(), row.expected) << row.zone;
  }
}

TEST(TimezoneText, NewYorkIsMinusFiveInWinterAndMinusFourInSummer) {
  ScopedTimeZone zone(kZoneNewYork);
  EXPECT_EQ(platform::timezoneTextForOffset(platform::secondsFromGMT(1704067200)), "-5");  // Jan
  EXPECT_EQ(platform::timezoneTextForOffset(platform::secondsFromGMT(1720000000)), "-4");  // Jul
}

}  // namespace
}  // namespace zelvanor
