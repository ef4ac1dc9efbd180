// Tracking from several threads at once: each thread builds its own ZEvent and tracks it in one
// call, so no thread's page or click can end up in another thread's record. The context (common,
// id) is still set once, through the facade, and is shared by every event.
// Without a collector to reach, records wait in the pending file for the next start; run it
// against zelvanor-collector with: multi_thread https://127.0.0.1:PORT CA_FILE [DATA_DIR]
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "zelvanor/event.hpp"
#include "zelvanor/tracker.hpp"

using namespace zelvanor;

namespace {

// One worker of the host app: a screen it shows and a few taps on it.
void browse(int worker) {
  const std::string screen = "screen-" + std::to_string(worker);
  ZEvent()
      .set(ZPage{.id = screen, .name = "screen", .title = "Screen " + std::to_string(worker)})
      .set(ZAction(ZAction::ZActionType::pageView, screen, "view"))
      .track();
  for (int tap = 0; tap < 5; ++tap) {
    ZEvent event;
    event.set(ZPage{.id = screen, .name = "screen", .title = "Screen " + std::to_string(worker)})
        .set(ZClick{.type = "button", .layer1 = "item-" + std::to_string(tap)})
        .set(ZAction(ZAction::ZActionType::event, "tap", "click"));
    ZelvanorTracker::track(std::move(event));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string server = argc > 1 ? argv[1] : "https://127.0.0.1:9";  // nothing listens there
  ZEndpoints endpoints{server, server, server, std::nullopt};
  if (argc > 2 && *argv[2]) endpoints.caBundleFile = argv[2];
  ZPlatformFacts facts{.bundleIdentifier = "com.example.workers", .appVersion = "1.0.0"};
  if (argc > 3) facts.dataDirectory = argv[3];
  ZelvanorTracker::setPlatformFacts(facts);
  if (!ZelvanorTracker::setEndpoints(endpoints)) {
    std::fprintf(stderr, "not an https URL: %s\n", server.c_str());
    return 2;
  }

  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 5, .batchSize = 10})
      .set(ZId{.appUserId = "user-42"})
      .set(ZCommon({.serviceName = "workers", .deployment = "production"}));

  std::vector<std::thread> workers;
  for (int worker = 0; worker < 4; ++worker) workers.emplace_back(browse, worker);
  for (auto& thread : workers) thread.join();

  ZelvanorTracker::flush();
  std::printf("tracked %d events from %zu threads\n", 4 * 6, workers.size());
  return 0;  // the exit hook keeps whatever is still undelivered for the next start
}
