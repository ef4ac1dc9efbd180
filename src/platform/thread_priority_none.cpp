#include "platform/thread_priority.hpp"

namespace zelvanor::platform {

void lowerCurrentThreadPriority() noexcept {}

}  // namespace zelvanor::platform
