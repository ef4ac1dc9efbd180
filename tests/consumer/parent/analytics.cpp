// The parent's own library: it wraps the SDK, so its export set depends on zelvanor.
#include <string>

#include "zelvanor/event.hpp"

void trackScreen(const std::string& screen) {
  zelvanor::ZEvent()
      .set(zelvanor::ZPage{.id = screen, .name = screen, .title = screen})
      .set(zelvanor::ZAction(zelvanor::ZAction::ZActionType::pageView, screen, "view"))
      .track();
}
