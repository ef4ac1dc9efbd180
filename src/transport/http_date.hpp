// Dates in HTTP headers, read without libcurl, the C library's time zone or its locale: Expires
// in a Set-Cookie and the date form of Retry-After. Every transport (curl, WinHTTP, a host's own
// client) hands the SDK the raw header text, so the reading has to be the SDK's own.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zelvanor::network {

/// 9999-12-31 23:59:59 UTC in seconds since 1970: the latest moment a date here names.
inline constexpr std::int64_t kLatestHttpDate = 253402300799;
/// The longest wait a Retry-After yields. Whoever uses it caps it far lower (the retry schedule
/// at an hour); this only keeps a huge number from overflowing anything.
inline constexpr std::chrono::seconds kLongestRetryAfter{24 * 60 * 60};

/// Reads a date as browsers read a cookie's Expires: the tokens are found in any order and case,
/// two-digit years are 1970-2069, the zone is taken as GMT, and anything that names no real
/// moment (a 31st of February, 24:00:00, a year before 1601) is no date. Every HTTP-date form
/// reads this way too (IMF-fixdate, RFC 850, asctime). Seconds since 1970, UTC.
std::optional<std::int64_t> parseHttpDateSeconds(std::string_view text);

/// The same, as a time point. A date beyond what the clock can hold (std::chrono's system clock
/// counts nanoseconds in 64 bits on some standard libraries: 1678 to 2262) is held at its edge.
std::optional<std::chrono::system_clock::time_point> parseHttpDate(std::string_view text);

/// A time point in whole seconds since 1970, rounded down.
std::int64_t unixSeconds(std::chrono::system_clock::time_point time);

/// A Retry-After header's value as a wait: digits are that many seconds, a date is the time
/// from `now` until it (zero when it has gone by), both capped at kLongestRetryAfter. Spaces and
/// tabs around the value do not count. Anything else (empty, signed, garbage) is no wait.
std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value,
                                                    std::chrono::system_clock::time_point now);

}  // namespace zelvanor::network
