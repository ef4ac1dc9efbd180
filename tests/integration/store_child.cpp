// A host app over a pending store left by earlier runs, sending it to a real collector; the store
// crash test kills it at random moments.
//   zelvanor_store_child DATA_DIR BASE_URL CA_FILE send|finish
// send:   sends what waits, shutting down and starting again every few hundred milliseconds, until
//         killed (bounded: it ends by itself after a minute);
// finish: sends what waits for a few seconds and returns from main;
// unknown-triple: starts with no way to the identity sync server and waits until killed
//         (bounded), so templates kept by an earlier run stay templates;
// offline: starts with the triple's server reachable but the network gate closed and waits
//         until killed (bounded), so templates kept by an earlier run become records on disk.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

namespace {

void start(const char* dataDir, const std::string& base, const char* caFile,
           const std::string& mode = "send") {
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.store", .appVersion = "1.0", .dataDirectory = dataDir});
  const std::string sync = mode == "unknown-triple" ? "https://127.0.0.1:9" : base;
  ZelvanorTracker::setEndpoints(ZEndpoints{base, base, sync, caFile});
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 5, .batchSize = 1})
      .setReachabilityFlags(mode == "offline" ? 0x0 : 0x2)
      .flush();
  // Templates become records only with a common block.
  if (mode == "offline")
    ZelvanorTracker::set(ZCommon({.serviceName = "store", .deployment = "production"}));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const std::string mode = argv[4];
  start(argv[1], argv[2], argv[3], mode);
  std::puts("started");
  std::fflush(stdout);
  using namespace std::chrono;
  const auto end = steady_clock::now() + (mode == "finish" ? seconds(4) : seconds(60));
  auto restartAt = steady_clock::now() + milliseconds(250);
  while (steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(10));
    if (mode == "send" && steady_clock::now() >= restartAt) {
      // Kills also land while a shutdown keeps what is undelivered, and while a start restores.
      ZelvanorTracker::shutdown();
      start(argv[1], argv[2], argv[3]);
      restartAt = steady_clock::now() + milliseconds(250);
    }
  }
  return 0;
}
