// The cookie jar on its own, for what the client's tests against a real server do not reach:
// matching at the edges (path and domain boundaries, scheme, expiry), the jar file's special
// lines, and which response headers make the jar worth saving.
#include "network/cookie_jar.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "support/temp_dir.hpp"

namespace zelvanor::network {
namespace {

struct CookieJarTest : ::testing::Test {
  void SetUp() override {
    ASSERT_EQ(curl_global_init(CURL_GLOBAL_DEFAULT), CURLE_OK);
    ASSERT_TRUE(share);
    curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  }
  void TearDown() override { curl_global_cleanup(); }

  std::filesystem::path jarFile() const { return dir.path() / "cookies.txt"; }
  void writeJar(const std::string& content) const { std::ofstream(jarFile()) << content; }
  std::string readJar() const {
    std::ifstream in(jarFile());
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
  /// What the jar offers `url`, as "name=value" joined by ";".
  static std::string offered(CookieJar& jar, const std::string& url) {
    std::string out;
    for (const auto& cookie : jar.cookiesFor(url)) {
      if (!out.empty()) out += ";";
      out += cookie.name + "=" + cookie.value;
    }
    return out;
  }

  testing::TempDir dir;
  std::unique_ptr<CURLSH, decltype(&curl_share_cleanup)> share{curl_share_init(),
                                                               &curl_share_cleanup};
};

TEST_F(CookieJarTest, MatchingStopsAtPathAndDomainBoundariesTheSchemeAndExpiry) {
  writeJar(
      "# Netscape HTTP Cookie File\n"
      "sync.example.com\tFALSE\t/only\tFALSE\t4102444800\tscoped\ts\n"
      "sync.example.com\tFALSE\t/\tTRUE\t4102444800\tsecure\tt\n"
      "sync.example.com\tFALSE\t/\tFALSE\t1000000000\texpired\tx\n"
      ".example.org\tTRUE\t/\tFALSE\t4102444800\tdomain\td\n");
  CookieJar jar(share.get(), jarFile());
  jar.load();
  EXPECT_EQ(offered(jar, "https://sync.example.com/only"), "scoped=s;secure=t");
  EXPECT_EQ(offered(jar, "https://sync.example.com/only/x?v=1"), "scoped=s;secure=t");
  EXPECT_EQ(offered(jar, "https://sync.example.com/onlyx"), "secure=t") << "no path boundary";
  EXPECT_EQ(offered(jar, "http://sync.example.com/only"), "scoped=s") << "secure: https only";
  EXPECT_EQ(offered(jar, "https://a.b.example.org/"), "domain=d");
  EXPECT_EQ(offered(jar, "https://example.org/"), "domain=d");
  EXPECT_EQ(offered(jar, "https://badexample.org/"), "") << "no label boundary";
  EXPECT_EQ(offered(jar, "not a url"), "");
}

TEST_F(CookieJarTest, HttpOnlyLinesSurviveALoadAndSaveAndCommentsAndDebrisAreIgnored) {
  writeJar(
      "# Netscape HTTP Cookie File\n"
      "# sync.example.com\tFALSE\t/\tTRUE\t4102444800\tcommented\tc\n"
      "\n"
      "sync.example.com\tnot enough fields\n"
      "#HttpOnly_sync.example.com\tFALSE\t/\tTRUE\t4102444800\tfa_cid\th\n"
      "sync.example.com\tFALSE\t/\tTRUE\t0\tsession\ts\n");
  {
    CookieJar jar(share.get(), jarFile());
    jar.load();
    EXPECT_EQ(offered(jar, "https://sync.example.com/sync"), "fa_cid=h;session=s");
    jar.save();
  }
  const std::string saved = readJar();
  EXPECT_NE(saved.find("#HttpOnly_sync.example.com\tFALSE\t/\tTRUE\t4102444800\tfa_cid\th"),
            std::string::npos)
      << saved;
  EXPECT_EQ(saved.find("session"), std::string::npos) << "a session cookie ends with the app";
  EXPECT_EQ(saved.find("commented"), std::string::npos);

  // A fresh engine from the saved file offers the HttpOnly cookie again.
  std::unique_ptr<CURLSH, decltype(&curl_share_cleanup)> fresh{curl_share_init(),
                                                               &curl_share_cleanup};
  curl_share_setopt(fresh.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
  CookieJar again(fresh.get(), jarFile());
  again.load();
  EXPECT_EQ(offered(again, "https://sync.example.com/sync"), "fa_cid=h");
}

TEST_F(CookieJarTest, AJarWithoutAFileNeverWritesOne) {
  CookieJar jar(share.get(), {});
  jar.load();
  jar.save();
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

TEST_F(CookieJarTest, OnlySetCookieHeadersInAnyCaseMakeTheJarWorthSaving) {
  EXPECT_TRUE(CookieJar::setsCookie("Set-Cookie: fa_cid=c1; Path=/\r\n"));
  EXPECT_TRUE(CookieJar::setsCookie("SET-COOKIE:fa_cid=c1\r\n"));
  EXPECT_TRUE(CookieJar::setsCookie("set-cookie:"));
  EXPECT_FALSE(CookieJar::setsCookie("Set-Cookie2: a=b\r\n"));
  EXPECT_FALSE(CookieJar::setsCookie("X-Set-Cookie: a=b\r\n"));
  EXPECT_FALSE(CookieJar::setsCookie("Set-Cookie"));
  EXPECT_FALSE(CookieJar::setsCookie("HTTP/1.1 200 OK\r\n"));
  EXPECT_FALSE(CookieJar::setsCookie(""));
}

}  // namespace
}  // namespace zelvanor::network
