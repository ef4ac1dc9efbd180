// The cookie store and the HTTP-date reading on their own, as tables (in tests/data/http/): the
// date forms and the leniency browsers allow, Retry-After's two forms, what a Set-Cookie may set
// and where the cookie goes back, and the store's bounds. The jar file's lines are the jar's test.
#include "transport/cookie_store.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/data_table.hpp"
#include "transport/http_date.hpp"

namespace zelvanor::network {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::system_clock;

const Clock::time_point kNow{seconds(1'700'000'000)};  // Tue, 14 Nov 2023 22:13:20 GMT

std::optional<std::int64_t> expected(const std::string& field, std::int64_t cap = 0) {
  if (field == "-") return std::nullopt;
  return field == "cap" ? cap : std::stoll(field);
}

TEST(HttpDate, ReadsEachFormLenientlyAndRetryAfterIsSecondsOrTheTimeUntilADate) {
  for (const auto& row : testing::dataTable("http/dates.tsv")) {
    EXPECT_EQ(parseHttpDateSeconds(row.at(0)), expected(row.at(1))) << row[0];
  }
  // Past what the clock holds, the time point stays at its edge rather than wrapping.
  const auto latest = parseHttpDate("31 Dec 9999 23:59:59");
  ASSERT_TRUE(latest);
  EXPECT_GT(*latest, *parseHttpDate("1 Jan 2200 00:00:00"));
  EXPECT_EQ(parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"), Clock::time_point(seconds(784111777)));
  // Retry-After is seconds or the time until a date, capped and never negative.
  for (const auto& row : testing::dataTable("http/retry_after.tsv")) {
    const auto wait = parseRetryAfter(row.at(0), kNow);
    EXPECT_EQ(wait ? std::optional<std::int64_t>(wait->count()) : std::nullopt,
              expected(row.at(1), kLongestRetryAfter.count()))
        << '"' << row[0] << '"';
  }
}

TEST(CookieStore, SetCookieIsStoredAndSentBackAsBrowsersDo) {
  for (const auto& row : testing::dataTable("http/set_cookie.tsv")) {
    ASSERT_GE(row.size(), 5u) << ::testing::PrintToString(row);
    CookieStore store;
    for (std::size_t i = 4; i < row.size(); ++i) store.setFromHeader(row[0], row[i], kNow);
    EXPECT_EQ(store.cookieHeaderFor(row[1], kNow + seconds(std::stoll(row[2]))), row[3])
        << ::testing::PrintToString(row);
  }
  // 4096 bytes of name and value are the most a cookie may hold.
  const std::string longValue(4095, 'v');
  CookieStore store;
  store.setFromHeader("https://h.test/", "n=" + longValue, kNow);
  store.setFromHeader("https://h.test/", "m=" + longValue + "v", kNow);
  EXPECT_EQ(store.cookieHeaderFor("https://h.test/", kNow), "n=" + longValue);
  // The jar gets the dated cookies while they live, as libcurl wrote them.
  store.setFromHeader("https://h.test/", "dated=1; Max-Age=100", kNow);
  EXPECT_EQ(store.jarLines(kNow + seconds(99)),
            std::vector<std::string>{"h.test\tFALSE\t/\tFALSE\t1700000100\tdated\t1"});
  EXPECT_TRUE(store.jarLines(kNow + seconds(100)).empty()) << "expired by then";
}

TEST(CookieStore, BoundsDropTheLeastRecentlySetPerDomainAndInAll) {
  CookieStore store;
  for (std::size_t i = 0; i <= CookieStore::kMaxPerDomain; ++i) {
    store.setFromHeader("https://h.test/", "c" + std::to_string(i) + "=v", kNow);
    if (i == 1) store.setFromHeader("https://h.test/", "c0=again", kNow);  // c0 is now newer
  }
  const auto cookies = store.cookiesFor("https://h.test/", kNow);
  ASSERT_EQ(cookies.size(), CookieStore::kMaxPerDomain);
  EXPECT_EQ(cookies[0].name + "=" + cookies[0].value, "c0=again");
  EXPECT_EQ(cookies[1].name, "c2") << "c1 was the least recently set";

  // Another 3000 cookies on 60 other domains: the total bound drops h.test's, set first.
  for (std::size_t n = 0; n < CookieStore::kMaxCookies; ++n) {
    store.setFromHeader("https://d" + std::to_string(n / CookieStore::kMaxPerDomain) + ".test/",
                        "c" + std::to_string(n % CookieStore::kMaxPerDomain) + "=v", kNow);
  }
  EXPECT_EQ(store.size(), CookieStore::kMaxCookies);
  EXPECT_EQ(store.cookieHeaderFor("https://h.test/", kNow), "") << "the oldest domain went first";
  store.clear();
  EXPECT_EQ(store.size(), 0u);
}

}  // namespace
}  // namespace zelvanor::network
