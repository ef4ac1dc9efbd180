// Tracks one event with the installed SDK and prints the next event's JSON. Usage:
// consumer DATA_DIR. DATA_DIR holds a cookie jar with the identity triple, so records can be made
// without an identity server; nothing listens on the loopback servers, so records stay on disk.
#include <chrono>
#include <cstdio>
#include <string>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  ZelvanorTracker::setPlatformFacts(
      ZPlatformFacts{.bundleIdentifier = "com.example.consumer", .dataDirectory = argv[1]});
  const std::string server = "https://127.0.0.1:9";
  if (!ZelvanorTracker::setEndpoints(ZEndpoints{server, server, server, std::nullopt})) return 3;

  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 2, .batchSize = 1})
      .set(ZCommon({.serviceName = "consumer", .deployment = "test"}))
      .set(ZId{.appUserId = "consumer-user"});

  // The identity triple is read from the cookie jar on the SDK's own thread.
  if (!ZelvanorTracker::waitUntilReady(std::chrono::seconds(5))) return 4;
  ZelvanorTracker::set(ZPage{.id = "consumer-page", .name = "home", .title = "Home"})
      .set(ZAction(ZAction::ZActionType::pageView, "home", "view"))
      .track(false, false);
  // An event of its own: it must neither need nor disturb the blocks set through the facade.
  ZEvent()
      .set(ZPage{.id = "consumer-own-event", .name = "own", .title = "Own"})
      .set(ZAction(ZAction::ZActionType::event, "own", "tap"))
      .track();
  ZelvanorTracker::set(ZPage{.id = "consumer-next", .name = "next", .title = "Next"})
      .set(ZAction(ZAction::ZActionType::event, "next", "click"));
  std::printf("%s\n", ZelvanorTracker::getData().c_str());
  ZelvanorTracker::shutdown();
  return 0;
}
