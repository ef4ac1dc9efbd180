#include "network/cookie_jar.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <ctime>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include "platform/file_ops.hpp"

namespace zelvanor::network {
namespace {

// Splits "https://host:port/path?q" into host and path for cookie matching.
bool splitUrl(const std::string& url, std::string& host, std::string& path, bool& secure) {
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK)
    return false;
  char* part = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_HOST, &part, 0) != CURLUE_OK) return false;
  host = part;
  curl_free(part);
  if (curl_url_get(handle.get(), CURLUPART_PATH, &part, 0) == CURLUE_OK) {
    path = part;
    curl_free(part);
  } else {
    path.assign(1, '/');  // not `= "/"`: GCC 12 at -O3 misreports that as an overlapping copy
  }
  if (curl_url_get(handle.get(), CURLUPART_SCHEME, &part, 0) == CURLUE_OK) {
    secure = std::string_view(part) == "https";
    curl_free(part);
  }
  // The cookie engine files an IPv6 literal's cookies under the bare address.
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return true;
}

// Host names compare without regard to case; the engine keeps a domain as the server spelled it.
bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool domainMatches(std::string_view host, std::string_view domain, bool tailMatch) {
  if (!domain.empty() && domain.front() == '.') domain.remove_prefix(1);
  if (sameText(host, domain)) return true;
  if (!tailMatch || host.size() <= domain.size()) return false;
  return sameText(host.substr(host.size() - domain.size()), domain) &&
         host[host.size() - domain.size() - 1] == '.';
}

/// One cookie as the engine lists it: the Netscape jar format's seven tab-separated fields.
struct JarLine {
  std::string_view domain;
  bool tailMatch = false;
  std::string_view path;
  bool secure = false;
  long long expires = 0;  ///< 0: a session cookie
  std::string_view name;
  std::string_view value;
};

std::optional<JarLine> parseJarLine(std::string_view line) {
  std::array<std::string_view, 7> fields;
  for (std::size_t i = 0; i < fields.size() - 1; ++i) {
    const auto tab = line.find('\t');
    if (tab == std::string_view::npos) return std::nullopt;
    fields[i] = line.substr(0, tab);
    line.remove_prefix(tab + 1);
  }
  fields.back() = line;
  JarLine cookie;
  cookie.domain = fields[0];
  if (cookie.domain.starts_with("#HttpOnly_")) cookie.domain.remove_prefix(10);
  cookie.tailMatch = fields[1] == "TRUE";
  cookie.path = fields[2];
  cookie.secure = fields[3] == "TRUE";
  std::from_chars(fields[4].data(), fields[4].data() + fields[4].size(), cookie.expires);
  cookie.name = fields[5];
  cookie.value = fields[6];
  return cookie;
}

bool pathMatches(std::string_view requestPath, std::string_view cookiePath) {
  if (cookiePath.empty() || cookiePath == "/") return true;
  if (requestPath.rfind(cookiePath, 0) != 0) return false;
  return requestPath.size() == cookiePath.size() || cookiePath.back() == '/' ||
         requestPath[cookiePath.size()] == '/';
}

// A throwaway handle on the shared cookie engine, for reading or adding cookies off the network
// thread.
template <class F>
void withCookieHandle(CURLSH* share, F&& use) {
  CURL* easy = curl_easy_init();
  if (!easy) return;
  // The share handle carries the cookie engine; a file list here would only leak.
  curl_easy_setopt(easy, CURLOPT_SHARE, share);
  std::forward<F>(use)(easy);
  curl_easy_cleanup(easy);
}

}  // namespace

CookieJar::CookieJar(CURLSH* share, std::filesystem::path file)
    : share_(share), file_(std::move(file)) {}

void CookieJar::load() {
  if (file_.empty()) return;
  auto content = platform::readWhole(file_);
  if (!content) return;
  withCookieHandle(share_, [&](CURL* easy) {
    std::istringstream lines(*content);
    std::string line;
    while (std::getline(lines, line)) {
      if (line.empty() || (line[0] == '#' && line.rfind("#HttpOnly_", 0) != 0)) continue;
      curl_easy_setopt(easy, CURLOPT_COOKIELIST, line.c_str());
    }
  });
}

std::vector<std::string> CookieJar::lines() {
  std::vector<std::string> lines;
  withCookieHandle(share_, [&](CURL* easy) {
    curl_slist* list = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_COOKIELIST, &list) != CURLE_OK) return;
    for (curl_slist* item = list; item; item = item->next) lines.emplace_back(item->data);
    curl_slist_free_all(list);
  });
  return lines;
}

void CookieJar::save() {
  if (file_.empty()) return;
  const std::lock_guard lock(fileMutex_);
  std::string content = "# Netscape HTTP Cookie File\n";
  bool any = false;
  for (const auto& line : lines()) {
    const std::optional<JarLine> cookie = parseJarLine(line);
    if (cookie && cookie->expires == 0) continue;
    content += line + "\n";
    any = true;
  }
  // No cookie, no file: after a deletion of the app's data nothing says there ever was one.
  if (!any) {
    (void)platform::removeFile(file_);
    return;
  }
  platform::writeWholePrivateAtomically(file_, content);
}

void CookieJar::clear() {
  const std::lock_guard lock(fileMutex_);
  withCookieHandle(share_, [](CURL* easy) { curl_easy_setopt(easy, CURLOPT_COOKIELIST, "ALL"); });
  if (!file_.empty()) (void)platform::removeFile(file_);
}

std::vector<Cookie> CookieJar::cookiesFor(const std::string& url) {
  std::string host, path;
  bool secure = false;
  std::vector<Cookie> cookies;
  if (!splitUrl(url, host, path, secure)) return cookies;
  const auto now = static_cast<long long>(std::time(nullptr));
  for (const auto& line : lines()) {
    const std::optional<JarLine> cookie = parseJarLine(line);
    if (!cookie) continue;
    if (!domainMatches(host, cookie->domain, cookie->tailMatch)) continue;
    if (!pathMatches(path, cookie->path)) continue;
    if (cookie->secure && !secure) continue;
    if (cookie->expires != 0 && cookie->expires < now) continue;
    cookies.push_back(Cookie{std::string(cookie->name), std::string(cookie->value)});
  }
  return cookies;
}

bool CookieJar::setsCookie(std::string_view headerLine) {
  constexpr std::string_view kSetCookie = "set-cookie:";
  return headerLine.size() >= kSetCookie.size() &&
         sameText(headerLine.substr(0, kSetCookie.size()), kSetCookie);
}

}  // namespace zelvanor::network
