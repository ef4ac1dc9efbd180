// Where the SDK sends records and asks for the identity triple.
#pragma once

#include <optional>
#include <string>

namespace zelvanor {

/// Base URLs (scheme, host, optional port and path prefix; no query or fragment), https only:
/// "https://127.0.0.1:8443".
struct ZEndpoints {
  std::string production{};    ///< records, normally
  std::string sandbox{};       ///< records, after useSandboxEnvironment()
  std::string identitySync{};  ///< the identity triple
  /// PEM file with extra trusted roots (e.g. a local collector's own CA). Certificate and host
  /// verification are always on; this only adds roots. Read when the SDK starts.
  std::optional<std::string> caBundleFile{};

  friend bool operator==(const ZEndpoints&, const ZEndpoints&) = default;
};

}  // namespace zelvanor
