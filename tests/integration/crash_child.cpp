// A host app the crash tests kill at random moments; every mode ends by itself (bounded).
//   zelvanor_crash_child DATA_DIR track FIRST_SEQUENCE
//     tracks as fast as it can with the network gate closed, so every record goes to the pending
//     file; every hundredth record is large, so that appends span many pages (not in a burst,
//     where only the memory limit is in question).
//   zelvanor_crash_child DATA_DIR burst|burst-online COUNT
//     tracks that many, says "tracked" and waits; online opens the gate, so records go to a
//     collector that refuses every connection.
//   zelvanor_crash_child DATA_DIR erase
//     deletes the app's data and waits.
//   zelvanor_crash_child DATA_DIR send|finish|unknown-triple|offline BASE_URL CA_FILE
//     over a store left by earlier runs, with a real collector.
//     send: sends what waits, shutting down and starting again every 250 ms;
//     finish: sends what waits for a few seconds and returns from main;
//     unknown-triple: no way to the identity sync server, so kept templates stay templates;
//     offline: the gate closed, so kept templates become records on disk.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;
using namespace std::chrono;

namespace {

void say(const char* word) {
  std::puts(word);
  std::fflush(stdout);
}

void start(char** argv, const std::string& mode, bool toCollector) {
  // Nothing listens on port 9; the identity comes from the cookie jar the test wrote.
  const std::string base = toCollector ? argv[3] : "https://127.0.0.1:9";
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{
      .bundleIdentifier = "com.example.crash", .appVersion = "1.0", .dataDirectory = argv[1]});
  ZelvanorTracker::setEndpoints(
      ZEndpoints{base, base, mode == "unknown-triple" ? "https://127.0.0.1:9" : base,
                 toCollector ? std::optional<std::string>(argv[4]) : std::nullopt});
  const bool gateOpen = (toCollector && mode != "offline") || mode == "burst-online";
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = toCollector ? 5.0 : 1.0, .batchSize = 1})
      .setReachabilityFlags(gateOpen ? 0x2 : 0);
  if (toCollector) ZelvanorTracker::flush();
  // Templates become records only with a common block.
  if (mode == "offline" || (!toCollector && mode != "erase"))
    ZelvanorTracker::set(ZCommon({.serviceName = "crash", .deployment = "production"}));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3 || argc > 5) return 2;
  const std::string mode = argv[2];
  const bool burst = mode.rfind("burst", 0) == 0;
  // Room on disk for the whole burst: only memory is in question.
  if (burst) ZelvanorTracker::setStoreLimits(ZStoreLimits{.maxBytesOnDisk = 64 << 20});
  start(argv, mode, argc == 5);
  if (mode == "erase") {
    say("erasing");
    ZelvanorTracker::deleteLocalData();
    say("erased");
  } else if (argc == 4) {
    // A burst is built into records at once: none waits for the triple as a template.
    if (burst) ZelvanorTracker::waitUntilReady(seconds(10));
    say("tracking");
    const long long first = burst ? 0 : std::atoll(argv[3]);
    const long long count = burst ? std::atoll(argv[3]) : 2'000'000;
    for (long long seq = first; seq < first + count; ++seq) {
      const std::size_t title =
          !burst && seq % 100 == 0 ? 20000 : static_cast<std::size_t>(seq % 300);
      ZelvanorTracker::set(
          ZPage{.id = std::to_string(seq), .name = "crash", .title = std::string(title, 'x')})
          .set(ZAction("event", "crash-" + std::to_string(seq), "tap"))
          .track(false, false);
    }
    say("tracked");
  } else {
    say("started");
    const auto end = steady_clock::now() + (mode == "finish" ? seconds(4) : seconds(60));
    auto restartAt = steady_clock::now() + milliseconds(250);
    while (steady_clock::now() < end) {
      std::this_thread::sleep_for(milliseconds(10));
      if (mode == "send" && steady_clock::now() >= restartAt) {
        // Kills also land while a shutdown keeps what is undelivered, and while a start restores.
        ZelvanorTracker::shutdown();
        start(argv, mode, true);
        restartAt = steady_clock::now() + milliseconds(250);
      }
    }
    return 0;
  }
  std::this_thread::sleep_for(seconds(60));  // the test kills it long before
  return 0;
}
