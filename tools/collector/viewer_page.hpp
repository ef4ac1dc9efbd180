// The event viewer: one self-contained page that polls /api/events.
#pragma once

#include <string_view>

namespace zelvanor::collector {

std::string_view viewerPage();

}  // namespace zelvanor::collector
