// Windows reachability: reachable when a default route (or a VPN's 0.0.0.0/1) leaves through an
// interface that is up and not a loopback; is-WWAN when that interface is a mobile broadband one.
// The tables are read again when the IP helper reports a route or interface change, and every
// thirty seconds besides: some systems (Wine among them) never send those notifications.
#include <winsock2.h>
#include <ws2tcpip.h>
// winsock2.h before windows.h and the IP helper headers.
#include <iphlpapi.h>
#include <netioapi.h>
#include <windows.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/reachability_flags.hpp"

namespace zelvanor::platform {
namespace {

// Mobile broadband interface types (ipifcons.h of newer SDKs; MinGW's lacks them).
constexpr ULONG kIfTypeWwanPp = 243;
constexpr ULONG kIfTypeWwanPp2 = 244;

struct Candidate {
  NET_LUID luid{};
  ULONG prefixLength = 0;
  ULONG metric = 0;
  bool ipv4 = false;
};

std::optional<std::uint32_t> readSystemFlags() noexcept {
  PMIB_IPFORWARD_TABLE2 table = nullptr;
  if (::GetIpForwardTable2(AF_UNSPEC, &table) != NO_ERROR || !table) return std::nullopt;
  std::optional<Candidate> best;
  for (ULONG i = 0; i < table->NumEntries; ++i) {
    const MIB_IPFORWARD_ROW2& row = table->Table[i];
    const ULONG length = row.DestinationPrefix.PrefixLength;
    const bool ipv4 = row.DestinationPrefix.Prefix.si_family == AF_INET;
    // A default route, or the half of one a VPN installs (0.0.0.0/1 and 128.0.0.0/1).
    if (length > 1 || (length == 1 && !ipv4)) continue;
    MIB_IF_ROW2 link{};
    link.InterfaceLuid = row.InterfaceLuid;
    if (::GetIfEntry2(&link) != NO_ERROR) continue;
    if (link.Type == IF_TYPE_SOFTWARE_LOOPBACK || link.OperStatus != IfOperStatusUp) continue;
    const Candidate candidate{row.InterfaceLuid, length, row.Metric, ipv4};
    // IPv4 wins over IPv6; then the most specific; then the lowest metric.
    if (!best || (candidate.ipv4 && !best->ipv4) ||
        (candidate.ipv4 == best->ipv4 &&
         (candidate.prefixLength > best->prefixLength ||
          (candidate.prefixLength == best->prefixLength && candidate.metric < best->metric)))) {
      best = candidate;
    }
  }
  ::FreeMibTable(table);
  if (!best) return 0u;
  MIB_IF_ROW2 link{};
  link.InterfaceLuid = best->luid;
  const bool cellular = ::GetIfEntry2(&link) == NO_ERROR &&
                        (link.Type == kIfTypeWwanPp || link.Type == kIfTypeWwanPp2);
  return kReachableFlag | (cellular ? kIsWWANFlag : 0u);
}

class IpHelperFlagSource final : public ReachabilityFlagSource {
 public:
  ~IpHelperFlagSource() override { stop(); }

  std::optional<std::uint32_t> currentFlags() override { return readSystemFlags(); }

  bool start(std::function<void(std::uint32_t)> onChange) override {
    std::lock_guard lock(mutex_);
    if (thread_.joinable() || !onChange) return false;
    stopping_ = false;
    changed_ = false;
    // Either notification may be missing; the slow poll still runs.
    if (::NotifyRouteChange2(AF_UNSPEC, &IpHelperFlagSource::notified, this, FALSE,
                             &routeNotification_) != NO_ERROR) {
      routeNotification_ = nullptr;
    }
    if (::NotifyIpInterfaceChange(AF_UNSPEC, &IpHelperFlagSource::notifiedInterface, this, FALSE,
                                  &interfaceNotification_) != NO_ERROR) {
      interfaceNotification_ = nullptr;
    }
    try {
      thread_ = std::thread([this, onChange = std::move(onChange)] { watch(onChange); });
    } catch (...) {
      cancelNotifications();
      return false;
    }
    return true;
  }

  void stop() override {
    {
      std::lock_guard lock(mutex_);
      if (!thread_.joinable()) return;
      stopping_ = true;
    }
    // Cancelling waits for callbacks under way, which take only mutex_ briefly.
    cancelNotifications();
    wake_.notify_all();
    if (thread_.get_id() == std::this_thread::get_id()) {
      thread_.detach();  // called from onChange despite the contract: it ends on its own
    } else {
      thread_.join();
    }
  }

 private:
  static void CALLBACK notified(PVOID self, PMIB_IPFORWARD_ROW2, MIB_NOTIFICATION_TYPE) {
    static_cast<IpHelperFlagSource*>(self)->signal();
  }
  static void CALLBACK notifiedInterface(PVOID self, PMIB_IPINTERFACE_ROW, MIB_NOTIFICATION_TYPE) {
    static_cast<IpHelperFlagSource*>(self)->signal();
  }

  void signal() {
    {
      std::lock_guard lock(mutex_);
      changed_ = true;
    }
    wake_.notify_all();
  }

  void cancelNotifications() {
    if (routeNotification_) ::CancelMibChangeNotify2(routeNotification_);
    if (interfaceNotification_) ::CancelMibChangeNotify2(interfaceNotification_);
    routeNotification_ = interfaceNotification_ = nullptr;
  }

  void watch(const std::function<void(std::uint32_t)>& onChange) {
    constexpr auto kPoll = std::chrono::seconds(30);
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      wake_.wait_for(lock, kPoll, [this] { return stopping_ || changed_; });
      if (stopping_) break;
      changed_ = false;
      lock.unlock();
      // A burst of notifications comes with one change; let it settle before reading.
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      if (const auto flags = readSystemFlags()) onChange(*flags);
      lock.lock();
    }
  }

  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  bool changed_ = false;
  HANDLE routeNotification_ = nullptr;
  HANDLE interfaceNotification_ = nullptr;
  std::thread thread_;
};

}  // namespace

std::unique_ptr<ReachabilityFlagSource> makeSystemReachabilityFlagSource() {
  return std::make_unique<IpHelperFlagSource>();
}

}  // namespace zelvanor::platform
