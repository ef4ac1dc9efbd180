// The cookie store and the HTTP-date reading on their own, as tables: the date forms and the
// leniency browsers allow, Retry-After's two forms, what a Set-Cookie may set and where the
// cookie goes back, the store's bounds, and the jar lines libcurl wrote before the SDK had its
// own store.
#include "transport/cookie_store.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "transport/http_date.hpp"

namespace zelvanor::network {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::system_clock;

const Clock::time_point kNow{seconds(1'700'000'000)};  // Tue, 14 Nov 2023 22:13:20 GMT

TEST(HttpDate, ReadsEachFormLenientlyAndRejectsWhatNamesNoMoment) {
  const struct {
    const char* text;
    std::optional<std::int64_t> expected;
  } cases[] = {
      {"Sun, 06 Nov 1994 08:49:37 GMT", 784111777},   // IMF-fixdate
      {"Sunday, 06-Nov-94 08:49:37 GMT", 784111777},  // RFC 850
      {"Sun Nov  6 08:49:37 1994", 784111777},        // asctime
      {"nov 6th 1994 8:49:37am +0200", 784111777},    // any order and case; the zone is ignored
      {"Thu, 01 Jan 1970 00:00:00 GMT", 0},
      {"01-Jan-69 00:00:00", 3124224000},  // two-digit years: 69 is 2069, 70 is 1970
      {"01-Jan-70 00:00:00", 0},
      {"29 Feb 2024 12:00:00", 1709208000},
      {"29 Feb 2000 00:00:00", 951782400},
      {"1 Jan 1601 00:00:00", -11644473600},
      {"31 Dec 9999 23:59:59", 253402300799},
      {"29 Feb 2023 12:00:00", std::nullopt},
      {"29 Feb 2100 12:00:00", std::nullopt},
      {"31 Apr 2024 00:00:00", std::nullopt},
      {"00 Jan 2024 00:00:00", std::nullopt},
      {"32 Jan 2024 00:00:00", std::nullopt},
      {"1 Jan 2024 24:00:00", std::nullopt},
      {"1 Jan 2024 23:60:00", std::nullopt},
      {"1 Jan 2024 23:59:60", std::nullopt},
      {"1 Jan 1600 00:00:00", std::nullopt},
      {"1 Jan 2024 123:00:00", std::nullopt},
      {"Sun, 06 Nov 1994", std::nullopt},
      {"06 Nov 1994 08:49", std::nullopt},
      {"06 Foo 1994 08:49:37", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(parseHttpDateSeconds(c.text), c.expected) << c.text;
  // Past what the clock holds, the time point stays at its edge rather than wrapping.
  const auto latest = parseHttpDate("31 Dec 9999 23:59:59");
  ASSERT_TRUE(latest);
  EXPECT_GT(*latest, *parseHttpDate("1 Jan 2200 00:00:00"));
  EXPECT_EQ(parseHttpDate("Sun, 06 Nov 1994 08:49:37 GMT"), Clock::time_point(seconds(784111777)));
}

TEST(HttpDate, RetryAfterIsSecondsOrTheTimeUntilADateCappedAndNeverNegative) {
  const auto cap = kLongestRetryAfter.count();
  const struct {
    const char* value;
    std::optional<std::int64_t> expected;
  } cases[] = {
      {"120", 120},
      {" \t120\t ", 120},
      {"0", 0},
      {"007", 7},
      {"86400", 86400},
      {"86401", cap},
      {"99999999999999999999999999", cap},
      {"Tue, 14 Nov 2023 22:15:20 GMT", 120},
      {"Tue, 14 Nov 2023 21:56:40 GMT", 0},  // gone by
      {"Fri, 31 Dec 9999 23:59:59 GMT", cap},
      {"", std::nullopt},
      {" \t ", std::nullopt},
      {"-5", std::nullopt},
      {"+5", std::nullopt},
      {"1.5", std::nullopt},
      {"12 0", std::nullopt},
      {"soon", std::nullopt},
  };
  for (const auto& c : cases) {
    const auto wait = parseRetryAfter(c.value, kNow);
    EXPECT_EQ(wait ? std::optional<std::int64_t>(wait->count()) : std::nullopt, c.expected)
        << '"' << c.value << '"';
  }
}

TEST(CookieStore, SetCookieIsStoredAndSentBackAsBrowsersDo) {
  const std::string longValue(4095, 'v');
  const std::string h = "https://h.test/";
  const struct {
    std::string setUrl;
    std::vector<std::string> headers;
    std::string url;
    std::string expected;
    int later = 0;  ///< seconds after the cookies were set that `url` asks
  } cases[] = {
      {"https://sync.example.com/sync", {"a=1"}, "https://sync.example.com/other", "a=1"},
      {"https://sync.example.com/", {"a=1"}, "https://www.sync.example.com/", ""},  // host-only
      {"https://H.Example.COM/", {"a=1"}, "https://h.example.com/", "a=1"},
      {"https://www.example.com/", {"a=1; Domain=.EXAMPLE.com"}, "https://api.example.com/", "a=1"},
      {"https://example.com/", {"a=1; Domain=example.com"}, "https://x.example.com/", "a=1"},
      {"https://www.example.com/", {"a=1; Domain=example.com"}, "https://badexample.com/", ""},
      {"https://www.example.com/", {"a=1; Domain=other.com"}, "https://www.example.com/", ""},
      {"https://www.example.com/", {"a=1; Domain=ample.com"}, "https://www.example.com/", ""},
      {"https://example.com/", {"a=1; Domain=com"}, "https://example.com/", ""},
      {h + "api/v1/sync", {"a=1"}, h + "api/v1/x", "a=1"},  // default path
      {h + "api/v1/sync", {"a=1"}, h + "api/other", ""},
      {h, {"a=1; Path=/only", "b=2; Path=/"}, h + "only/x?q", "a=1; b=2"},
      {h, {"a=1; Path=/only", "b=2; Path=/"}, h + "onlyx", "b=2"},
      {h + "x/y", {"a=1; Path=nonsense"}, h + "x/z", "a=1"},
      {h, {"b=2", "a=1; Path=/deep", "c=3"}, h + "deep", "a=1; b=2; c=3"},
      {h, {"a=1", "b=2", "a=3"}, h, "a=3; b=2"},  // keeps its place
      {h, {"a=1", "b=2", "a=; Max-Age=0"}, h, "b=2"},
      {h, {"a=1", "a=; Expires=Thu, 01 Jan 1970 00:00:00 GMT"}, h, ""},
      // Max-Age wins wherever it stands.
      {h, {"a=1; Max-Age=60; Expires=Thu, 01 Jan 1970 00:00:00 GMT"}, h, "a=1"},
      {h, {"a=1; Expires=Fri, 01 Jan 2100 00:00:00 GMT; Max-Age=-1"}, h, ""},
      {h, {"a=1; Max-Age=60"}, h, "a=1", 59},
      {h, {"a=1; Max-Age=60"}, h, "", 60},
      {h, {"a=1; Expires=Tue, 14 Nov 2023 22:15:20 GMT"}, h, "", 120},
      {h, {"a=1; Max-Age=soon"}, h, "a=1", 1'000'000'000},
      {h, {"a=1; Secure", "b=2"}, "http://h.test/", "b=2"},
      {"http://h.test/", {"a=1; Secure"}, h, ""},  // only https sets Secure
      {"https://127.0.0.1:8443/sync", {"fa_cid=c"}, "https://127.0.0.1:9000/x", "fa_cid=c"},
      {"https://127.0.0.1/",
       {"a=1; Domain=127.0.0.1", "b=2; Domain=0.0.1"},
       "https://127.0.0.1/",
       "a=1"},
      {"https://localhost:1234/", {"a=1; Domain=localhost"}, "https://localhost/", "a=1"},
      {"https://[::1]:8443/", {"a=1"}, "https://[::1]/", "a=1"},
      {h, {"novalue", "=x", "a=1\x01", "b=2\tx", " c = 3 ; HttpOnly"}, h, "c=3"},
      {h, {"n=" + longValue, "m=" + longValue + "v"}, h, "n=" + longValue},
      {"not a url", {"a=1"}, "not a url", ""},
      {h, {"a=1"}, "ftp://h.test/", ""},
  };
  for (const auto& c : cases) {
    CookieStore store;
    for (const auto& header : c.headers) store.setFromHeader(c.setUrl, header, kNow);
    EXPECT_EQ(store.cookieHeaderFor(c.url, kNow + seconds(c.later)), c.expected)
        << c.setUrl << " " << ::testing::PrintToString(c.headers) << " -> " << c.url;
  }
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
  for (std::size_t domain = 0; domain < CookieStore::kMaxCookies / CookieStore::kMaxPerDomain;
       ++domain) {
    for (std::size_t i = 0; i < CookieStore::kMaxPerDomain; ++i) {
      store.setFromHeader("https://d" + std::to_string(domain) + ".test/",
                          "c" + std::to_string(i) + "=v", kNow);
    }
  }
  EXPECT_EQ(store.size(), CookieStore::kMaxCookies);
  EXPECT_EQ(store.cookieHeaderFor("https://h.test/", kNow), "") << "the oldest domain went first";
  store.clear();
  EXPECT_EQ(store.size(), 0u);
}

TEST(CookieStore, JarLinesAsLibcurlWroteThemLoadAndOnlyDatedLiveCookiesAreWritten) {
  CookieStore store;
  for (const char* line : {
           "# Netscape HTTP Cookie File",
           "# sync.example.com\tFALSE\t/\tTRUE\t4102444800\tcommented\tc",
           "",
           "sync.example.com\tnot enough fields",
           "sync.example.com\tFALSE\t/\tFALSE\tsoon\tbadexpiry\tx",
           "#HttpOnly_sync.example.com\tFALSE\t/\tTRUE\t4102444800\tfa_cid\th\r\n",
           ".example.org\tTRUE\t/\tFALSE\t4102444800\tdomain\td",
           "sync.example.com\tFALSE\t/\tTRUE\t0\tsession\ts",
           "sync.example.com\tFALSE\t/\tFALSE\t1000000000\texpired\tx",
       }) {
    store.addJarLine(line, kNow);
  }
  EXPECT_EQ(store.cookieHeaderFor("https://sync.example.com/sync", kNow), "fa_cid=h; session=s");
  EXPECT_EQ(store.cookieHeaderFor("https://a.b.example.org/", kNow), "domain=d");
  store.setFromHeader("https://127.0.0.1:8443/sync", "fa_did=d; Max-Age=100; Path=/sync", kNow);

  const std::vector<std::string> expected = {
      "#HttpOnly_sync.example.com\tFALSE\t/\tTRUE\t4102444800\tfa_cid\th",
      ".example.org\tTRUE\t/\tFALSE\t4102444800\tdomain\td",
      "127.0.0.1\tFALSE\t/sync\tFALSE\t1700000100\tfa_did\td",
  };
  EXPECT_EQ(store.jarLines(kNow), expected);
  EXPECT_EQ(store.jarLines(kNow + seconds(100)).size(), 2u) << "expired by then";

  CookieStore reloaded;
  for (const auto& line : expected) reloaded.addJarLine(line, kNow);
  EXPECT_EQ(reloaded.jarLines(kNow), expected);
  EXPECT_EQ(reloaded.cookiesFor("https://127.0.0.1/sync", kNow),
            store.cookiesFor("https://127.0.0.1/sync", kNow));
}

}  // namespace
}  // namespace zelvanor::network
