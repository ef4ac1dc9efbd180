// Watches whether the internet is reachable and over which kind of link, and publishes it as a
// NetworkState. Flags come from the platform's route watch or from the host.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "network/sources.hpp"
#include "platform/reachability_flags.hpp"
#include "platform/thread_priority.hpp"
#include "support/serial_queue.hpp"
#include "support/subject.hpp"

namespace zelvanor::detail {

class ZReachability final : public NetworkMonitor,
                            public std::enable_shared_from_this<ZReachability> {
 public:
  using SourceFactory = std::function<std::unique_ptr<platform::ReachabilityFlagSource>()>;

  explicit ZReachability(SourceFactory makeSource) : makeSource_(std::move(makeSource)) {}
  ~ZReachability() override;

  /// bit 0x2 clear: offline; else 0x40000 set: mobile; else wifi.
  static NetworkState stateFor(std::uint32_t flags) noexcept;

  void startIfNeeded() override;
  support::CurrentValueSubject<NetworkState>& states() override { return states_; }
  /// Flags from the host; handled like a change reported by the platform, and from then on the
  /// platform's own reports are ignored (the host knows better, e.g. a VPN or a captive portal).
  void pushFlags(std::uint32_t flags) override;
  /// Stops the platform watch and the reachability queue.
  void stop() override;
  /// Waits until reports handed over so far have been published.
  void waitForReports() {
    queue_.sync([] {});
  }

 private:
  void changed(std::uint32_t flags);        // on queue_
  void systemChanged(std::uint32_t flags);  // on queue_

  SourceFactory makeSource_;
  std::mutex mutex_;
  bool started_ = false;
  std::unique_ptr<platform::ReachabilityFlagSource> source_;
  std::uint32_t lastFlags_ = 0;  // touched on queue_ only
  bool reported_ = false;        // a first report was published (queue_)
  bool hostDriven_ = false;      // once the host reports flags, the platform's are ignored (queue_)
  support::CurrentValueSubject<NetworkState> states_{NetworkState::wifi};
  support::SerialQueue queue_{"ZReachability.reachability", &platform::lowerCurrentThreadPriority};
};

}  // namespace zelvanor::detail
