// Where reachability flags come from: a word with the reachable bit and the is-WWAN bit, read on
// demand and pushed on every change of the system's links and routes.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

namespace zelvanor::platform {

constexpr std::uint32_t kReachableFlag = 0x2;
constexpr std::uint32_t kIsWWANFlag = 0x40000;

class ReachabilityFlagSource {
 public:
  virtual ~ReachabilityFlagSource() = default;

  /// The flags now; absent when they could not be read.
  virtual std::optional<std::uint32_t> currentFlags() = 0;

  /// Calls onChange(flags) on the source's own thread whenever links or routes change. The same
  /// flags may come several times in a row; the caller dedupes. False when it cannot watch, or is
  /// already watching. onChange must not call stop() or destroy the source.
  virtual bool start(std::function<void(std::uint32_t)> onChange) = 0;

  /// Stops watching and joins the source's thread. Idempotent; the destructor does it too.
  virtual void stop() = 0;
};

/// The platform's own source; nullptr when the platform has none.
std::unique_ptr<ReachabilityFlagSource> makeSystemReachabilityFlagSource();

/// What the route tables do not say about the interface a route leaves through.
struct LinkState {
  bool carrier = true;  ///< false: the link is down (cable out, radio off), its routes lead nowhere
  bool cellular = false;  ///< a cellular (WWAN) link
};
using LinkProbe = std::function<LinkState(std::string_view ifname)>;

/// Flags from the text of Linux's /proc/net/route and /proc/net/ipv6_route: reachable when an
/// up, non-reject default route (or a VPN's 0.0.0.0/1) leaves through a real interface (not "lo",
/// not a blackhole's "*") that has a carrier, plus is-WWAN when that route's link is cellular. An
/// IPv4 route wins over an IPv6 one; among several, the most specific and then the lowest metric.
/// Else 0. `probe` tells about each candidate's interface; without one, names alone decide.
std::uint32_t flagsFromRouteTables(std::string_view procNetRoute, std::string_view procNetIpv6Route,
                                   const LinkProbe& probe);

/// A cellular interface by its name alone: "wwan*", "rmnet*", "ccmni*" or "ppp*".
bool hasCellularInterfaceName(std::string_view ifname) noexcept;

}  // namespace zelvanor::platform
