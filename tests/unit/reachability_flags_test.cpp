#include "platform/reachability_flags.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
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
  std::string ipv4;
  std::string ipv6;
  bool devices = false;  ///< links by device type (usb0 a modem, eth0's cable out), not by name
  std::uint32_t expected = 0;
};

/// The crafted route tables and what they mean (the file says how it is laid out).
std::vector<RouteCase> routeCases() {
  std::vector<RouteCase> cases;
  bool inIpv6 = false;
  for (const std::string& line : testing::dataLines("route_tables.txt")) {
    if (line.starts_with("case ")) {
      const std::uint32_t reachable = line.starts_with("case 0 ") ? 0 : kReachableFlag;
      cases.push_back(
          {.label = line,
           .ipv4 = kIpv4Header,
           .ipv6 = "",
           .devices = line.find(" devices ") != std::string::npos,
           .expected = line.starts_with("case cellular ") ? reachable | kIsWWANFlag : reachable});
      inIpv6 = false;
    } else if (line == "ipv6") {
      inIpv6 = true;
    } else if (!line.starts_with("#")) {
      (inIpv6 ? cases.back().ipv6 : cases.back().ipv4) += line + "\n";
    }
  }
  return cases;
}

TEST(RouteTableFlags, TheDefaultRouteDecidesReachabilityAndItsLinkTheKind) {
  const LinkProbe devices = [](std::string_view ifname) {
    EXPECT_NE(ifname, "eth9") << "only candidate routes' links are probed";
    return LinkState{.carrier = ifname != "eth0", .cellular = ifname == "usb0"};
  };
  const auto cases = routeCases();
  ASSERT_EQ(cases.size(), 21u);
  for (const auto& c : cases) {
    EXPECT_EQ(flagsFromRouteTables(c.ipv4, c.ipv6, c.devices ? devices : LinkProbe{}), c.expected)
        << c.label;
  }
  EXPECT_EQ(flagsFromRouteTables("", "", {}), 0u);
}

TEST(SystemReachabilityFlagSource, StartsAndStopsPromptly) {
  std::unique_ptr<ReachabilityFlagSource> source = makeSystemReachabilityFlagSource();
  if (!source) GTEST_SKIP() << "no system reachability source on this platform";

  // Whatever the machine's network, the answer uses only the two bits.
  const std::optional<std::uint32_t> flags = source->currentFlags();
  ASSERT_TRUE(flags.has_value());
  EXPECT_EQ(*flags & ~(kReachableFlag | kIsWWANFlag), 0u);
  EXPECT_TRUE(!(*flags & kIsWWANFlag) || (*flags & kReachableFlag)) << "cellular, yet unreachable";

  const auto ignore = [](std::uint32_t) {};
  for (int round = 0; round < 20; ++round) {
    ASSERT_TRUE(source->start(ignore));
    EXPECT_FALSE(source->start(ignore));  // one watch at a time
    const auto started = steady_clock::now();
    source->stop();
    EXPECT_LT(steady_clock::now() - started, std::chrono::seconds(1));
    source->stop();
  }
  EXPECT_FALSE(source->start({}));

  // The destructor stops a running watch too.
  ASSERT_TRUE(source->start(ignore));
  const auto started = steady_clock::now();
  source.reset();
  EXPECT_LT(steady_clock::now() - started, std::chrono::seconds(1));
}

bool run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// The real watch, in a private network namespace where the test may add links and routes without
// touching the machine's own network: the test runs itself again inside one (util-linux's
// unshare; without privileges, a user namespace grants them inside it), told by the environment.
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

TEST(SystemReachabilityFlagSource, ReportsRouteChanges) {
  if (!makeSystemReachabilityFlagSource()) GTEST_SKIP() << "no system source on this platform";
  if (!std::getenv("ZELVANOR_IN_PRIVATE_NETWORK")) {
    const std::string unshare = run("unshare -n true") ? "unshare -n " : "unshare -rn ";
    if (!run(unshare + "ip link add v0 type veth peer name wwan0")) {
      GTEST_SKIP() << "no private network namespace with virtual links (unshare, ip)";
    }
    // A watch that hangs is ended by the timeout; the run inside tells which step failed.
    EXPECT_EQ(std::system(("ZELVANOR_IN_PRIVATE_NETWORK=1 timeout 30 " + unshare +
                           std::filesystem::read_symlink("/proc/self/exe").string() +
                           " --gtest_filter=SystemReachabilityFlagSource.ReportsRouteChanges")
                              .c_str()),
              0);
    return;
  }
  ASSERT_TRUE(
      run("ip link set lo up && ip link add v0 type veth peer name wwan0 && "
          "ip link set v0 up && ip link set wwan0 up && ip addr add 10.9.0.1/24 dev wwan0"));
  // Declared before the source, so destroyed after it: its watch may still report meanwhile.
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::uint32_t> reports;
  std::unique_ptr<ReachabilityFlagSource> source = makeSystemReachabilityFlagSource();
  EXPECT_EQ(source->currentFlags(), 0u) << "offline first";
  ASSERT_TRUE(source->start([&](std::uint32_t flags) {
    std::lock_guard lock(mutex);
    reports.push_back(flags);
    changed.notify_all();
  }));
  for (const auto& step : kSteps) {
    ASSERT_TRUE(run(step.commands)) << step.commands;
    std::unique_lock lock(mutex);
    ASSERT_TRUE(changed.wait_for(lock, std::chrono::seconds(5),
                                 [&] { return !reports.empty() && reports.back() == step.report; }))
        << "no report after: " << step.commands;
  }
}

}  // namespace
}  // namespace zelvanor::platform
