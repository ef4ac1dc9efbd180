// Watches whether the internet is reachable and over which kind of link, and publishes it as a
// NetworkState. Flags come from the platform's route watch or from the host.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

#include "network/sources.hpp"
#include "platform/reachability_flags.hpp"
#include "support/serial_queue.hpp"
#include "support/subject.hpp"

namespace zelvanor::detail {

class ZReachability final : public NetworkMonitor,
                            public std::enable_shared_from_this<ZReachability> {
 public:
  using SourceFactory = std::function<std::unique_ptr<platform::ReachabilityFlagSource>()>;

  /// `worker` reads the first flags off the host's thread; null reads them on the caller's.
  explicit ZReachability(SourceFactory makeSource,
                         std::shared_ptr<support::SerialQueue> worker = nullptr)
      : makeSource_(std::move(makeSource)), worker_(std::move(worker)) {}
  ~ZReachability() override;

  /// bit 0x2 clear: offline; else 0x40000 set: mobile; else wifi.
  static NetworkState stateFor(std::uint32_t flags) noexcept;

  void startIfNeeded() override;
  support::CurrentValueSubject<NetworkState>& states() override { return states_; }
  /// Flags from the host; handled like a change reported by the platform, and from then on the
  /// platform's own reports are ignored (the host knows better, e.g. a VPN or a captive portal).
  /// Published before this returns: the next event the host tracks sees the new state.
  void pushFlags(std::uint32_t flags) override;
  /// Stops the platform watch; a first report not yet read is dropped.
  void stop() override;
  /// Waits until the first report, when one is being read on the worker, has been published.
  void waitForReports() {
    if (worker_) worker_->sync([] {});
  }

 private:
  void firstReport();
  void changed(std::uint32_t flags, bool fromHost);

  SourceFactory makeSource_;
  const std::shared_ptr<support::SerialQueue> worker_;
  std::mutex sourceMutex_;  // started_ and source_
  bool started_ = false;
  std::unique_ptr<platform::ReachabilityFlagSource> source_;
  // Reports come from the route watch's thread, the host's threads and the worker. One mutex,
  // held while the state is published, keeps the published order the order of decisions.
  std::mutex reportMutex_;
  std::uint32_t lastFlags_ = 0;
  bool reported_ = false;    // a first report was published
  bool hostDriven_ = false;  // once the host reports flags, the platform's are ignored
  support::CurrentValueSubject<NetworkState> states_{NetworkState::wifi};
};

}  // namespace zelvanor::detail
