// A host app's use of the SDK, public headers only: configure once, keep context, track events.
// Without a collector to reach, records wait in the pending file for the next start; run it
// against zelvanor-collector with: host_app https://127.0.0.1:PORT CA_FILE [DATA_DIR]
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "zelvanor/tracker.hpp"

using namespace zelvanor;

int main(int argc, char** argv) {
  const std::string server = argc > 1 ? argv[1] : "https://127.0.0.1:9";  // nothing listens there
  ZEndpoints endpoints{server, server, server, std::nullopt};
  if (argc > 2 && *argv[2]) endpoints.caBundleFile = argv[2];
  ZPlatformFacts facts{.bundleIdentifier = "com.example.shop", .appVersion = "3.1.0"};
  if (argc > 3) facts.dataDirectory = argv[3];
  ZelvanorTracker::setPlatformFacts(facts);
  if (!ZelvanorTracker::setEndpoints(endpoints)) {
    std::fprintf(stderr, "not an https URL: %s\n", server.c_str());
    return 2;
  }

  ZelvanorTracker::setRequired(
      [] { return ZConfiguration{.timeout = 5, .batchSize = 1, .usingSandboxEnvironment = false}; })
      .setProduction()
      .set(ZId{.appUserId = "user-42"})
      .set([] { return ZCommon({.serviceName = "shop", .deployment = "production"}); });

  ZelvanorTracker::set(ZPage{.id = "home", .name = "home", .title = "Welcome"})
      .set(ZAction(ZAction::ZActionType::pageView, "home", "view"))
      .track(false, false);

  ZelvanorTracker::set(ZPage{.id = "product-7", .name = "product", .title = "Trail shoes"})
      .set(ZClick{.type = "button", .layer1 = "add-to-cart", .posX = 120, .posY = 640})
      .set(ZAction(ZAction::ZActionType::event, "add_to_cart", "click"));
  std::printf("the next event would be sent as:\n%s\n", ZelvanorTracker::getData().c_str());

  ZelvanorTracker::post(ZLifecycleEvent::willResignActive);
  ZelvanorTracker::flush();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  return 0;  // undelivered records are kept for the next start
}
