// The shared SDK instance behind the static facade.
#pragma once

#include <functional>
#include <memory>

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

/// The running instance's network monitor, or null.
std::shared_ptr<NetworkMonitor> runningNetworkMonitor();

/// Bounds for the stores of instances started from now on.
void setStoreLimits(const ZStoreLimits& limits);
ZStoreLimits storeLimits();
/// How long the instances started from now on wait before trying again (tests shorten it).
void setRetryTimings(const support::RetryTimings& timings);

/// The real sources: HTTPS delivery with its pending store, identity sync and reachability.
ManagerSources makeDefaultSources();

}  // namespace zelvanor::detail
