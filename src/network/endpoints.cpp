#include "network/endpoints.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>
#include <mutex>

#include "transport/system_http_client.hpp"

namespace zelvanor::detail {

namespace {

constexpr std::string_view kTrackPath = "/sdk/track";
constexpr std::string_view kSyncPath = "/sync?v=1";

std::optional<RequestUrls> joinRequestUrls(const ZEndpoints& endpoints);

struct InForce {
  ZEndpoints endpoints;
  std::shared_ptr<const RequestUrls> urls;
};

std::mutex endpointsMutex;

InForce& inForceLocked() {
  static InForce inForce = [] {
    // The SDK's own collection and identity sync servers.
    ZEndpoints endpoints{
        .production = "https://collect.zelvanor.io",
        .sandbox = "https://sandbox-collect.zelvanor.io",
        .identitySync = "https://sync.zelvanor.io",
        .caBundleFile = std::nullopt,
    };
    auto urls = std::make_shared<const RequestUrls>(joinRequestUrls(endpoints).value());
    return InForce{std::move(endpoints), std::move(urls)};
  }();
  return inForce;
}

bool isHttpsUrl(const std::string& url) {
  const auto parts = network::readUrl(url);
  return parts && parts->scheme == "https" && !parts->host.empty();
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// Headers the SDK or libcurl sets for the request to mean what it means: a host's value would
// change the body's framing, the identity cookies or the proxy's credentials.
bool isOwnHeader(std::string_view name) {
  static constexpr std::array<std::string_view, 8> kOwn = {
      "Host",   "Content-Type",      "Content-Length", "Cookie",
      "Expect", "Transfer-Encoding", "Connection",     "Proxy-Authorization"};
  return std::any_of(kOwn.begin(), kOwn.end(),
                     [&](std::string_view own) { return sameName(own, name); });
}

bool isToken(std::string_view name) {
  constexpr std::string_view kSpecials = "!#$%&'*+-.^_`|~";
  return !name.empty() && std::all_of(name.begin(), name.end(), [&](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || kSpecials.find(c) != kSpecials.npos;
  });
}

bool isHeaderValue(std::string_view value) {
  return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

/// "" for "none", the URL itself for an http(s) or SOCKS5 proxy URL with a host.
std::optional<std::string> checkedProxy(const std::string& proxy) {
  if (proxy == "none") return std::string();
  const auto parts = network::readUrl(proxy, true);
  if (!parts) return std::nullopt;
  const std::string_view given = parts->scheme;
  const bool known = given == "http" || given == "https" || given == "socks5" || given == "socks5h";
  const bool hasHost = !parts->host.empty();
  if (!known || !hasHost) return std::nullopt;
  return proxy;
}

std::optional<RequestUrls> joinRequestUrls(const ZEndpoints& endpoints) {
  struct Join {
    const std::string& base;
    std::string_view path;
    std::string& url;
  };
  RequestUrls urls;
  for (const Join& join : {Join{endpoints.production, kTrackPath, urls.track},
                           Join{endpoints.sandbox, kTrackPath, urls.sandboxTrack},
                           Join{endpoints.identitySync, kSyncPath, urls.identitySync}}) {
    // Paths are appended to a base; behind a query or a fragment they would not be paths.
    if (join.base.find_first_of("?#") != std::string::npos) return std::nullopt;
    auto joined = joinHttpsUrl(join.base, join.path);
    if (!joined) return std::nullopt;
    join.url = std::move(*joined);
  }
  for (const auto& [name, value] : endpoints.headers) {
    if (!isToken(name) || isOwnHeader(name) || !isHeaderValue(value)) return std::nullopt;
  }
  urls.headers = endpoints.headers;
  if (endpoints.proxy) {
    urls.proxy = checkedProxy(*endpoints.proxy);
    if (!urls.proxy) return std::nullopt;
  }
  return urls;
}

}  // namespace

ZEndpoints currentEndpoints() {
  std::lock_guard lock(endpointsMutex);
  return inForceLocked().endpoints;
}

std::shared_ptr<const RequestUrls> currentRequestUrls() {
  std::lock_guard lock(endpointsMutex);
  return inForceLocked().urls;
}

bool replaceEndpoints(const ZEndpoints& endpoints) {
  auto urls = joinRequestUrls(endpoints);
  if (!urls) return false;
  auto shared = std::make_shared<const RequestUrls>(std::move(*urls));
  std::lock_guard lock(endpointsMutex);
  inForceLocked() = InForce{endpoints, std::move(shared)};
  return true;
}

std::optional<std::string> joinHttpsUrl(std::string_view base, std::string_view pathAndQuery) {
  while (!base.empty() && base.back() == '/') base.remove_suffix(1);
  std::string url(base);
  url.append(pathAndQuery);
  if (!isHttpsUrl(url)) return std::nullopt;
  return url;
}

}  // namespace zelvanor::detail
