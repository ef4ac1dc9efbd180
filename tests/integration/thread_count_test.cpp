// How many threads the SDK adds to its host, delivering to a loopback HTTPS server whose own
// threads are all started before the count begins.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <string>
#include <thread>

#include "support/sdk_host.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using testing::ReceivedRequest;

// What a started SDK runs: the worker (hand-overs, the pending file, timers, identity results,
// and between them the HTTP client's transfers) and the platform's route watch. A collector
// named by its address needs no name lookup, which libcurl would run on a thread of its own.
constexpr int kSdkThreads = 2;
constexpr int kTracked = 20;

int threadCount() {
  using Tasks = std::filesystem::directory_iterator;
  return static_cast<int>(std::distance(Tasks("/proc/self/task"), Tasks()));
}

TEST(ThreadCount, AStartedSdkAddsItsDocumentedThreadsAndShutdownEndsThem) {
  testing::TempDir dir;
  // ThreadSanitizer's runtime starts a thread of its own with the first other thread: one
  // started and joined here puts it in the baseline.
  std::thread([] {}).join();
  const int withoutServer = threadCount();
  std::atomic<int> tracked{0};
  testing::HttpsTestServer server;
  server.setResponder([&](const ReceivedRequest& r) {
    for (auto at = r.body.find("\"counted\""); at != std::string::npos;
         at = r.body.find("\"counted\"", at + 1))
      ++tracked;
    return testing::syncThenOk(r);
  });
  // The server's listener and its pool of 32 start a moment after it does.
  ASSERT_TRUE(testing::eventually([&] { return threadCount() == withoutServer + 33; }));
  const int before = threadCount();

  ASSERT_TRUE(testing::pointAt(server, dir.path()));
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
      .setReachabilityFlags(0x2)
      .set(ZId{.appUserId = "user-1"})
      .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  int most = threadCount();
  for (int i = 0; i < kTracked; ++i) {
    testing::track("counted");
    most = std::max(most, threadCount());
  }
  // All delivered means every part of the SDK (identity sync, delivery, the network) has run.
  for (int i = 0; i < 2000 && tracked < kTracked; ++i) {  // up to about twenty seconds
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    most = std::max(most, threadCount());
  }
  EXPECT_GE(tracked.load(), kTracked) << "the tracked events did not all arrive";
  EXPECT_EQ(most - before, kSdkThreads) << "the worker and the route watch, at every moment";

  ZelvanorTracker::shutdown();
  EXPECT_EQ(threadCount(), before) << "shutdown joins every thread the SDK started";
  ZelvanorTracker::setPlatformFacts({});
}

}  // namespace
}  // namespace zelvanor
