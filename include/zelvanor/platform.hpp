// Facts about the host application and device. The SDK detects them; a host may replace any of
// them before its first tracker call (an iOS or Android shell passes what its platform knows).
#pragma once

#include <optional>
#include <string>

#include "zelvanor/export.hpp"

namespace zelvanor {

struct ZScreenSize {
  double width = 0;
  double height = 0;
  friend bool operator==(const ZScreenSize&, const ZScreenSize&) = default;
};

/// Every member left absent keeps the detected value.
struct ZPlatformFacts {
  std::optional<std::string> bundleIdentifier{};  ///< default: the executable's name
  std::optional<std::string> appVersion{};        ///< default: "Unknown Version"
  std::optional<std::string> os{};                ///< default: uname sysname
  std::optional<std::string> osVersion{};         ///< default: uname release
  std::optional<std::string> deviceModel{};       ///< default: DMI product name, else uname machine
  std::optional<std::string> language{};          ///< default: from LC_ALL / LC_MESSAGES / LANG
  std::optional<ZScreenSize> screen{};            ///< default: none
  /// Where the SDK keeps its settings, pending records and cookies. Default:
  /// $XDG_STATE_HOME/<bundle id>/, else ~/.local/state/<bundle id>/.
  std::optional<std::string> dataDirectory{};

  friend bool operator==(const ZPlatformFacts&, const ZPlatformFacts&) = default;
};

/// Replaces the host-supplied facts (all of them: pass every override each time).
ZELVANOR_API void setPlatformFacts(const ZPlatformFacts& overrides);
/// The facts in force: overrides where given, detected values elsewhere.
ZELVANOR_API ZPlatformFacts currentPlatformFacts();

}  // namespace zelvanor
