#include "platform/reachability_flags.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zelvanor::platform {
namespace {

using std::chrono::steady_clock;

constexpr const char* kIpv4Header =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

std::string ipv4Route(const std::string& ifname, const std::string& destination,
                      const std::string& flags, int metric, const std::string& mask) {
  return ifname + "\t" + destination + "\t0101A8C0\t" + flags + "\t0\t0\t" +
         std::to_string(metric) + "\t" + mask + "\t0\t0\t0\n";
}

std::string ipv6Route(const std::string& destination, const std::string& prefix,
                      const std::string& metric, const std::string& flags,
                      const std::string& ifname) {
  return destination + " " + prefix +
         " 00000000000000000000000000000000 00 fe800000000000000000000000000001 " + metric +
         " 00000001 00000000 " + flags + "     " + ifname + "\n";
}

const std::string kZero6 = "00000000000000000000000000000000";
// What a kernel always has: its reject default route on lo and the loopback host route.
const std::string kIpv6Baseline =
    ipv6Route(kZero6, "00", "ffffffff", "00200200", "lo") +
    ipv6Route("00000000000000000000000000000001", "80", "00000000", "80200001", "lo");

// Links as the route tables alone would have them: every carrier there, cellular by name.
const LinkProbe nameOnly;

std::string defaultRoute(const std::string& ifname, int metric, const std::string& flags = "0003") {
  return ipv4Route(ifname, "00000000", flags, metric, "00000000");
}
std::string defaultRoute6(const std::string& ifname) {
  return ipv6Route(kZero6, "00", "00000400", "00000003", ifname);
}

TEST(RouteTableFlags, TheDefaultRouteDecidesReachabilityAndItsLinkTheKind) {
  // usb0 is a modem by its device type; eth0's cable is out.
  std::vector<std::string> asked;
  const LinkProbe probe = [&](std::string_view ifname) {
    asked.emplace_back(ifname);
    return LinkState{.carrier = ifname != "eth0", .cellular = ifname == "usb0"};
  };
  const std::string lan = ipv4Route("eth0", "0002A8C0", "0001", 0, "00FFFFFF");
  const std::string garbage =
      "eth0\t00000000\n"                                        // too few fields
      "eth0\t0000000G\t0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n"   // not hex
      "eth0\t00000000\t0\tzz\t0\t0\t0\t00000000\t0\t0\t0\n"     // flags not hex
      "eth0\t00000000\t0\t0003\t0\t0\t-1\t00000000\t0\t0\t0\n"  // negative metric
      "\n\n\t\t\n";
  constexpr std::uint32_t kUp = kReachableFlag, kCellular = kReachableFlag | kIsWWANFlag;
  struct Row {
    const char* label;
    std::string ipv4;  // without the header
    std::string ipv6;
    const LinkProbe& links;
    std::uint32_t expected;
  };
  const Row rows[] = {
      {"no default route", lan, kIpv6Baseline, nameOnly, 0},
      {"a default route", lan + defaultRoute("wlp2s0", 600), kIpv6Baseline, nameOnly, kUp},
      {"cellular by name", defaultRoute("wwan0", 700), "", nameOnly, kCellular},
      {"the lower metric carries the traffic",
       defaultRoute("wwan0", 700) + defaultRoute("wlp2s0", 600), "", nameOnly, kUp},
      {"a VPN's 0.0.0.0/1 is more specific than the modem's default",
       defaultRoute("wwan0", 700) + ipv4Route("tun0", "00000000", "0001", 900, "00000080"), "",
       nameOnly, kUp},
      {"loopback", defaultRoute("lo", 0, "0001"), "", nameOnly, 0},
      {"not up", defaultRoute("eth0", 0, "0002"), "", nameOnly, 0},
      {"unreachable", defaultRoute("*", 0, "0201"), "", nameOnly, 0},
      {"blackhole, which has no reject flag", defaultRoute("*", 0, "0001"), "", nameOnly, 0},
      {"0.0.0.0/8 is no way out", ipv4Route("eth0", "00000000", "0001", 0, "000000FF"), "",
       nameOnly, 0},
      {"only the baselines", "", kIpv6Baseline, nameOnly, 0},
      {"IPv6 default alone", "", kIpv6Baseline + defaultRoute6("enp0s31f6"), nameOnly, kUp},
      {"IPv6 cellular", "", kIpv6Baseline + defaultRoute6("rmnet_data0"), nameOnly, kCellular},
      {"a non-default IPv6 route", "",
       kIpv6Baseline +
           ipv6Route("fe800000000000000000000000000000", "40", "00000100", "00000001", "enp0s31f6"),
       nameOnly, 0},
      {"IPv4 wins over IPv6", defaultRoute("eth0", 100), defaultRoute6("rmnet_data0"), nameOnly,
       kUp},
      {"a modem by device type", defaultRoute("usb0", 0), "", probe, kCellular},
      {"no carrier: the next route is used", defaultRoute("eth0", 100) + defaultRoute("usb0", 700),
       "", probe, kCellular},
      {"no carrier and no other route", defaultRoute("eth0", 100), "", probe, 0},
      {"no carrier for IPv6 either", defaultRoute("eth0", 100), defaultRoute6("eth0"), probe, 0},
      {"garbage", garbage, garbage, nameOnly, 0},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(flagsFromRouteTables(kIpv4Header + row.ipv4, row.ipv6, row.links), row.expected)
        << row.label;
  }
  EXPECT_EQ(flagsFromRouteTables("", "", nameOnly), 0u);
  // Only candidate routes' links are probed.
  asked.clear();
  flagsFromRouteTables(kIpv4Header + lan + defaultRoute("usb0", 0), "", probe);
  EXPECT_EQ(asked, std::vector<std::string>{"usb0"});

  for (const char* name : {"wwan0", "rmnet0", "ccmni1", "ppp0"}) {
    EXPECT_TRUE(hasCellularInterfaceName(name)) << name;
  }
  for (const char* name : {"eth0", "wlan0", "usb0", "pp", ""}) {
    EXPECT_FALSE(hasCellularInterfaceName(name)) << name;
  }
}

TEST(SystemReachabilityFlagSource, StartsAndStopsPromptly) {
  std::unique_ptr<ReachabilityFlagSource> source = makeSystemReachabilityFlagSource();
  if (!source) GTEST_SKIP() << "no system reachability source on this platform";

  // Whatever the machine's network, the answer uses only the two bits.
  const std::optional<std::uint32_t> flags = source->currentFlags();
  ASSERT_TRUE(flags.has_value());
  EXPECT_EQ(*flags & ~(kReachableFlag | kIsWWANFlag), 0u);
  if (*flags & kIsWWANFlag) {
    EXPECT_TRUE(*flags & kReachableFlag);
  }

  std::atomic<int> calls{0};
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(source->start([&](std::uint32_t) { ++calls; }));
    EXPECT_FALSE(source->start([](std::uint32_t) {}));  // one watch at a time
    const auto started = steady_clock::now();
    source->stop();
    EXPECT_LT(steady_clock::now() - started, std::chrono::seconds(1));
    source->stop();
  }
  EXPECT_FALSE(source->start({}));

  // The destructor stops a running watch too.
  ASSERT_TRUE(source->start([&](std::uint32_t) { ++calls; }));
  const auto started = steady_clock::now();
  source.reset();
  EXPECT_LT(steady_clock::now() - started, std::chrono::seconds(1));
}

// The real watch, in a private network namespace where the test may add links and routes without
// touching the machine's own network. Runs in a child process, which reports by exit code.
enum ChildOutcome : int {
  kPassed = 0,
  kCannotIsolate = 77,
  kWrongInitialFlags = 10,
  kStartFailed,
  kNoCellularReport,
  kNoOfflineReport,
  kNoWifiReport,
  kNoCarrierStillReachable,
};

bool writeFile(const char* path, const std::string& text) {
  const int fd = ::open(path, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return ok;
}

bool enterPrivateNetwork() {
  if (::unshare(CLONE_NEWNET) == 0) return true;
  // Without privileges, a user namespace grants them inside it.
  const uid_t uid = ::geteuid();
  const gid_t gid = ::getegid();
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
  return writeFile("/proc/self/setgroups", "deny") &&
         writeFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
         writeFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

bool run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

int watchRouteChangesInPrivateNetwork() {
  if (!enterPrivateNetwork() || !run("ip link set lo up")) return kCannotIsolate;
  std::unique_ptr<ReachabilityFlagSource> source = makeSystemReachabilityFlagSource();
  if (source->currentFlags() != 0u) return kWrongInitialFlags;

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::uint32_t> reports;
  if (!source->start([&](std::uint32_t flags) {
        std::lock_guard lock(mutex);
        reports.push_back(flags);
        changed.notify_all();
      })) {
    return kStartFailed;
  }
  const auto awaitReport = [&](std::uint32_t wanted) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(5),
                            [&] { return !reports.empty() && reports.back() == wanted; });
  };

  if (!run("ip link add v0 type veth peer name wwan0") || !run("ip link set v0 up") ||
      !run("ip link set wwan0 up") || !run("ip addr add 10.9.0.1/24 dev wwan0")) {
    return kCannotIsolate;  // no veth support here
  }
  if (!run("ip route add default via 10.9.0.2 dev wwan0") ||
      !awaitReport(kReachableFlag | kIsWWANFlag)) {
    return kNoCellularReport;
  }
  if (!run("ip route del default") || !awaitReport(0)) return kNoOfflineReport;
  if (!run("ip link add v1 type veth peer name lan0") || !run("ip link set v1 up") ||
      !run("ip link set lan0 up") || !run("ip addr add 10.8.0.1/24 dev lan0") ||
      !run("ip route add default via 10.8.0.2 dev lan0") || !awaitReport(kReachableFlag)) {
    return kNoWifiReport;
  }
  // The far end goes down: lan0 keeps its default route but loses its carrier.
  if (!run("ip link set v1 down") || !awaitReport(0)) return kNoCarrierStillReachable;
  source->stop();
  return kPassed;
}

TEST(SystemReachabilityFlagSource, ReportsRouteChanges) {
  if (!makeSystemReachabilityFlagSource()) GTEST_SKIP() << "no system source on this platform";
  if (!run("ip -V")) GTEST_SKIP() << "needs the ip command";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) ::_exit(watchRouteChangesInPrivateNetwork());

  int status = 0;
  const auto deadline = steady_clock::now() + std::chrono::seconds(30);
  while (::waitpid(child, &status, WNOHANG) == 0) {
    if (steady_clock::now() > deadline) {
      ::kill(child, SIGKILL);
      ::waitpid(child, &status, 0);
      FAIL() << "the watch hung";
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == kCannotIsolate) GTEST_SKIP() << "no private network namespace";
  EXPECT_EQ(WEXITSTATUS(status), kPassed);
}

}  // namespace
}  // namespace zelvanor::platform
