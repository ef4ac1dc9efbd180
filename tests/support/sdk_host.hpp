// The SDK started as a host app starts it, against the loopback HTTPS server, for the scenarios
// that run it through its public facade.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "support/https_test_server.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor::testing {

/// Whether `done` holds within about five seconds.
inline bool eventually(const std::function<bool()>& done) {
  for (int i = 0; i < 250 && !done(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return done();
}

/// Identity sync gets the triple c, d, s; every other request "ok", after `delayMs`.
inline CannedResponse syncThenOk(const ReceivedRequest& request, int delayMs = 0) {
  if (request.path.rfind("/sync", 0) == 0) return CannedResponse{200, kSyncAnswer, {}, 0};
  return CannedResponse{200, "ok", {}, delayMs};
}

/// Points the SDK at `server` for both collectors, and for identity sync and trusted roots unless
/// `endpoints` names them, with `dataDir` as the app's data directory and the rest of `endpoints`
/// as given. Nothing starts yet.
inline bool pointAt(const HttpsTestServer& server, const std::filesystem::path& dataDir,
                    ZEndpoints endpoints = {}) {
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.host",
                                                   .appVersion = "1.0",
                                                   .dataDirectory = dataDir.string()});
  endpoints.production = endpoints.sandbox = server.baseUrl();
  if (endpoints.identitySync.empty()) endpoints.identitySync = server.baseUrl();
  if (!endpoints.caBundleFile) endpoints.caBundleFile = server.caFile().string();
  return ZelvanorTracker::setEndpoints(endpoints);
}

inline void track(const std::string& name) {
  ZelvanorTracker::set(ZAction("event", name, "tap")).track(false, false);
}

}  // namespace zelvanor::testing
