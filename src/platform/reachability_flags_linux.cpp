// Linux reachability: the kernel announces link and route changes on a netlink socket; on each
// burst the route tables are read again to see whether a default route exists and whether it
// leaves through a cellular link.
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include "platform/reachability_flags.hpp"

namespace zelvanor::platform {
namespace {

std::optional<std::string> readProcFile(const char* path) {
  // /proc files report size 0, so read them as a stream to the end.
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return text;
}

bool isSafeInterfaceName(std::string_view ifname) {
  return !ifname.empty() && ifname != "." && ifname != ".." &&
         ifname.find('/') == std::string_view::npos;
}

// Whether the interface is operationally up. A link without a carrier (cable out, radio off,
// the far end down) keeps its routes but carries nothing. Asked through a socket, so the answer is
// that of the process's own network namespace; a link it cannot ask about counts as up.
bool isRunning(std::string_view ifname) {
  ifreq request{};
  if (ifname.size() >= sizeof(request.ifr_name)) return true;
  std::memcpy(request.ifr_name, ifname.data(), ifname.size());
  const int probe = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return true;
  const bool asked = ::ioctl(probe, SIOCGIFFLAGS, &request) == 0;
  ::close(probe);
  return !asked || (request.ifr_flags & IFF_RUNNING) != 0;
}

LinkState probeLinuxLink(std::string_view ifname) {
  LinkState link{.carrier = isRunning(ifname), .cellular = hasCellularInterfaceName(ifname)};
  if (!link.cellular && isSafeInterfaceName(ifname)) {
    std::ifstream uevent("/sys/class/net/" + std::string(ifname) + "/uevent");
    std::string line;
    while (std::getline(uevent, line)) {
      if (line == "DEVTYPE=wwan") link.cellular = true;
    }
  }
  return link;
}

std::optional<std::uint32_t> readSystemFlags() noexcept {
  try {
    const std::optional<std::string> ipv4 = readProcFile("/proc/net/route");
    const std::optional<std::string> ipv6 = readProcFile("/proc/net/ipv6_route");
    // A kernel without IPv6 has no ipv6_route; one readable table is enough to answer.
    if (!ipv4 && !ipv6) return std::nullopt;
    return flagsFromRouteTables(ipv4.value_or(""), ipv6.value_or(""), probeLinuxLink);
  } catch (...) {
    return std::nullopt;
  }
}

class NetlinkRouteFlagSource final : public ReachabilityFlagSource {
 public:
  ~NetlinkRouteFlagSource() override { stop(); }

  std::optional<std::uint32_t> currentFlags() override { return readSystemFlags(); }

  bool start(std::function<void(std::uint32_t)> onChange) override {
    std::lock_guard lock(mutex_);
    if (thread_.joinable() || !onChange) return false;
    const int socketFd =
        ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (socketFd < 0) return false;
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
    if (::bind(socketFd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      ::close(socketFd);
      return false;
    }
    const int stopFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stopFd < 0) {
      ::close(socketFd);
      return false;
    }
    try {
      thread_ = std::thread(&NetlinkRouteFlagSource::watch, socketFd, stopFd, std::move(onChange));
    } catch (...) {
      ::close(socketFd);
      ::close(stopFd);
      return false;
    }
    socketFd_ = socketFd;
    stopFd_ = stopFd;
    return true;
  }

  void stop() override {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) return;
    const std::uint64_t one = 1;
    (void)!::write(stopFd_, &one, sizeof(one));
    if (thread_.get_id() == std::this_thread::get_id()) {
      // Called from onChange despite the contract: joining itself would deadlock, so the thread
      // is left to see the stop and end; it still uses both descriptors, which therefore stay
      // open (two descriptors lost, rather than a hang or a reused descriptor).
      thread_.detach();
    } else {
      thread_.join();
      ::close(socketFd_);
      ::close(stopFd_);
    }
    socketFd_ = stopFd_ = -1;
  }

 private:
  // Static, and working on its own copies, so that a thread left to run out after a stop from
  // inside onChange never touches the (perhaps destroyed) source.
  static void watch(int socketFd, int stopFd,
                    std::function<void(std::uint32_t)> onChange) {  // NOLINT(performance-*)
    alignas(nlmsghdr) std::array<char, 16384> buffer;
    for (;;) {
      std::array<pollfd, 2> fds{{{stopFd, POLLIN, 0}, {socketFd, POLLIN, 0}}};
      if (::poll(fds.data(), fds.size(), -1) < 0) {
        if (errno == EINTR) continue;
        return;
      }
      if (fds[0].revents != 0 || (fds[1].revents & POLLNVAL) != 0) return;
      // Drain the burst (a link coming up sends many messages) and answer it once. An overrun
      // (ENOBUFS) lost messages, which counts as a change too.
      bool changed = false;
      for (int reads = 0; reads < kMaxReadsPerBurst; ++reads) {
        const ssize_t got = ::recv(socketFd, buffer.data(), buffer.size(), 0);
        if (got > 0 || (got < 0 && errno == ENOBUFS)) {
          changed = true;
          continue;
        }
        if (got < 0 && errno == EINTR) continue;
        if (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return;  // the socket is broken
        break;
      }
      if (!changed) continue;
      if (const std::optional<std::uint32_t> flags = readSystemFlags()) {
        try {
          onChange(*flags);
        } catch (...) {
          // An exception from the caller has nowhere to go on this thread.
        }
      }
    }
  }

  static constexpr int kMaxReadsPerBurst = 256;

  std::mutex mutex_;
  std::thread thread_;
  int socketFd_ = -1;
  int stopFd_ = -1;
};

}  // namespace

std::unique_ptr<ReachabilityFlagSource> makeSystemReachabilityFlagSource() {
  return std::make_unique<NetlinkRouteFlagSource>();
}

}  // namespace zelvanor::platform
