#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "platform/thread_priority.hpp"

namespace zelvanor::platform {

void lowerCurrentThreadPriority() noexcept {
  // On Linux the nice value is per thread. Five steps lower gives an SDK thread about a third of
  // a host thread's weight when they compete, which is enough for the scheduler not to preempt
  // the host on every wake-up.
  const auto thread = static_cast<id_t>(::syscall(SYS_gettid));
  errno = 0;
  const int current = ::getpriority(PRIO_PROCESS, thread);
  if (errno != 0) return;
  (void)::setpriority(PRIO_PROCESS, thread, current + 5 > 19 ? 19 : current + 5);
}

}  // namespace zelvanor::platform
