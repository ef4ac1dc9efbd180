// The cookie store's and the HTTP-date reader's rules, checked on arbitrary input: by the
// set_cookie and retry_after fuzzers and by the corpus replay test. Each returns an empty string
// when every rule holds, else which broke.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "transport/cookie_store.hpp"
#include "transport/http_date.hpp"

namespace zelvanor::fuzzing {

inline const std::chrono::system_clock::time_point kFuzzNow{std::chrono::seconds(1'700'000'000)};

/// Seconds since 1970 as an IMF-fixdate ("Sun, 06 Nov 1994 08:49:37 GMT"), the other way from
/// the parser (H. Hinnant's civil_from_days), so a parsed date can be written and read again.
inline std::string imfFixdate(std::int64_t seconds) {
  std::int64_t days = seconds / 86400, rest = seconds % 86400;
  if (rest < 0) {
    rest += 86400;
    --days;
  }
  const std::int64_t weekday = ((days % 7) + 11) % 7;  // 1970-01-01 was a Thursday
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t doe = z - era * 146097;
  const std::int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const std::int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const std::int64_t mp = (5 * doy + 2) / 153;
  const std::int64_t day = doy - (153 * mp + 2) / 5 + 1;
  const std::int64_t month = mp < 10 ? mp + 3 : mp - 9;
  const std::int64_t year = yoe + era * 400 + (month <= 2 ? 1 : 0);
  static const char* const kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04lld %02d:%02d:%02d GMT", kDays[weekday],
                static_cast<int>(day), kMonths[month - 1], static_cast<long long>(year),
                static_cast<int>(rest / 3600), static_cast<int>(rest / 60 % 60),
                static_cast<int>(rest % 60));
  return text;
}

/// The input as a Retry-After value and as a date: never negative, never over the cap, digits
/// exactly their value up to it, and a date that reads is one that writes and reads the same.
inline std::string checkRetryAfter(std::string_view input) {
  const auto wait = network::parseRetryAfter(input, kFuzzNow);
  const auto cap = network::kLongestRetryAfter;
  if (wait && (*wait < std::chrono::seconds(0) || *wait > cap)) return "a wait out of range";
  const auto first = input.find_first_not_of(" \t");
  const std::string_view value =
      first == std::string_view::npos
          ? std::string_view()
          : input.substr(first, input.find_last_not_of(" \t") - first + 1);
  const bool digits = !value.empty() && value.find_first_not_of("0123456789") == value.npos;
  const auto date = network::parseHttpDateSeconds(value);
  if (digits) {
    std::string_view significant =
        value.substr(std::min(value.find_first_not_of('0'), value.size()));
    const std::int64_t expected =
        significant.size() > 12
            ? cap.count()
            : std::min<std::int64_t>(std::stoll("0" + std::string(significant)), cap.count());
    if (!wait || wait->count() != expected) return "digits did not give their own value";
  } else if (wait.has_value() != date.has_value()) {
    return "a Retry-After that is no number is a wait exactly when it is a date";
  }

  const auto anyDate = network::parseHttpDateSeconds(input);
  if (anyDate.has_value() != network::parseHttpDate(input).has_value()) {
    return "the two date readers disagree";
  }
  if (anyDate) {
    if (*anyDate < -11644473600 || *anyDate > network::kLatestHttpDate)
      return "a date out of range";
    const std::string written = imfFixdate(*anyDate);
    if (network::parseHttpDateSeconds(written) != anyDate)
      return "a date changed when written: " + written;
  }
  return {};
}

/// Lines of input: the first a request URL, then Set-Cookie values from it, "url X" switching to
/// another URL and "jar X" adding a jar line. Afterwards: the bounds hold, what is sent is sane
/// and in order, and the persistent cookies come back the same from their jar lines.
inline std::string checkSetCookie(std::string_view input) {
  network::CookieStore store;
  std::vector<std::string> urls;
  std::string url;
  bool first = true;
  while (!input.empty()) {
    const auto end = input.find('\n');
    const std::string_view line = input.substr(0, end);
    input = end == std::string_view::npos ? "" : input.substr(end + 1);
    if (first || line.starts_with("url ")) {
      url = std::string(line.substr(first ? 0 : 4));
      urls.push_back(url);
      first = false;
    } else if (line.starts_with("jar ")) {
      store.addJarLine(line.substr(4), kFuzzNow);
    } else {
      store.setFromHeader(url, line, kFuzzNow);
    }
  }
  if (store.size() > network::CookieStore::kMaxCookies) return "more cookies than the bound";

  const std::vector<std::string> lines = store.jarLines(kFuzzNow);
  std::map<std::string, std::size_t> perDomain;
  network::CookieStore reloaded;
  for (const auto& line : lines) {
    if (line.find('\n') != std::string::npos || line.find('\r') != std::string::npos) {
      return "a jar line with a line break: " + line;
    }
    auto domain = line.substr(0, line.find('\t'));
    if (domain.starts_with("#HttpOnly_")) domain.erase(0, 10);
    if (domain.starts_with(".")) domain.erase(0, 1);
    if (++perDomain[domain] > network::CookieStore::kMaxPerDomain) return "over the domain bound";
    reloaded.addJarLine(line, kFuzzNow);
  }
  if (reloaded.jarLines(kFuzzNow) != lines) return "the jar lines changed through a reload";

  for (const auto& target : urls) {
    const auto cookies = store.cookiesFor(target, kFuzzNow);
    std::string header;
    std::vector<network::StoredCookie> persistent;
    for (std::size_t i = 0; i < cookies.size(); ++i) {
      const auto& cookie = cookies[i];
      if (cookie.name.empty() ||
          cookie.name.size() + cookie.value.size() > network::CookieStore::kMaxNameAndValue) {
        return "a cookie without a name or over the size bound was sent";
      }
      if (cookie.persistent && cookie.expires <= network::unixSeconds(kFuzzNow)) {
        return "an expired cookie was sent";
      }
      if (i > 0 && cookies[i - 1].path.size() < cookie.path.size()) return "a longer path later";
      if (!header.empty()) header += "; ";
      header += cookie.name + "=" + cookie.value;
      if (cookie.persistent) persistent.push_back(cookie);
    }
    if (store.cookieHeaderFor(target, kFuzzNow) != header) return "the Cookie header differs";
    if (reloaded.cookiesFor(target, kFuzzNow) != persistent) {
      return "the reloaded store sends other cookies to " + target;
    }
  }
  return {};
}

}  // namespace zelvanor::fuzzing
