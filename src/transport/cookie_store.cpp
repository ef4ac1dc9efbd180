#include "transport/cookie_store.hpp"

#include <algorithm>
#include <charconv>
#include <limits>
#include <optional>
#include <utility>

#include "transport/http_date.hpp"

namespace zelvanor::network {
namespace {

constexpr std::size_t kMaxAttributeValue = 1024;
constexpr std::string_view kHttpOnlyPrefix = "#HttpOnly_";

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string lowered(std::string_view text) {
  std::string out(text);
  for (char& c : out) c = lower(c);
  return out;
}

bool sameText(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return lower(x) == lower(y); });
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// No control characters (tab included): the jar file separates its fields with tabs and its
// cookies with newlines, and a header value cannot carry them anyway.
bool printable(std::string_view text) {
  return std::none_of(text.begin(), text.end(), [](char c) {
    const auto u = static_cast<unsigned char>(c);
    return u < 0x20 || u == 0x7F;
  });
}

// Host names as the SDK's endpoints spell them (ASCII, already lower case), and IP addresses.
bool validHost(std::string_view host) {
  return !host.empty() && host.front() != '.' && std::all_of(host.begin(), host.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-' || c == '_' ||
           c == ':';
  });
}

// An IPv6 address (it has colons) or an IPv4 one (its last label is a number, which is how a
// browser tells an address from a name).
bool isIpAddress(std::string_view host) {
  if (host.find(':') != std::string_view::npos) return true;
  const std::string_view last = host.substr(host.rfind('.') + 1);
  return !last.empty() &&
         std::all_of(last.begin(), last.end(), [](char c) { return c >= '0' && c <= '9'; });
}

struct Url {
  bool secure = false;
  std::string host;       ///< lower case; an IPv6 address without its brackets
  std::string_view path;  ///< never empty; no query or fragment
};

std::optional<Url> parseUrl(std::string_view url) {
  const auto schemeEnd = url.find("://");
  if (schemeEnd == std::string_view::npos) return std::nullopt;
  Url parsed;
  const std::string_view scheme = url.substr(0, schemeEnd);
  if (sameText(scheme, "https")) {
    parsed.secure = true;
  } else if (!sameText(scheme, "http")) {
    return std::nullopt;
  }
  std::string_view rest = url.substr(schemeEnd + 3);
  const auto authorityEnd = rest.find_first_of("/?#");
  std::string_view authority = rest.substr(0, authorityEnd);
  std::string_view path = authorityEnd == std::string_view::npos ? "" : rest.substr(authorityEnd);
  path = path.substr(0, path.find_first_of("?#"));
  if (path.empty() || path.front() != '/') path = "/";
  if (!printable(path) || path.find(' ') != std::string_view::npos) return std::nullopt;
  parsed.path = path;

  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority.remove_prefix(at + 1);
  }
  std::string_view host, port;
  if (!authority.empty() && authority.front() == '[') {
    const auto close = authority.find(']');
    if (close == std::string_view::npos) return std::nullopt;
    host = authority.substr(1, close - 1);
    port = authority.substr(close + 1);
    if (host.find(':') == std::string_view::npos) return std::nullopt;
  } else {
    const auto colon = authority.find(':');
    host = authority.substr(0, colon);
    port = colon == std::string_view::npos ? "" : authority.substr(colon);
  }
  if (!port.empty() &&
      (port.front() != ':' ||
       !std::all_of(port.begin() + 1, port.end(), [](char c) { return c >= '0' && c <= '9'; }))) {
    return std::nullopt;
  }
  parsed.host = lowered(host);
  if (!validHost(parsed.host)) return std::nullopt;
  return parsed;
}

bool domainMatches(std::string_view host, const StoredCookie& cookie) {
  if (host == cookie.domain) return true;
  if (cookie.hostOnly || isIpAddress(host) || isIpAddress(cookie.domain)) return false;
  return host.size() > cookie.domain.size() && host.ends_with(cookie.domain) &&
         host[host.size() - cookie.domain.size() - 1] == '.';
}

bool pathMatches(std::string_view requestPath, std::string_view cookiePath) {
  if (!requestPath.starts_with(cookiePath)) return false;
  return requestPath.size() == cookiePath.size() || cookiePath.back() == '/' ||
         requestPath[cookiePath.size()] == '/';
}

// The directory of the request's path: where a cookie without a Path attribute applies.
std::string_view defaultPath(std::string_view requestPath) {
  const auto slash = requestPath.rfind('/');
  if (slash == 0 || slash == std::string_view::npos) return "/";
  return requestPath.substr(0, slash);
}

// A Max-Age: an optional minus and digits. Zero or less expires the cookie at once.
std::optional<std::int64_t> maxAgeExpiry(std::string_view text, std::int64_t now) {
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) text.remove_prefix(1);
  if (text.empty() ||
      !std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return std::nullopt;
  }
  std::int64_t seconds = 0;
  for (const char c : text) {
    if (seconds <= kLatestHttpDate) seconds = seconds * 10 + (c - '0');
  }
  if (negative || seconds == 0) return std::numeric_limits<std::int64_t>::min();
  return std::min(now + std::min(seconds, kLatestHttpDate), kLatestHttpDate);
}

bool expired(const StoredCookie& cookie, std::int64_t now) {
  return cookie.persistent && cookie.expires <= now;
}

}  // namespace

void CookieStore::setFromHeader(std::string_view requestUrl, std::string_view setCookieValue,
                                TimePoint now) {
  const std::optional<Url> url = parseUrl(requestUrl);
  if (!url) return;
  const std::int64_t nowSeconds = unixSeconds(now);
  const auto semicolon = setCookieValue.find(';');
  const std::string_view pair = setCookieValue.substr(0, semicolon);
  std::string_view attributes =
      semicolon == std::string_view::npos ? "" : setCookieValue.substr(semicolon + 1);
  const auto equals = pair.find('=');
  if (equals == std::string_view::npos) return;
  StoredCookie cookie;
  const std::string_view name = trimmed(pair.substr(0, equals));
  const std::string_view value = trimmed(pair.substr(equals + 1));
  if (name.empty() || name.size() + value.size() > kMaxNameAndValue) return;
  if (!printable(name) || !printable(value)) return;
  cookie.name = name;
  cookie.value = value;

  // The last of each attribute counts; Max-Age wins over Expires wherever they stand.
  std::optional<std::int64_t> expires, maxAge;
  std::optional<std::string> domain;
  std::string_view path;
  while (!attributes.empty()) {
    const auto next = attributes.find(';');
    const std::string_view attribute = attributes.substr(0, next);
    attributes = next == std::string_view::npos ? "" : attributes.substr(next + 1);
    const auto sign = attribute.find('=');
    const std::string_view key = trimmed(attribute.substr(0, sign));
    const std::string_view text =
        sign == std::string_view::npos ? "" : trimmed(attribute.substr(sign + 1));
    if (text.size() > kMaxAttributeValue) continue;
    if (sameText(key, "expires")) {
      if (const auto date = parseHttpDateSeconds(text)) expires = date;
    } else if (sameText(key, "max-age")) {
      if (const auto expiry = maxAgeExpiry(text, nowSeconds)) maxAge = expiry;
    } else if (sameText(key, "domain")) {
      std::string_view bare = text;
      if (!bare.empty() && bare.front() == '.') bare.remove_prefix(1);
      if (!bare.empty()) domain = lowered(bare);
    } else if (sameText(key, "path")) {
      path = !text.empty() && text.front() == '/' ? text : std::string_view();
    } else if (sameText(key, "secure")) {
      cookie.secure = true;
    } else if (sameText(key, "httponly")) {
      cookie.httpOnly = true;
    }
  }
  if (maxAge || expires) {
    cookie.persistent = true;
    cookie.expires = maxAge ? *maxAge : *expires;
  }

  cookie.domain = url->host;
  if (domain && *domain != url->host) {
    // Another host may be named only as a parent domain of a name, and never a bare top-level
    // one (without a public-suffix list, "com" is the case that can be told).
    if (isIpAddress(url->host) || domain->find('.') == std::string::npos) return;
    cookie.domain = *domain;
    cookie.hostOnly = false;
    if (!domainMatches(url->host, cookie)) return;
  } else if (domain && !isIpAddress(url->host) && domain->find('.') != std::string::npos) {
    cookie.hostOnly = false;  // Domain naming the host itself reaches its subdomains too
  }
  cookie.path = path.empty() ? defaultPath(url->path) : path;
  if (!printable(cookie.path)) return;
  // Only a secure origin may set a Secure cookie.
  if (cookie.secure && !url->secure) return;
  store(std::move(cookie), nowSeconds);
}

void CookieStore::store(StoredCookie cookie, std::int64_t now) {
  const auto same = std::find_if(cookies_.begin(), cookies_.end(), [&](const Entry& entry) {
    return entry.cookie.name == cookie.name && entry.cookie.domain == cookie.domain &&
           entry.cookie.path == cookie.path;
  });
  const bool gone = expired(cookie, now);
  if (same != cookies_.end()) {
    if (gone) {
      cookies_.erase(same);
    } else {
      same->cookie = std::move(cookie);  // in the old one's place: it keeps its sending order
      same->touched = ++clock_;
    }
    return;
  }
  if (gone) return;
  const std::string domain = cookie.domain;
  cookies_.push_back(Entry{std::move(cookie), ++clock_});

  const auto inDomain = [&](const Entry& entry) { return entry.cookie.domain == domain; };
  if (cookies_.size() <= kMaxCookies &&
      static_cast<std::size_t>(std::count_if(cookies_.begin(), cookies_.end(), inDomain)) <=
          kMaxPerDomain) {
    return;
  }
  // Over a bound: the expired go first, then the least recently set.
  std::erase_if(cookies_, [&](const Entry& entry) { return expired(entry.cookie, now); });
  const auto dropOldest = [&](auto&& among) {
    auto oldest = cookies_.end();
    for (auto it = cookies_.begin(); it != cookies_.end(); ++it) {
      if (among(*it) && (oldest == cookies_.end() || it->touched < oldest->touched)) oldest = it;
    }
    if (oldest != cookies_.end()) cookies_.erase(oldest);
  };
  while (static_cast<std::size_t>(std::count_if(cookies_.begin(), cookies_.end(), inDomain)) >
         kMaxPerDomain) {
    dropOldest(inDomain);
  }
  while (cookies_.size() > kMaxCookies) dropOldest([](const Entry&) { return true; });
}

std::vector<StoredCookie> CookieStore::cookiesFor(std::string_view url, TimePoint now) const {
  std::vector<StoredCookie> found = cookiesInStoreOrder(url, now);
  std::stable_sort(found.begin(), found.end(), [](const StoredCookie& a, const StoredCookie& b) {
    return a.path.size() > b.path.size();
  });
  return found;
}

std::vector<StoredCookie> CookieStore::cookiesInStoreOrder(std::string_view url,
                                                           TimePoint now) const {
  std::vector<StoredCookie> found;
  const std::optional<Url> target = parseUrl(url);
  if (!target) return found;
  const std::int64_t nowSeconds = unixSeconds(now);
  for (const Entry& entry : cookies_) {
    const StoredCookie& cookie = entry.cookie;
    if (expired(cookie, nowSeconds) || !domainMatches(target->host, cookie) ||
        !pathMatches(target->path, cookie.path) || (cookie.secure && !target->secure)) {
      continue;
    }
    found.push_back(cookie);
  }
  return found;
}

std::string CookieStore::cookieHeaderFor(std::string_view url, TimePoint now) const {
  std::string header;
  for (const StoredCookie& cookie : cookiesFor(url, now)) {
    if (!header.empty()) header += "; ";
    header += cookie.name + "=" + cookie.value;
  }
  return header;
}

std::vector<std::string> CookieStore::jarLines(TimePoint now) const {
  std::vector<std::string> lines;
  const std::int64_t nowSeconds = unixSeconds(now);
  for (const Entry& entry : cookies_) {
    const StoredCookie& cookie = entry.cookie;
    if (!cookie.persistent || expired(cookie, nowSeconds)) continue;
    // As libcurl writes them: a domain cookie's domain with a leading dot.
    std::string line(cookie.httpOnly ? kHttpOnlyPrefix : "");
    line += cookie.hostOnly ? "" : ".";
    line += cookie.domain;
    line += cookie.hostOnly ? "\tFALSE\t" : "\tTRUE\t";
    line += cookie.path;
    line += cookie.secure ? "\tTRUE\t" : "\tFALSE\t";
    line += std::to_string(cookie.expires);
    line += "\t" + cookie.name + "\t" + cookie.value;
    lines.push_back(std::move(line));
  }
  return lines;
}

void CookieStore::addJarLine(std::string_view line, TimePoint now) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  StoredCookie cookie;
  if (line.starts_with(kHttpOnlyPrefix)) {
    cookie.httpOnly = true;
    line.remove_prefix(kHttpOnlyPrefix.size());
  } else if (line.empty() || line.front() == '#') {
    return;
  }
  std::string_view fields[7];
  for (std::size_t i = 0; i < 6; ++i) {
    const auto tab = line.find('\t');
    if (tab == std::string_view::npos) return;
    fields[i] = line.substr(0, tab);
    line.remove_prefix(tab + 1);
  }
  fields[6] = line;

  std::string_view domain = fields[0];
  if (!domain.empty() && domain.front() == '.') domain.remove_prefix(1);
  cookie.domain = lowered(domain);
  cookie.hostOnly = !sameText(fields[1], "TRUE");
  cookie.path = fields[2].empty() || fields[2].front() != '/' ? "/" : fields[2];
  cookie.secure = sameText(fields[3], "TRUE");
  std::int64_t expires = 0;
  const auto [end, error] =
      std::from_chars(fields[4].data(), fields[4].data() + fields[4].size(), expires);
  if (error != std::errc() || end != fields[4].data() + fields[4].size()) return;
  // Expiry 0 is how the format writes a session cookie.
  cookie.persistent = expires != 0;
  cookie.expires = std::min(expires, kLatestHttpDate);
  cookie.name = fields[5];
  cookie.value = fields[6];
  if (!validHost(cookie.domain) || cookie.name.empty() || !printable(cookie.name) ||
      !printable(cookie.value) || !printable(cookie.path) ||
      cookie.name.size() + cookie.value.size() > kMaxNameAndValue) {
    return;
  }
  store(std::move(cookie), unixSeconds(now));
}

}  // namespace zelvanor::network
