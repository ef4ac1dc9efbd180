// The servers in force, process-wide. The request URLs are joined and checked once, when the
// servers are set, so building a request copies a string instead of parsing a URL.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zelvanor/endpoints.hpp"

namespace zelvanor::detail {

/// The full URLs requests go to, joined from the servers in force.
struct RequestUrls {
  std::string track;         ///< the production collector's "/sdk/track"
  std::string sandboxTrack;  ///< the sandbox collector's "/sdk/track"
  std::string identitySync;  ///< the sync server's "/sync?v=1"
  /// The host's extra headers, checked, sent on every request after the SDK's own.
  std::vector<std::pair<std::string, std::string>> headers;
  /// Absent: the environment's proxy, if any; empty: none at all; else the proxy's URL.
  std::optional<std::string> proxy;
};

ZEndpoints currentEndpoints();
/// The URLs joined from the servers in force; a later replaceEndpoints leaves this one as it is.
std::shared_ptr<const RequestUrls> currentRequestUrls();
/// False (nothing changed) unless every URL joined from them parses as an absolute https URL,
/// every extra header is one the host may add, and the proxy is "none" or a proxy URL.
bool replaceEndpoints(const ZEndpoints& endpoints);
/// The URL for `path` on `base` ("https://h:1" + "/sdk/track"), or absent if it does not parse
/// as an https URL.
std::optional<std::string> joinHttpsUrl(std::string_view base, std::string_view pathAndQuery);

}  // namespace zelvanor::detail
