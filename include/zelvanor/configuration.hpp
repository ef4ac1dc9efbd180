// The host's configuration, the deployment switch and the sdk block every record carries.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "zelvanor/export.hpp"

namespace zelvanor {

/// What the host tells the SDK once: request timeout, batch threshold, sandbox switch.
struct ZConfiguration {
  double timeout = 5.0;         ///< seconds, for every HTTP request
  std::uint64_t batchSize = 1;  ///< records that gather in memory before sending starts
  bool usingSandboxEnvironment = false;

  /// timeout 5.0, batchSize 1, production collector. A new value on every call.
  static ZConfiguration defaults() { return ZConfiguration{5.0, 1, false}; }

  friend bool operator==(const ZConfiguration&, const ZConfiguration&) = default;
};

/// Development or production build of the host; written into every record's sdk block.
enum class DeploymentType { development, production };

/// "development" or "production".
ZELVANOR_API std::string_view rawValue(DeploymentType type) noexcept;
/// Accepts exactly "development" and "production"; anything else is absent.
ZELVANOR_API std::optional<DeploymentType> deploymentTypeFromRawValue(
    std::string_view text) noexcept;

/// The sdk block: which SDK made the record.
struct ZSDK {
  DeploymentType type = DeploymentType::development;
  std::string version;
  std::string commonLogVersion;

  friend bool operator==(const ZSDK&, const ZSDK&) = default;
};

/// This SDK's own version, "0.9.0".
inline constexpr std::string_view kSdkVersion = "0.9.0";
/// The version of the record format this SDK speaks, "1.2.0".
inline constexpr std::string_view kCommonLogVersion = "1.2.0";

}  // namespace zelvanor
