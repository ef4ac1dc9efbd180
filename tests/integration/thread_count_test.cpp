// How many threads the SDK adds to its host. The collector runs as its own process, so the only
// threads this process gains are the SDK's.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;

// What a started SDK runs: the worker (hand-overs, the pending file, timers, identity results,
// and between them the HTTP client's transfers) and the platform's route watch. A collector
// named by its address needs no name lookup, which libcurl would run on a thread of its own.
constexpr int kSdkThreads = 2;
constexpr int kTracked = 20;

int threadCount() {
  int count = 0;
  for ([[maybe_unused]] const auto& entry : fs::directory_iterator("/proc/self/task")) ++count;
  return count;
}

class Collector {
 public:
  explicit Collector(const fs::path& dir) : dir_(dir) {
    const std::string data = (dir / "collector").string();
    const std::string portFile = (dir / "port").string();
    pid_ = ::fork();
    if (pid_ == 0) {
      // Only what was built before the fork is used until exec.
      ::execl(ZELVANOR_COLLECTOR, ZELVANOR_COLLECTOR, "--data-dir", data.c_str(), "--port-file",
              portFile.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    for (int i = 0; i < 1000 && port_ == 0; ++i) {  // up to ten seconds
      std::ifstream(portFile) >> port_;
      if (port_ == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~Collector() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
  }
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;

  bool running() const { return pid_ > 0 && port_ != 0; }
  std::string baseUrl() const { return "https://127.0.0.1:" + std::to_string(port_); }
  // The collector writes its certificate into its data directory.
  std::string caFile() const { return (dir_ / "collector" / "cert.pem").string(); }

  /// Events the collector has stored, read with its own --print-events (a process of its own).
  int storedEvents() const {
    const std::string command = std::string(ZELVANOR_COLLECTOR) + " --print-events --data-dir '" +
                                (dir_ / "collector").string() + "' 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return -1;
    char line[512];
    int events = -1;
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
      std::sscanf(line, "%d events", &events);
    }
    ::pclose(pipe);
    return events;
  }

 private:
  fs::path dir_;
  pid_t pid_ = -1;
  int port_ = 0;
};

TEST(ThreadCount, AStartedSdkAddsItsDocumentedThreadsAndShutdownEndsThem) {
  testing::TempDir dir;
  // ThreadSanitizer's runtime starts a thread of its own with the first other thread: one
  // started and joined here puts it in the baseline.
  std::thread([] {}).join();
  const int before = threadCount();
  Collector collector(dir.path());
  ASSERT_TRUE(collector.running());
  ASSERT_TRUE(fs::exists(collector.caFile())) << collector.caFile();

  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.threads",
                                                   .appVersion = "1.0",
                                                   .dataDirectory = (dir.path() / "app").string()});
  const std::string base = collector.baseUrl();
  ASSERT_TRUE(ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, collector.caFile()}));
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 10, .batchSize = 1})
      .setReachabilityFlags(0x2)
      .set(ZId{.appUserId = "user-1"})
      .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  int most = threadCount();
  for (int i = 0; i < kTracked; ++i) {
    ZelvanorTracker::set(ZAction("event", "e" + std::to_string(i), "tap")).track(false, false);
    most = std::max(most, threadCount());
  }
  // Install and launch events come first, then the tracked ones: all delivered means every part
  // of the SDK (identity sync, delivery, the network thread) has run.
  int stored = 0;
  for (int i = 0; i < 200 && stored < kTracked + 2; ++i) {  // up to about twenty seconds
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    most = std::max(most, threadCount());
    stored = collector.storedEvents();
  }
  EXPECT_GE(stored, kTracked + 2) << "the tracked events did not all arrive";
  EXPECT_EQ(most - before, kSdkThreads) << "the worker and the route watch, at every moment";

  ZelvanorTracker::shutdown();
  EXPECT_EQ(threadCount(), before) << "shutdown joins every thread the SDK started";
}

}  // namespace
}  // namespace zelvanor
