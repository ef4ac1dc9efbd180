#include "network/endpoints.hpp"

#include <curl/curl.h>

#include <memory>
#include <mutex>

namespace zelvanor::detail {

namespace {

std::mutex endpointsMutex;

ZEndpoints& endpointsLocked() {
  // The SDK's own collection and identity sync servers.
  static ZEndpoints endpoints{
      .production = "https://collect.zelvanor.io",
      .sandbox = "https://sandbox-collect.zelvanor.io",
      .identitySync = "https://sync.zelvanor.io",
      .caBundleFile = std::nullopt,
  };
  return endpoints;
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

}  // namespace

ZEndpoints currentEndpoints() {
  std::lock_guard lock(endpointsMutex);
  return endpointsLocked();
}

bool replaceEndpoints(const ZEndpoints& endpoints) {
  for (const std::string* base :
       {&endpoints.production, &endpoints.sandbox, &endpoints.identitySync}) {
    // Paths are appended to a base; behind a query or a fragment they would not be paths.
    if (base->find_first_of("?#") != std::string::npos) return false;
    if (!joinHttpsUrl(*base, "/")) return false;
  }
  std::lock_guard lock(endpointsMutex);
  endpointsLocked() = endpoints;
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
