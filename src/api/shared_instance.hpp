// The shared SDK instance behind the static facade.
#pragma once

#include <functional>
#include <memory>

#include "manager/default_sources.hpp"
#include "manager/internal_log_manager.hpp"

namespace zelvanor::detail {

/// Makes the delivery, identity and network sources for a new instance.
using SourcesFactory = std::function<ManagerSources()>;

/// Replaces how new instances get their sources (tests inject recording ones). An empty function
/// restores the real ones. Takes effect at the next start.
void setSourcesFactory(SourcesFactory factory);

/// The running instance, started (and configured with the defaults) if there is none; null once
/// the exit hook has run.
std::shared_ptr<ZInternalLogManager> ensureShared();
/// The running instance, or null.
std::shared_ptr<ZInternalLogManager> sharedIfRunning();
/// Stops the running instance, keeping undelivered records for the next start.
void shutdownShared();
/// For a DLL told that the process ends (every other thread already gone): lets the instance go
/// without joining its threads, and makes the exit hook that runs next do nothing. Records still
/// in memory are lost, as in a kill; those handed to the store are on disk.
void abandonSharedAtProcessEnd();

/// The running instance's network monitor, or null.
std::shared_ptr<NetworkMonitor> runningNetworkMonitor();

}  // namespace zelvanor::detail
