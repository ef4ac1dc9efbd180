#include "transport/http_date.hpp"

#include <array>

namespace zelvanor::network {
namespace {

bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

// The cookie-date delimiters: tab, and the printable punctuation except ':' (which belongs to
// the time). Letters, digits, ':', control characters and bytes above 127 make up the tokens.
bool isDelimiter(char ch) {
  const auto c = static_cast<unsigned char>(ch);
  return c == 0x09 || (c >= 0x20 && c <= 0x2F) || (c >= 0x3B && c <= 0x40) ||
         (c >= 0x5B && c <= 0x60) || (c >= 0x7B && c <= 0x7E);
}

/// Reads `min` to `max` digits at `at`; after them the token must end or go on with a non-digit
/// (so "123" is no day, and "12th" is the 12th).
std::optional<int> digits(std::string_view token, std::size_t& at, std::size_t min,
                          std::size_t max) {
  int value = 0;
  std::size_t count = 0;
  while (at < token.size() && isDigit(token[at])) {
    if (++count > max) return std::nullopt;
    value = value * 10 + (token[at] - '0');
    ++at;
  }
  if (count < min) return std::nullopt;
  return value;
}

bool endsOrNonDigit(std::string_view token, std::size_t at) {
  return at >= token.size() || !isDigit(token[at]);
}

struct Time {
  int hour, minute, second;
};

std::optional<Time> timeToken(std::string_view token) {
  std::size_t at = 0;
  std::array<int, 3> fields{};
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) {
      if (at >= token.size() || token[at] != ':') return std::nullopt;
      ++at;
    }
    const auto field = digits(token, at, 1, 2);
    if (!field) return std::nullopt;
    fields[i] = *field;
  }
  if (!endsOrNonDigit(token, at)) return std::nullopt;
  return Time{fields[0], fields[1], fields[2]};
}

std::optional<int> numberToken(std::string_view token, std::size_t min, std::size_t max) {
  std::size_t at = 0;
  const auto value = digits(token, at, min, max);
  if (!value || !endsOrNonDigit(token, at)) return std::nullopt;
  return value;
}

std::optional<int> monthToken(std::string_view token) {
  static constexpr std::array<std::string_view, 12> kMonths = {
      "jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
  if (token.size() < 3) return std::nullopt;
  char lower[3];
  for (int i = 0; i < 3; ++i) {
    const char c = token[i];
    lower[i] = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  for (std::size_t m = 0; m < kMonths.size(); ++m) {
    if (std::string_view(lower, 3) == kMonths[m]) return static_cast<int>(m) + 1;
  }
  return std::nullopt;
}

bool isLeap(std::int64_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

int daysInMonth(std::int64_t year, int month) {
  static constexpr std::array<int, 12> kDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && isLeap(year) ? 29 : kDays[static_cast<std::size_t>(month - 1)];
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar (H. Hinnant's
// days_from_civil): no timegm, which Windows lacks, and no dependence on the TZ variable.
std::int64_t daysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const auto yearOfEra = static_cast<unsigned>(year - era * 400);
  const auto dayOfYear =
      static_cast<unsigned>((153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1);
  const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + static_cast<std::int64_t>(dayOfEra) - 719468;
}

}  // namespace

std::optional<std::int64_t> parseHttpDateSeconds(std::string_view text) {
  std::optional<Time> time;
  std::optional<int> day, month, year;
  std::size_t at = 0;
  while (at < text.size()) {
    while (at < text.size() && isDelimiter(text[at])) ++at;
    const std::size_t start = at;
    while (at < text.size() && !isDelimiter(text[at])) ++at;
    const std::string_view token = text.substr(start, at - start);
    if (token.empty()) break;
    // Each token fills the first of these still missing that it fits, in this order.
    if (!time && (time = timeToken(token))) continue;
    if (!day && (day = numberToken(token, 1, 2))) continue;
    if (!month && (month = monthToken(token))) continue;
    if (!year && (year = numberToken(token, 2, 4))) continue;
  }
  if (!time || !day || !month || !year) return std::nullopt;
  int fullYear = *year;
  if (fullYear >= 70 && fullYear <= 99) fullYear += 1900;
  if (fullYear >= 0 && fullYear <= 69) fullYear += 2000;
  if (fullYear < 1601 || *day < 1 || *day > daysInMonth(fullYear, *month)) return std::nullopt;
  if (time->hour > 23 || time->minute > 59 || time->second > 59) return std::nullopt;
  const int secondOfDay = time->hour * 3600 + time->minute * 60 + time->second;
  return daysFromCivil(fullYear, *month, *day) * 86400 + secondOfDay;
}

std::optional<std::chrono::system_clock::time_point> parseHttpDate(std::string_view text) {
  using Clock = std::chrono::system_clock;
  const auto seconds = parseHttpDateSeconds(text);
  if (!seconds) return std::nullopt;
  const std::int64_t latest =
      std::chrono::floor<std::chrono::seconds>(Clock::time_point::max().time_since_epoch()).count();
  const std::int64_t earliest =
      std::chrono::ceil<std::chrono::seconds>(Clock::time_point::min().time_since_epoch()).count();
  const std::int64_t held = *seconds > latest ? latest : *seconds < earliest ? earliest : *seconds;
  return Clock::time_point(std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(held)));
}

std::int64_t unixSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::optional<std::chrono::seconds> parseRetryAfter(std::string_view value,
                                                    std::chrono::system_clock::time_point now) {
  const auto first = value.find_first_not_of(" \t");
  if (first == std::string_view::npos) return std::nullopt;
  value = value.substr(first, value.find_last_not_of(" \t") - first + 1);
  const std::int64_t cap = kLongestRetryAfter.count();
  bool allDigits = true;
  std::int64_t seconds = 0;
  for (const char c : value) {
    if (!isDigit(c)) {
      allDigits = false;
      break;
    }
    // Past the cap the rest of the digits cannot bring it back: stop counting there.
    if (seconds <= cap) seconds = seconds * 10 + (c - '0');
  }
  if (!allDigits) {
    const auto date = parseHttpDateSeconds(value);
    if (!date) return std::nullopt;
    seconds = *date - unixSeconds(now);
    if (seconds < 0) seconds = 0;
  }
  return std::chrono::seconds(seconds > cap ? cap : seconds);
}

}  // namespace zelvanor::network
