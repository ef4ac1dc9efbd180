// A host process that ends while records are in flight: returning from main exits at once with
// status 0 and the next start delivers what was in flight; a forked child's calls do nothing, and
// its exit neither hangs on the SDK's threads (they do not exist in the child) nor stores the
// parent's records a second time.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>

#include "support/pending_files.hpp"
#include "support/sdk_host.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

using namespace std::chrono_literals;
using testing::ReceivedRequest;

// The forked child leaves its exit status here and ends through std::exit, so that the SDK's exit
// hook runs as in a host. This handler, registered before the SDK starts, runs after that hook and
// ends the child before LeakSanitizer's check: the memory of the parent's threads, which do not
// exist in a forked child, is never freed there by design.
bool inForkedChild = false;
int forkedChildStatus = 0;
const int childExitRegistered = std::atexit([] {
  if (inForkedChild) ::_exit(forkedChildStatus);
});

class HostExitTest : public ::testing::Test {
 protected:
  void TearDown() override {
    ZelvanorTracker::shutdown();
    ZelvanorTracker::setPlatformFacts({});
  }
  testing::TempDir dir;
  testing::HttpsTestServer server;
};

TEST_F(HostExitTest, InFlightRecordsSurviveReturnFromMainAndArriveAtTheNextStart) {
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
}

TEST_F(HostExitTest, AForkedChildLeavesTheParentsSdkAlone) {
  ASSERT_EQ(childExitRegistered, 0);
  server.setResponder([](const ReceivedRequest& r) { return testing::syncThenOk(r); });
  ASSERT_TRUE(testing::pointAt(server, dir.path()));
  ZelvanorTracker::setReachabilityFlags(0x2)
      .set(ZCommon({.serviceName = "fork", .deployment = "test"}))
      .set(ZId{.appUserId = "u"});
  ASSERT_TRUE(ZelvanorTracker::waitUntilReady(std::chrono::seconds(5)));
  // Three records wait in memory for the batch threshold.
  ZelvanorTracker::setBatchSize(10);
  for (int i = 0; i < 3; ++i) testing::track("parent-" + std::to_string(i));

  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    inForkedChild = true;
    ::alarm(10);  // a child whose exit hangs ends here, killed by the alarm's signal
    testing::track("child");
    ZelvanorTracker::flush();
    forkedChildStatus = ZelvanorTracker::getData().empty() ? 0 : 1;
    std::exit(forkedChildStatus);  // exit hooks run, as in a host
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
      << "the child exits promptly: " << status;
  EXPECT_FALSE(std::filesystem::exists(dir.path() / "ZLogs.tmp"))
      << "the child kept nothing, not even the parent's records";

  // The parent's SDK is untouched: its waiting records are kept once, at its own shutdown.
  ZelvanorTracker::shutdown();
  std::vector<std::string> kept;
  for (const auto& record : testing::pendingRecords(dir.path())) kept.push_back(record.action.name);
  EXPECT_EQ(kept, (std::vector<std::string>{"parent-0", "parent-1", "parent-2"}));
  for (const auto& request : server.received())
    EXPECT_EQ(request.body.find("\"child\""), std::string::npos) << "the child sent nothing";
}

}  // namespace
}  // namespace zelvanor
