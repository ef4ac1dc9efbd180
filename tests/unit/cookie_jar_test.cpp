// The cookie jar's file: what a jar written by earlier builds holds (libcurl's lines) loads, and
// only what should last is written back. Matching is the cookie store's test.
#include "transport/cookie_jar.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/data_table.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor::network {
namespace {

/// What the jar offers `url`, as "name=value" joined by ";".
std::string offered(CookieJar& jar, const std::string& url) {
  std::string out;
  for (const auto& cookie : jar.cookiesFor(url))
    out += (out.empty() ? "" : ";") + cookie.name + "=" + cookie.value;
  return out;
}

TEST(CookieJarTest, EarlierBuildsLinesLoadAndOnlyDatedCookiesAreSaved) {
  testing::TempDir dir;
  const auto file = dir.path() / "cookies.txt";
  // As earlier builds filed them: HttpOnly marks, an IPv6 literal without brackets, a host as it
  // was spelled, a line ended by CRLF, comments and debris.
  std::filesystem::copy_file(std::string(ZELVANOR_TEST_DATA_DIR) + "/http/cookies.txt", file);
  // What the jar offers once loaded, and once loaded again from what it saved: the session cookie
  // is gone, the HttpOnly one and the path's (taken in between) are there.
  const struct {
    const char* url;
    const char* loaded;
    const char* reloaded;
  } offers[] = {
      {"https://sync.example.com/sync", "fa_cid=h;session=s", "fa_cid=h"},
      {"https://[::1]:8443/sync?v=1", "fa_cid=v6", "fa_cid=v6"},
      {"https://other.example.com/sync?v=1", "fa_cid=named", "fa_cid=named"},
      {"https://SYNC.example.org/sync?v=1", "domain=d", "domain=d"},
      {"https://[::2]/sync?v=1", "", ""},
      {"https://127.0.0.1/sync/x", "", "fa_did=d"},
  };
  const auto saved = [&] {  // closed at once: Windows refuses to remove an open file
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  };
  CookieJar jar(file);
  jar.load();
  for (const auto& row : offers) EXPECT_EQ(offered(jar, row.url), row.loaded) << row.url;
  EXPECT_TRUE(jar.take(
      "https://127.0.0.1:8443/sync",
      {"fa_did=d; Expires=Fri, 01 Jan 2100 00:00:00 GMT; Path=/sync", "gone=x; Max-Age=0"}));
  jar.save();
  const std::string expected = testing::dataText("http/cookies_saved.txt");
  EXPECT_EQ(saved(), expected) << "no session, expired or commented cookie";
  // A fresh jar from the saved file writes the same file back.
  CookieJar again(file);
  again.load();
  for (const auto& row : offers) EXPECT_EQ(offered(again, row.url), row.reloaded) << row.url;
  again.save();
  EXPECT_EQ(saved(), expected);

  // A jar without a file never writes one.
  std::filesystem::remove(file);
  CookieJar none({});
  none.load();
  none.save();
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
}  // namespace zelvanor::network
