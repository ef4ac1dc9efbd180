// The manager's two outside sources, behind narrow interfaces so tests can deliver an identity
// triple or a network state whenever they choose. They live with the network code that
// implements them, so the network never reaches up into the manager's folder.
#pragma once

#include <cstdint>
#include <functional>

#include "network/network_state.hpp"
#include "support/subject.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

class IdentitySource {
 public:
  virtual ~IdentitySource() = default;
  /// Asks for the identity triple. `onTriple` runs once per triple that arrives, on any thread,
  /// possibly before this returns (when the triple is already known locally).
  virtual support::Cancellable fetchXid(std::function<void(const ZXid&)> onTriple) = 0;
  /// Asks again, for those already subscribed, while no triple has come (the server was down or
  /// answered nothing usable).
  virtual void retry() {}
  /// Forgets the triple and whatever keeps it (cookies); answers still on their way are ignored.
  virtual void forget() {}
};

class NetworkMonitor {
 public:
  virtual ~NetworkMonitor() = default;
  /// Starts watching if it is not watching yet.
  virtual void startIfNeeded() = 0;
  /// Current state first (wifi until the first report), then one value per report.
  virtual support::CurrentValueSubject<NetworkState>& states() = 0;
  /// Reachability flags reported by the host (0x2 reachable, 0x40000 cellular).
  virtual void pushFlags(std::uint32_t flags) = 0;
  /// Stops watching for good.
  virtual void stop() = 0;
};

}  // namespace zelvanor::detail
