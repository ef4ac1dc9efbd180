// The cookie jar's file: what a jar written by earlier builds holds (libcurl's lines) loads, and
// only what should last is written back. Matching is the cookie store's test.
#include "transport/cookie_jar.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "support/temp_dir.hpp"

namespace zelvanor::network {
namespace {

/// What the jar offers `url`, as "name=value" joined by ";".
std::string offered(CookieJar& jar, const std::string& url) {
  std::string out;
  for (const auto& cookie : jar.cookiesFor(url)) {
    out += (out.empty() ? "" : ";") + cookie.name + "=" + cookie.value;
  }
  return out;
}

TEST(CookieJarTest, EarlierBuildsLinesLoadAndOnlyDatedCookiesAreSaved) {
  testing::TempDir dir;
  const auto file = dir.path() / "cookies.txt";
  // As earlier builds filed them: HttpOnly marks, an IPv6 literal without brackets, a host as it
  // was spelled, a line ended by CRLF, comments and debris.
  std::filesystem::copy_file(std::string(ZELVANOR_TEST_DATA_DIR) + "/http/cookies.txt", file);
  const std::string dated = "127.0.0.1\tFALSE\t/sync\tFALSE\t4102444800\tfa_did\td\n";
  {
    CookieJar jar(file);
    jar.load();
    EXPECT_EQ(offered(jar, "https://sync.example.com/sync"), "fa_cid=h;session=s");
    EXPECT_EQ(offered(jar, "https://[::1]:8443/sync?v=1"), "fa_cid=v6");
    EXPECT_EQ(offered(jar, "https://other.example.com/sync?v=1"), "fa_cid=named");
    EXPECT_EQ(offered(jar, "https://SYNC.example.org/sync?v=1"), "domain=d");
    EXPECT_EQ(offered(jar, "https://[::2]/sync?v=1"), "");
    EXPECT_TRUE(jar.take(
        "https://127.0.0.1:8443/sync",
        {"fa_did=d; Expires=Fri, 01 Jan 2100 00:00:00 GMT; Path=/sync", "gone=x; Max-Age=0"}));
    jar.save();
  }
  const auto saved = [&] {  // closed at once: Windows refuses to remove an open file
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  };
  const std::string expected =
      "# Netscape HTTP Cookie File\n"
      "#HttpOnly_sync.example.com\tFALSE\t/\tTRUE\t4102444800\tfa_cid\th\n"
      "::1\tFALSE\t/\tTRUE\t4102444800\tfa_cid\tv6\n"
      "other.example.com\tFALSE\t/\tTRUE\t4102444800\tfa_cid\tnamed\n"
      ".example.org\tTRUE\t/\tFALSE\t4102444800\tdomain\td\n" +
      dated;
  EXPECT_EQ(saved(), expected) << "no session, expired or commented cookie";
  // A fresh jar from the saved file offers the HttpOnly cookie and the path's again, and writes
  // the same file back.
  {
    CookieJar again(file);
    again.load();
    EXPECT_EQ(offered(again, "https://sync.example.com/sync"), "fa_cid=h");
    EXPECT_EQ(offered(again, "https://127.0.0.1/sync/x"), "fa_did=d");
    again.save();
  }
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
