// The SDK's cookie store: what a browser keeps from Set-Cookie headers and sends back, with
// nothing from libcurl, so that every transport shares one store and one jar file. Domain, path,
// Secure and expiry are matched as browsers match them; Max-Age wins over Expires; a cookie that
// comes back keeps its place in the sending order; a cookie that has expired removes the one it
// names. The store is bounded so that no server can make it grow without end.
//
// It persists as the Netscape cookie-jar lines that libcurl writes, so the jar files written
// when libcurl kept the cookies still load.
//
// Not thread-safe: its owner locks around it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zelvanor::network {

struct StoredCookie {
  std::string name;
  std::string value;
  std::string domain;  ///< lower case, no leading dot; an IPv6 address without brackets
  std::string path;
  bool hostOnly = true;  ///< sent to `domain` only, not to its subdomains
  bool secure = false;   ///< sent over https only
  bool httpOnly = false;
  bool persistent = false;   ///< dated: kept in the jar file; else it ends with the app
  std::int64_t expires = 0;  ///< seconds since 1970, when persistent

  bool operator==(const StoredCookie&) const = default;
};

class CookieStore {
 public:
  using TimePoint = std::chrono::system_clock::time_point;

  static constexpr std::size_t kMaxPerDomain = 50;
  static constexpr std::size_t kMaxCookies = 3000;
  /// A cookie whose name and value are longer together is ignored.
  static constexpr std::size_t kMaxNameAndValue = 4096;

  /// Takes one Set-Cookie header's value from the answer to `requestUrl`. One the URL may not
  /// set (another domain, Secure over http, malformed, oversized) is ignored.
  void setFromHeader(std::string_view requestUrl, std::string_view setCookieValue, TimePoint now);

  /// The cookies to send to `url`, longer paths first, then the oldest first.
  std::vector<StoredCookie> cookiesFor(std::string_view url, TimePoint now) const;
  /// The same cookies in the order they were first set (where a cookie is looked up by name,
  /// the first of that name wins).
  std::vector<StoredCookie> cookiesInStoreOrder(std::string_view url, TimePoint now) const;
  /// The same as a Cookie header's value, "a=1; b=2"; empty when there are none.
  std::string cookieHeaderFor(std::string_view url, TimePoint now) const;

  /// The persistent cookies that have not expired, one Netscape jar line each (no newline),
  /// oldest first. Session cookies are left out: they end with the app.
  std::vector<std::string> jarLines(TimePoint now) const;
  /// Adds the cookie of one jar line. Comments, blank and malformed lines, and expired
  /// cookies, add nothing; a line with expiry 0 is a session cookie.
  void addJarLine(std::string_view line, TimePoint now);

  void clear() noexcept { cookies_.clear(); }
  std::size_t size() const noexcept { return cookies_.size(); }

 private:
  struct Entry {
    StoredCookie cookie;
    std::uint64_t touched = 0;  ///< when it was last set: the least recently set go first
  };

  void store(StoredCookie cookie, std::int64_t now);

  std::vector<Entry> cookies_;  ///< in creation order
  std::uint64_t clock_ = 0;
};

}  // namespace zelvanor::network
