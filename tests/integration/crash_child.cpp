// A host that tracks as fast as it can with the network gate closed, so every record goes to the
// pending file; the crash test kills it at random moments.
//   zelvanor_crash_child DATA_DIR FIRST_SEQUENCE
// or deletes the app's data and then waits to be killed:
//   zelvanor_crash_child DATA_DIR erase
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const bool erase = std::string(argv[2]) == "erase";
  const long long first = std::atoll(argv[2]);
  // Nothing listens on port 9; the identity comes from the cookie jar the test wrote.
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.crash", .appVersion = "1.0", .dataDirectory = argv[1]});
  ZelvanorTracker::setEndpoints(
      ZEndpoints{"https://127.0.0.1:9", "https://127.0.0.1:9", "https://127.0.0.1:9", {}});
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 1, .batchSize = 1})
      .setReachabilityFlags(0);
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
  std::puts("tracking");
  std::fflush(stdout);
  // Bounded: the test kills long before this ends.
  for (long long seq = first; seq < first + 2'000'000; ++seq) {
    ZelvanorTracker::set(
        ZPage{.id = std::to_string(seq), .name = "crash", .title = std::string(seq % 300, 'x')})
        .set(ZAction("event", "crash-" + std::to_string(seq), "tap"))
        .track(false, false);
  }
  return 0;
}
