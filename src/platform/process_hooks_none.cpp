#include "platform/process_hooks.hpp"

namespace zelvanor::platform {

void atFork(void (*)(), void (*)(), void (*)()) noexcept {}

}  // namespace zelvanor::platform
