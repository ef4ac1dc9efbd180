// The SDK's one cookie store: libcurl's cookie engine, which every transfer shares through the
// client's share handle (it parses Set-Cookie and sends the matching cookies), kept across starts
// in a Netscape-format jar file. Only dated cookies are written back: session cookies end with the
// app, as a browser's do.
#pragma once

#include <curl/curl.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace zelvanor::network {

struct Cookie {
  std::string name;
  std::string value;
};

class CookieJar {
 public:
  /// `share` carries the cookie engine (CURL_LOCK_DATA_COOKIE) and outlives the jar. `file`
  /// empty: cookies live in the engine's memory only.
  CookieJar(CURLSH* share, std::filesystem::path file);

  /// Adds the jar file's cookies to the engine. A missing or unreadable file adds none.
  void load();
  /// Replaces the jar file with the engine's dated cookies (0600, atomically).
  void save();
  /// Empties the engine and removes the jar file. A save racing with it cannot bring the file
  /// back with the cookies it read before.
  void clear();
  /// The cookies the engine would send to `url` (domain, path, secure and expiry matched), in
  /// engine order. Any thread: the share handle's locks guard the engine.
  std::vector<Cookie> cookiesFor(const std::string& url);

  /// Whether a response header line sets a cookie, so that the jar is worth saving after it.
  static bool setsCookie(std::string_view headerLine);

 private:
  /// The engine's cookies, one Netscape jar line each.
  std::vector<std::string> lines();

  CURLSH* const share_;
  const std::filesystem::path file_;
  std::mutex fileMutex_;  ///< a save and a clear take turns
};

}  // namespace zelvanor::network
