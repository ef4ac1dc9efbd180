// The real sources of a started SDK: one HTTP client (one cookie store) shared by delivery and
// identity sync, the pending store and the settings file in the app's data directory, and
// the platform's route watch. Two threads in all: the route watch's, and one worker that the
// delivery, the manager, reachability and the SDK's own HTTP client share.
#include "manager/default_sources.hpp"

#include <mutex>

#include "manager/local_data.hpp"
#include "network/endpoints.hpp"
#include "network/https_delivery.hpp"
#include "network/identity_sync.hpp"
#include "network/reachability.hpp"
#include "platform/platform.hpp"
#include "platform/reachability_flags.hpp"
#include "platform/thread_priority.hpp"
#include "transport/system_http_client.hpp"

namespace zelvanor::detail {

namespace {
std::mutex& limitsMutex() {
  static std::mutex mutex;
  return mutex;
}
ZStoreLimits& currentLimits() {
  static ZStoreLimits limits;
  return limits;
}
std::shared_ptr<ZHttpClient>& hostClient() {
  static std::shared_ptr<ZHttpClient> client;
  return client;
}
support::RetryTimings& currentRetryTimings() {
  static support::RetryTimings timings;
  return timings;
}
}  // namespace

void setRetryTimings(const support::RetryTimings& timings) {
  std::lock_guard lock(limitsMutex());
  currentRetryTimings() = timings;
}

void setHttpClient(std::shared_ptr<ZHttpClient> client) {
  std::lock_guard lock(limitsMutex());
  hostClient() = std::move(client);
}

void setStoreLimits(const ZStoreLimits& limits) {
  std::lock_guard lock(limitsMutex());
  currentLimits() = limits;
}

ZStoreLimits storeLimits() {
  std::lock_guard lock(limitsMutex());
  return currentLimits();
}

ManagerSources makeDefaultSources() {
  const std::filesystem::path dataDirectory = platform::dataDirectory();
  const bool haveDirectory = !dataDirectory.empty();
  // Before the cookie jar, the settings or the store read anything: what a deletion interrupted
  // by a crash left behind is not data.
  local_data::finishInterruptedErase(dataDirectory);

  ManagerSources sources;
  sources.dataDirectory = dataDirectory;
  sources.worker = std::make_shared<support::SerialQueue>("com.zelvanor.sdk.worker",
                                                          &platform::lowerCurrentThreadPriority);
  std::shared_ptr<ZHttpClient> transport;
  {
    std::lock_guard lock(limitsMutex());
    transport = hostClient();
  }
  if (!transport) {
    // The SDK's own client (libcurl runs on the worker, between its tasks).
    transport = network::makeSystemHttpClient(
        *sources.worker,
        {currentEndpoints().caBundleFile, [] { return currentRequestUrls()->proxy; }});
  }
  auto http = std::make_shared<network::HttpClient>(
      std::move(transport),
      haveDirectory ? dataDirectory / local_data::kCookieJarFileName : std::filesystem::path{},
      sources.worker);
  sources.storeLimits = storeLimits();
  {
    std::lock_guard lock(limitsMutex());
    sources.retryTimings = currentRetryTimings();
  }
  sources.retryPolicy = std::make_shared<support::RetryPolicy>(sources.retryTimings);
  sources.transport = std::make_shared<HttpsDelivery>(
      http, haveDirectory ? dataDirectory : std::filesystem::path{}, sources.storeLimits,
      sources.retryTimings, sources.worker, sources.retryPolicy);
  sources.identity = std::make_shared<IdentitySync>(http);
  sources.network =
      std::make_shared<ZReachability>(&platform::makeSystemReachabilityFlagSource, sources.worker);
  if (haveDirectory) {
    sources.settingsStore =
        std::make_shared<platform::SettingsStore>(dataDirectory / local_data::kSettingsFileName);
  }
  return sources;
}

}  // namespace zelvanor::detail
