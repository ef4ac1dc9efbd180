// Returning from main with records in flight: the process exits at once with status 0, and the
// next start delivers what was in flight.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "support/sdk_host.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using testing::ReceivedRequest;

TEST(ExitTest, InFlightRecordsSurviveReturnFromMainAndArriveAtTheNextStart) {
  testing::TempDir dir;
  testing::HttpsTestServer server;
  // Identity answers at once; records are held far longer than the process lives.
  server.setResponder([](const ReceivedRequest& r) { return testing::syncThenOk(r, 4000); });
  const char* wrapper = std::getenv("ZELVANOR_CHILD_WRAPPER");
  const std::string command = std::string(wrapper ? wrapper : "") + ZELVANOR_EXIT_CHILD + " '" +
                              dir.path().string() + "' " + server.baseUrl() + " '" +
                              server.caFile().string() + "' 5";
  FILE* child = popen(command.c_str(), "r");
  ASSERT_NE(child, nullptr);
  long long returnedAtMicros = 0;
  const bool printed = std::fscanf(child, "%lld", &returnedAtMicros) == 1;
  const int status = pclose(child);
  const auto exitedAt = std::chrono::steady_clock::now().time_since_epoch() / 1us;
  ASSERT_TRUE(printed);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  // From main's return to the process being gone: the exit must not wait for the network.
  EXPECT_LT(exitedAt - returnedAtMicros, 1'000'000);
  EXPECT_TRUE(std::filesystem::exists(dir.path() / "ZLogs.tmp"));

  // Next start, in this process: the pending records go out at the first flush.
  server.setResponder([](const ReceivedRequest& r) { return testing::syncThenOk(r); });
  const auto before = server.received().size();
  ASSERT_TRUE(testing::pointAt(server, dir.path()));
  ZelvanorTracker::setReachabilityFlags(0x2).flush();
  for (int i = 0; i < 5; ++i) {
    const std::string name = "\"exit-" + std::to_string(i) + "\"";
    EXPECT_TRUE(testing::eventually([&] {
      const auto all = server.received();
      return std::any_of(all.begin() + before, all.end(), [&](const ReceivedRequest& r) {
        return r.body.find(name) != r.body.npos;
      });
    })) << name;
  }
  ZelvanorTracker::shutdown();
}

}  // namespace
}  // namespace zelvanor
