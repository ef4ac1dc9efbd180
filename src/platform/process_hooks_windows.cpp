// Windows has no fork: a child process starts from scratch and makes its own SDK state, so there
// is nothing to prepare or repair around one.
#include "platform/process_hooks.hpp"

namespace zelvanor::platform {

void atFork(void (*)(), void (*)(), void (*)()) noexcept {}

}  // namespace zelvanor::platform
