// No system reachability source here: the monitor keeps its initial state unless the host
// pushes flags itself.
#include "platform/reachability_flags.hpp"

namespace zelvanor::platform {

std::unique_ptr<ReachabilityFlagSource> makeSystemReachabilityFlagSource() {
  return nullptr;
}

}  // namespace zelvanor::platform
