// A host that tracks as fast as it can with the network gate closed, so every record goes to the
// pending file; the crash test kills it at random moments.
//   zelvanor_crash_child DATA_DIR FIRST_SEQUENCE [BURST [online]]
// With BURST it tracks that many, says "tracked" and waits to be killed (bounded); online opens
// the gate, so records go to a collector that refuses every connection. Or it deletes the app's
// data and then waits to be killed:
//   zelvanor_crash_child DATA_DIR erase
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) return 2;
  const bool erase = std::string(argv[2]) == "erase";
  const long long first = std::atoll(argv[2]);
  const long long burst = argc >= 4 ? std::atoll(argv[3]) : 2'000'000;
  // Room on disk for the whole burst: only memory is in question.
  if (argc >= 4) ZelvanorTracker::setStoreLimits(ZStoreLimits{.maxBytesOnDisk = 64 << 20});
  // Nothing listens on port 9; the identity comes from the cookie jar the test wrote.
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.crash", .appVersion = "1.0", .dataDirectory = argv[1]});
  ZelvanorTracker::setEndpoints(
      ZEndpoints{"https://127.0.0.1:9", "https://127.0.0.1:9", "https://127.0.0.1:9", {}});
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 1, .batchSize = 1})
      .setReachabilityFlags(argc == 5 ? 0x2 : 0);
  if (erase) {
    std::puts("erasing");
    std::fflush(stdout);
    ZelvanorTracker::deleteLocalData();
    std::puts("erased");
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::seconds(30));  // the test kills it long before
    return 0;
  }
  ZelvanorTracker::set(ZCommon({.serviceName = "crash", .deployment = "production"}));
  // A burst is built into records at once: none waits for the triple as a template.
  if (argc >= 4) ZelvanorTracker::waitUntilReady(std::chrono::seconds(10));
  std::puts("tracking");
  std::fflush(stdout);
  // Bounded: the test kills long before this ends.
  for (long long seq = first; seq < first + burst; ++seq) {
    ZelvanorTracker::set(
        ZPage{.id = std::to_string(seq), .name = "crash", .title = std::string(seq % 300, 'x')})
        .set(ZAction("event", "crash-" + std::to_string(seq), "tap"))
        .track(false, false);
  }
  std::puts("tracked");
  std::fflush(stdout);
  std::this_thread::sleep_for(std::chrono::seconds(60));
  return 0;
}
