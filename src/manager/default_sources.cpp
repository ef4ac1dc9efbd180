// The real sources of a started SDK: one HTTPS client (one cookie store) shared by delivery and
// identity sync, the pending store and the settings file in the app's data directory, and
// the platform's route watch. Three threads in all: the HTTP client's, the route watch's, and one
// worker that the delivery, the manager and reachability share.
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
support::RetryTimings& currentRetryTimings() {
  static support::RetryTimings timings;
  return timings;
}
}  // namespace

void setRetryTimings(const support::RetryTimings& timings) {
  std::lock_guard lock(limitsMutex());
  currentRetryTimings() = timings;
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

  network::HttpClient::Options options;
  if (haveDirectory) options.cookieJar = dataDirectory / local_data::kCookieJarFileName;
  options.caBundle = currentEndpoints().caBundleFile;
  auto http = std::make_shared<network::HttpClient>(std::move(options),
                                                    [] { return currentRequestUrls()->proxy; });

  ManagerSources sources;
  sources.dataDirectory = dataDirectory;
  sources.worker = std::make_shared<support::SerialQueue>("com.zelvanor.sdk.worker",
                                                          &platform::lowerCurrentThreadPriority);
  sources.storeLimits = storeLimits();
  {
    std::lock_guard lock(limitsMutex());
    sources.retryTimings = currentRetryTimings();
  }
  sources.transport =
      std::make_shared<HttpsDelivery>(http, haveDirectory ? dataDirectory : std::filesystem::path{},
                                      sources.storeLimits, sources.retryTimings, sources.worker);
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
