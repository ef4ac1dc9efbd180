#include "transport/cookie_jar.hpp"

#include <chrono>
#include <utility>

#include "platform/file_ops.hpp"

namespace zelvanor::network {

CookieJar::CookieJar(std::filesystem::path file) : file_(std::move(file)) {}

void CookieJar::load() {
  if (file_.empty()) return;
  const auto content = platform::readWhole(file_);
  if (!content) return;
  const auto now = std::chrono::system_clock::now();
  std::string_view rest = *content;
  const std::lock_guard lock(mutex_);
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    store_.addJarLine(line, now);
  }
}

void CookieJar::save() {
  if (file_.empty()) return;
  const std::lock_guard lock(mutex_);
  const std::vector<std::string> lines = store_.jarLines(std::chrono::system_clock::now());
  // No cookie, no file: after a deletion of the app's data nothing says there ever was one.
  if (lines.empty()) {
    (void)platform::removeFile(file_);
    return;
  }
  std::string content = "# Netscape HTTP Cookie File\n";
  for (const auto& line : lines) content.append(line).push_back('\n');
  platform::writeWholePrivateAtomically(file_, content);
}

void CookieJar::clear() {
  const std::lock_guard lock(mutex_);
  store_.clear();
  if (!file_.empty()) (void)platform::removeFile(file_);
}

std::vector<Cookie> CookieJar::cookiesFor(std::string_view url) {
  std::vector<Cookie> cookies;
  const std::lock_guard lock(mutex_);
  for (auto& cookie : store_.cookiesInStoreOrder(url, std::chrono::system_clock::now())) {
    cookies.push_back(Cookie{std::move(cookie.name), std::move(cookie.value)});
  }
  return cookies;
}

std::string CookieJar::headerFor(std::string_view url) {
  const std::lock_guard lock(mutex_);
  return store_.cookieHeaderFor(url, std::chrono::system_clock::now());
}

bool CookieJar::take(std::string_view url, const std::vector<std::string_view>& setCookies) {
  if (setCookies.empty()) return false;
  const auto now = std::chrono::system_clock::now();
  const std::lock_guard lock(mutex_);
  for (const auto value : setCookies) store_.setFromHeader(url, value, now);
  return true;
}

}  // namespace zelvanor::network
