#include "platform/reachability_flags.hpp"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "support/data_table.hpp"

namespace zelvanor::platform {
namespace {

using std::chrono::steady_clock;

constexpr const char* kIpv4Header =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";

struct RouteCase {
  std::string label;
  std::string ipv4 = kIpv4Header;
  std::string ipv6;
  bool devices = false;  ///< links by device type (usb0 a modem, eth0's cable out), not by name
  std::uint32_t expected = 0;
};

/// The crafted route tables and what they mean (the file says how it is laid out).
std::vector<RouteCase> routeCases() {
  std::vector<RouteCase> cases;
  bool inIpv6 = false;
  for (const std::string& line : testing::dataLines("route_tables.txt")) {
    if (line.starts_with("#")) continue;
    if (line.starts_with("case ")) {
      std::istringstream fields(line.substr(5));
      std::string expected, links;
      RouteCase& next = cases.emplace_back();
      fields >> expected >> links >> std::ws;
      std::getline(fields, next.label);
      next.devices = links == "devices";
      if (expected != "0") next.expected = kReachableFlag;
      if (expected == "cellular") next.expected |= kIsWWANFlag;
      inIpv6 = false;
    } else if (line == "ipv6") {
      inIpv6 = true;
    } else {
      (inIpv6 ? cases.back().ipv6 : cases.back().ipv4) += line + "\n";
    }
  }
  return cases;
}

TEST(RouteTableFlags, TheDefaultRouteDecidesReachabilityAndItsLinkTheKind) {
  std::vector<std::string> asked;
  const LinkProbe devices = [&](std::string_view ifname) {
    asked.emplace_back(ifname);
    return LinkState{.carrier = ifname != "eth0", .cellular = ifname == "usb0"};
  };
  const auto cases = routeCases();
  ASSERT_EQ(cases.size(), 20u);
  for (const auto& c : cases) {
    EXPECT_EQ(flagsFromRouteTables(c.ipv4, c.ipv6, c.devices ? devices : LinkProbe{}), c.expected)
        << c.label;
  }
  EXPECT_EQ(flagsFromRouteTables("", "", {}), 0u);
  // Only candidate routes' links are probed.
  asked.clear();
  flagsFromRouteTables(std::string(kIpv4Header) +
                           "eth0\t0002A8C0\t0\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n" +
                           "usb0\t00000000\t0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n",
                       "", devices);
  EXPECT_EQ(asked, std::vector<std::string>{"usb0"});
}

TEST(SystemReachabilityFlagSource, StartsAndStopsPromptly) {
  std::unique_ptr<ReachabilityFlagSource> source = makeSystemReachabilityFlagSource();
  if (!source) GTEST_SKIP() << "no system reachability source on this platform";

  // Whatever the machine's network, the answer uses only the two bits.
  const std::optional<std::uint32_t> flags = source->currentFlags();
  ASSERT_TRUE(flags.has_value());
  EXPECT_EQ(*flags & ~(kReachableFlag | kIsWWANFlag), 0u);
  EXPECT_TRUE(!(*flags & kIsWWANFlag) || (*flags & kReachableFlag)) << "cellular, yet unreachable";

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
// touching the machine's own network. Runs in a child process, which reports by exit code: 0, 77
// when it cannot isolate itself, 10 when offline was not the first reading or the watch did not
// start, or 11 plus the step whose report did not come.
constexpr int kCannotIsolate = 77;
const struct {
  const char* commands;
  std::uint32_t report;
} kSteps[] = {
    {"ip route add default via 10.9.0.2 dev wwan0", kReachableFlag | kIsWWANFlag},
    {"ip route del default", 0},
    {"ip link add v1 type veth peer name lan0 && ip link set v1 up && ip link set lan0 up && "
     "ip addr add 10.8.0.1/24 dev lan0 && ip route add default via 10.8.0.2 dev lan0",
     kReachableFlag},
    // The far end goes down: lan0 keeps its default route but loses its carrier.
    {"ip link set v1 down", 0},
};

bool writeFile(const char* path, const std::string& text) {
  std::ofstream out(path);
  out << text << std::flush;
  return out.good();
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
  if (source->currentFlags() != 0u) return 10;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::uint32_t> reports;
  if (!source->start([&](std::uint32_t flags) {
        std::lock_guard lock(mutex);
        reports.push_back(flags);
        changed.notify_all();
      })) {
    return 10;
  }
  if (!run("ip link add v0 type veth peer name wwan0 && ip link set v0 up && "
           "ip link set wwan0 up && ip addr add 10.9.0.1/24 dev wwan0")) {
    return kCannotIsolate;  // no veth support here
  }
  for (int step = 0; step < static_cast<int>(std::size(kSteps)); ++step) {
    if (!run(kSteps[step].commands)) return 11 + step;
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, std::chrono::seconds(5), [&] {
          return !reports.empty() && reports.back() == kSteps[step].report;
        })) {
      return 11 + step;
    }
  }
  source->stop();
  return 0;
}

TEST(SystemReachabilityFlagSource, ReportsRouteChanges) {
  if (!makeSystemReachabilityFlagSource()) GTEST_SKIP() << "no system source on this platform";
  if (!run("ip -V")) GTEST_SKIP() << "needs the ip command";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::alarm(30);  // a watch that hangs ends the child by the signal
    ::_exit(watchRouteChangesInPrivateNetwork());
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status)) << "the watch hung";
  if (WEXITSTATUS(status) == kCannotIsolate) GTEST_SKIP() << "no private network namespace";
  EXPECT_EQ(WEXITSTATUS(status), 0) << "11 + N: no report after step N";
}

}  // namespace
}  // namespace zelvanor::platform
