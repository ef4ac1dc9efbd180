// The HTTP client the SDK brings along when the host hands it none: libcurl, or on Windows the
// system's WinHTTP. CMake compiles exactly one implementation of makeSystemHttpClient
// (ZELVANOR_HTTP_CLIENT), so the code that picks a client never names a platform.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/serial_queue.hpp"
#include "zelvanor/http_client.hpp"

namespace zelvanor::network {

struct SystemHttpClientOptions {
  /// The proxy a request takes: absent, the system's (or environment's) settings apply; empty,
  /// no proxy at all; else the proxy's URL, used for every host. Read as each request starts.
  using ProxyChoice = std::function<std::optional<std::string>()>;
  std::optional<std::string> caBundle;  ///< extra trusted roots (PEM file)
  ProxyChoice proxy;                    ///< empty: the system decides for every request
};

/// A URL's scheme (lower case) and host, as the system's client reads them; nullopt when it
/// cannot read the URL. `anyScheme`: schemes the client itself does not speak (a SOCKS proxy's)
/// are read too.
struct UrlSchemeAndHost {
  std::string scheme;
  std::string host;
};
std::optional<UrlSchemeAndHost> readUrl(const std::string& url, bool anyScheme = false);

/// The SDK's own client. It may make itself `worker`'s idle wait (libcurl does) or run on
/// threads of its own; either way `done` may run on any thread.
std::shared_ptr<ZHttpClient> makeSystemHttpClient(support::SerialQueue& worker,
                                                  SystemHttpClientOptions options);

}  // namespace zelvanor::network
