#include <pthread.h>

#include "platform/process_hooks.hpp"

namespace zelvanor::platform {

void atFork(void (*prepare)(), void (*parent)(), void (*child)()) noexcept {
  // Fails only without memory for the handler; the SDK then behaves as before in a forked child.
  static_cast<void>(::pthread_atfork(prepare, parent, child));
}

}  // namespace zelvanor::platform
