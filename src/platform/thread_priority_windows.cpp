#include <windows.h>

#include "platform/thread_priority.hpp"

namespace zelvanor::platform {

void lowerCurrentThreadPriority() noexcept {
  // One step below normal: the SDK's threads yield to the host's when they compete, without
  // starving (THREAD_PRIORITY_LOWEST and below can wait behind a busy host for long stretches).
  (void)::SetThreadPriority(::GetCurrentThread(), THREAD_PRIORITY_BELOW_NORMAL);
}

}  // namespace zelvanor::platform
