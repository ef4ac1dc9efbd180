// A host app over a pending store left by earlier runs, sending it to a real collector; the store
// crash test kills it at random moments.
//   zelvanor_store_child DATA_DIR BASE_URL CA_FILE send|finish
// send:   sends what waits, shutting down and starting again every few hundred milliseconds, until
//         killed (bounded: it ends by itself after a minute);
// finish: sends what waits for a few seconds and returns from main.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

namespace {

void start(const char* dataDir, const std::string& base, const char* caFile) {
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.store", .appVersion = "1.0", .dataDirectory = dataDir});
  ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, caFile});
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 5, .batchSize = 1})
      .setReachabilityFlags(0x2)
      .flush();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  const std::string mode = argv[4];
  start(argv[1], argv[2], argv[3]);
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
