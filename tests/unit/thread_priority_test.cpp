// The SDK's threads yield to the host's: they run at a lower priority than the thread that
// started them.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/thread_priority.hpp"
#include "support/serial_queue.hpp"

namespace zelvanor {
namespace {

int currentThreadNice() {
  return ::getpriority(PRIO_PROCESS, static_cast<id_t>(::syscall(SYS_gettid)));
}

TEST(ThreadPriority, SdkQueuesRunBelowTheHostThread) {
  const int host = currentThreadNice();
  int worker = host;
  support::SerialQueue queue("com.zelvanor.test", &platform::lowerCurrentThreadPriority);
  queue.sync([&] { worker = currentThreadNice(); });
  if (host >= 19) GTEST_SKIP() << "the host already runs at the lowest priority";
  EXPECT_GT(worker, host);
  EXPECT_EQ(currentThreadNice(), host) << "the host thread itself is left alone";
}

}  // namespace
}  // namespace zelvanor
