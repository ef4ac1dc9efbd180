// The SDK's one cookie store, whatever HTTP client carries the requests: it sends the matching
// cookies with each request and takes the Set-Cookie headers of each answer. Kept across starts
// in a Netscape-format jar file; only dated cookies are written back: session cookies end with
// the app, as a browser's do.
#pragma once

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "transport/cookie_store.hpp"

namespace zelvanor::network {

struct Cookie {
  std::string name;
  std::string value;
};

class CookieJar {
 public:
  /// `file` empty: cookies live in memory only.
  explicit CookieJar(std::filesystem::path file);

  /// Adds the jar file's cookies. A missing or unreadable file adds none.
  void load();
  /// Replaces the jar file with the dated cookies (0600, atomically).
  void save();
  /// Forgets every cookie and removes the jar file. A save racing with it cannot bring the file
  /// back with the cookies it read before.
  void clear();
  /// The cookies kept for `url` (domain, path, secure and expiry matched), in store order.
  std::vector<Cookie> cookiesFor(std::string_view url);
  /// The Cookie header's value for `url`; empty when no cookie matches.
  std::string headerFor(std::string_view url);
  /// Takes an answer's Set-Cookie values; true when there were any.
  bool take(std::string_view url, const std::vector<std::string_view>& setCookies);

 private:
  const std::filesystem::path file_;
  std::mutex mutex_;  ///< guards store_; a save and a clear take turns
  CookieStore store_;
};

}  // namespace zelvanor::network
