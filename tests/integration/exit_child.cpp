// A host app for the exit test: waits for its identity, tracks, and returns from main while the
// collector is still holding its requests. Arguments: data-dir base-url ca-file events.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

namespace {
// Built before the SDK's first use, so destroyed after its exit hook: hosts do this with app
// objects that report termination from their destructor. That late call must not cost the
// records the exit hook has just kept.
struct ReportsTerminationWhenDestroyed {
  ~ReportsTerminationWhenDestroyed() { ZelvanorTracker::post(ZLifecycleEvent::willTerminate); }
} lateReporter;
}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.exit", .appVersion = "1.0", .dataDirectory = argv[1]});
  if (!ZelvanorTracker::setEndpoints(ZEndpoints{argv[2], argv[2], argv[2], argv[3]})) return 3;
  ZelvanorTracker::setReachabilityFlags(0x2)
      .set(ZCommon({.serviceName = "exit", .deployment = "test"}))
      .set(ZId{.appUserId = "u"});
  if (!ZelvanorTracker::waitUntilReady(std::chrono::seconds(5))) return 4;
  const int events = std::atoi(argv[4]);
  for (int i = 0; i < events; ++i) {
    ZelvanorTracker::set(ZAction("event", "exit-" + std::to_string(i), "tap")).track(false, false);
  }
  // The parent measures the exit from here (CLOCK_MONOTONIC is shared by all processes).
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  std::printf("%lld\n", static_cast<long long>(
                            std::chrono::duration_cast<std::chrono::microseconds>(now).count()));
  std::fflush(stdout);
  return 0;  // the SDK's exit hook keeps what is still in flight
}
