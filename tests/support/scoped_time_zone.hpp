// Switches the process's time zone (TZ) for the life of one object and puts the previous setting
// back afterwards. Only for tests that run no other threads while the zone changes: setenv and
// tzset are not thread-safe against concurrent local-time conversions.
#pragma once

#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace zelvanor::testing {

// Windows takes the zone from the system, not from TZ (and its C runtime knows no POSIX rules):
// tests that set a zone through TZ say so and are skipped there.
#ifdef _WIN32
inline constexpr bool kZonesFromTz = false;
#else
inline constexpr bool kZonesFromTz = true;
#endif
#define ZELVANOR_SKIP_UNLESS_ZONES_FROM_TZ() \
  if (!::zelvanor::testing::kZonesFromTz)    \
  GTEST_SKIP() << "the zone comes from the system here, not from TZ (no POSIX zone rules)"

class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* current = ::getenv("TZ")) previous_ = current;
    set(zone);
  }
  ~ScopedTimeZone() { set(previous_ ? previous_->c_str() : nullptr); }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  static void set(const char* zone) {
#ifdef _WIN32
    ::_putenv_s("TZ", zone ? zone : "");
    ::_tzset();
#else
    if (zone) {
      ::setenv("TZ", zone, 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
#endif
  }

  std::optional<std::string> previous_;
};

inline std::int64_t nowSeconds() {
  using namespace std::chrono;
  return duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
}

/// The calendar date, yyyy-MM-dd, of `unixSeconds` on a clock `offset` seconds ahead of UTC.
inline std::string dateAt(std::int64_t unixSeconds, long offset) {
  const time_t at = static_cast<time_t>(unixSeconds + offset);
  char text[16];
  ::strftime(text, sizeof text, "%Y-%m-%d", ::gmtime(&at));
  return text;
}

/// A zone whose date is not the UTC date right now: twelve hours behind UTC in the UTC morning,
/// fourteen ahead after noon. A date taken in the wrong zone shows in it.
struct OtherDateZone {
  const char* rule;
  long offset;
};
inline OtherDateZone zoneWithAnotherDateThanUtc() {
  const std::int64_t secondOfDay = ((nowSeconds() % 86400) + 86400) % 86400;
  if (secondOfDay < 12 * 3600) return {"<-12>12", -12 * 3600};
  return {"<+14>-14", 14 * 3600};
}

}  // namespace zelvanor::testing
