// A started SDK pointed at a fresh local collector, identity known, ready to deliver: what the
// benchmarks against a real collector share. Needs the collector library.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "bench_support.hpp"
#include "collector.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor::bench {

struct CollectorSession {
  using Clock = std::chrono::steady_clock;
  TempDir dir;
  collector::Collector server{{.dataDirectory = dir.path / "collector"}};

  explicit CollectorSession(double timeoutSeconds = 10) {
    if (!server.start()) std::abort();
    const std::string base = server.baseUrl();
    ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.bench",
                                                     .appVersion = "1.0",
                                                     .dataDirectory = (dir.path / "app").string()});
    ZelvanorTracker::setEndpoints(ZEndpoints{base, base, base, server.caFile().string()});
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = timeoutSeconds, .batchSize = 1})
        .setReachabilityFlags(0x2)
        .set(ZId{.appUserId = "bench-user"})
        .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
    // Install and two launch events: once they are stored the triple is known.
    if (!waitForStored(3, std::chrono::seconds(10))) std::abort();
  }
  ~CollectorSession() { ZelvanorTracker::shutdown(); }
  CollectorSession(const CollectorSession&) = delete;
  CollectorSession& operator=(const CollectorSession&) = delete;

  bool waitForStored(std::uint64_t count, std::chrono::seconds limit) {
    const auto deadline = Clock::now() + limit;
    while (server.counters().storedRecords < count) {
      if (Clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
  }
};

}  // namespace zelvanor::bench
