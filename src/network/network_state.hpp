// How the device reaches the internet, as the agent block reports it.
#pragma once

#include <string_view>

namespace zelvanor::detail {

enum class NetworkState { wifi, mobile, offline };

constexpr std::string_view rawValue(NetworkState state) noexcept {
  switch (state) {
    case NetworkState::wifi:
      return "wifi";
    case NetworkState::mobile:
      return "mobile";
    case NetworkState::offline:
      return "offline";
  }
  return "wifi";
}

}  // namespace zelvanor::detail
