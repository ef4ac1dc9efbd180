// The sources a started SDK gets: the real delivery, identity sync, reachability and settings
// file, with the store bounds and retry timings set for instances started from now on.
#pragma once

#include "manager/internal_log_manager.hpp"
#include "support/retry_schedule.hpp"
#include "zelvanor/http_client.hpp"
#include "zelvanor/storage.hpp"

namespace zelvanor::detail {

/// Bounds for the stores of instances started from now on.
void setStoreLimits(const ZStoreLimits& limits);
ZStoreLimits storeLimits();
/// How long the instances started from now on wait before trying again (tests shorten it).
void setRetryTimings(const support::RetryTimings& timings);

/// The HTTP client of instances started from now on; null: the SDK's own.
void setHttpClient(std::shared_ptr<ZHttpClient> client);

/// The real sources: HTTPS delivery with its pending store, identity sync and reachability.
ManagerSources makeDefaultSources();

}  // namespace zelvanor::detail
