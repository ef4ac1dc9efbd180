#include "network/endpoints.hpp"

#include <curl/curl.h>

#include <memory>
#include <mutex>

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
  std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
  if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
    return false;
  }
  char* scheme = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK) return false;
  const bool https = std::string_view(scheme) == "https";
  curl_free(scheme);
  char* host = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK) return false;
  const bool hasHost = host[0] != '\0';
  curl_free(host);
  return https && hasHost;
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
