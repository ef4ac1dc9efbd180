// Reading reachability from Linux's route tables. Kept apart from the netlink watch so that it
// can be fed hand-written tables.
#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

#include "platform/reachability_flags.hpp"

namespace zelvanor::platform {
namespace {

// From <linux/route.h>; spelled out so that this file builds everywhere.
constexpr std::uint32_t kRouteUp = 0x0001;
constexpr std::uint32_t kRouteReject = 0x0200;

struct DefaultRoute {
  std::string_view ifname;
  int prefixLength = 0;
  std::uint64_t metric = 0;
  bool cellular = false;
};

LinkState probeLink(const LinkProbe& probe, std::string_view ifname) {
  if (probe) return probe(ifname);
  return LinkState{.carrier = true, .cellular = hasCellularInterfaceName(ifname)};
}

/// Splits one line into at most N whitespace-separated fields; returns how many it found.
template <std::size_t N>
std::size_t splitFields(std::string_view line, std::array<std::string_view, N>& fields) {
  std::size_t count = 0;
  std::size_t at = 0;
  while (count < N) {
    at = line.find_first_not_of(" \t\r", at);
    if (at == std::string_view::npos) break;
    const std::size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
    fields[count++] = line.substr(at, end - at);
    at = end;
  }
  return count;
}

template <class Unsigned>
bool parseNumber(std::string_view text, int base, Unsigned& value) {
  if (text.empty()) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc{} && end == text.data() + text.size();
}

bool allZeroHex(std::string_view text) {
  return !text.empty() && text.find_first_not_of('0') == std::string_view::npos;
}

/// More specific first, then lower metric: roughly the route the kernel would pick.
bool better(const DefaultRoute& candidate, const std::optional<DefaultRoute>& best) {
  if (!best) return true;
  if (candidate.prefixLength != best->prefixLength) {
    return candidate.prefixLength > best->prefixLength;
  }
  return candidate.metric < best->metric;
}

// A blackhole route shows "*" as its interface and no reject flag; it leads nowhere either.
bool usable(std::string_view ifname, std::uint32_t routeFlags) {
  return ifname != "lo" && ifname != "*" && (routeFlags & kRouteUp) != 0 &&
         (routeFlags & kRouteReject) == 0;
}

// Considers one default route: kept when its link can carry traffic and it beats the best so far.
void consider(DefaultRoute route, const LinkProbe& probe, std::optional<DefaultRoute>& best) {
  if (!better(route, best)) return;
  const LinkState link = probeLink(probe, route.ifname);
  if (!link.carrier) return;
  route.cellular = link.cellular;
  best = route;
}

template <class Visit>
void forEachLine(std::string_view text, Visit visit) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    visit(text.substr(0, end));
    if (end == std::string_view::npos) break;
    text.remove_prefix(end + 1);
  }
}

// "Iface Destination Gateway Flags RefCnt Use Metric Mask MTU Window IRTT", hex addresses in
// network byte order, flags hex, metric decimal; the first line is a header.
std::optional<DefaultRoute> ipv4DefaultRoute(std::string_view table, const LinkProbe& probe) {
  std::optional<DefaultRoute> best;
  forEachLine(table, [&](std::string_view line) {
    std::array<std::string_view, 8> field{};
    if (splitFields(line, field) < 8) return;
    std::uint32_t destination = 0, routeFlags = 0, mask = 0;
    std::uint64_t metric = 0;
    if (field[1].size() != 8 || !parseNumber(field[1], 16, destination) || destination != 0) return;
    if (!parseNumber(field[3], 16, routeFlags) || !parseNumber(field[6], 10, metric) ||
        !parseNumber(field[7], 16, mask)) {
      return;
    }
    // The default route, or half of the address space (how VPNs take all traffic); a narrower
    // route to 0.0.0.0 is not a way out.
    const int prefixLength = std::popcount(mask);
    if (prefixLength > 1 || !usable(field[0], routeFlags)) return;
    consider(DefaultRoute{field[0], prefixLength, metric}, probe, best);
  });
  return best;
}

// "dest destPrefix src srcPrefix nextHop metric refCnt use flags iface", all hex, no header.
std::optional<DefaultRoute> ipv6DefaultRoute(std::string_view table, const LinkProbe& probe) {
  std::optional<DefaultRoute> best;
  forEachLine(table, [&](std::string_view line) {
    std::array<std::string_view, 10> field{};
    if (splitFields(line, field) < 10) return;
    std::uint32_t prefixLength = 0, routeFlags = 0;
    std::uint64_t metric = 0;
    if (field[0].size() != 32 || !allZeroHex(field[0])) return;
    if (!parseNumber(field[1], 16, prefixLength) || prefixLength != 0) return;
    if (!parseNumber(field[5], 16, metric) || !parseNumber(field[8], 16, routeFlags)) return;
    if (!usable(field[9], routeFlags)) return;
    consider(DefaultRoute{field[9], 0, metric}, probe, best);
  });
  return best;
}

}  // namespace

bool hasCellularInterfaceName(std::string_view ifname) noexcept {
  for (const std::string_view prefix : {"wwan", "rmnet", "ccmni", "ppp"}) {
    if (ifname.starts_with(prefix)) return true;
  }
  return false;
}

std::uint32_t flagsFromRouteTables(std::string_view procNetRoute, std::string_view procNetIpv6Route,
                                   const LinkProbe& probe) {
  std::optional<DefaultRoute> route = ipv4DefaultRoute(procNetRoute, probe);
  if (!route) route = ipv6DefaultRoute(procNetIpv6Route, probe);
  if (!route) return 0;
  return kReachableFlag | (route->cellular ? kIsWWANFlag : 0);
}

}  // namespace zelvanor::platform
