// The host's privacy controls through the public facade, against a loopback HTTPS server that
// records every request: the collection switch, deleting the app's data (also with the process
// killed part way), the before-send hook, and extra headers and a proxy (Debian's tinyproxy).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "manager/local_data.hpp"
#include "support/child_host.hpp"
#include "support/data_table.hpp"
#include "support/pending_files.hpp"
#include "support/sdk_host.hpp"
#include "support/settings.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using testing::CannedResponse;
using testing::eventually;
using ::testing::HasSubstr;
using ::testing::Not;
using testing::ReceivedRequest;
using testing::track;

/// A loopback port nobody listens on now (tinyproxy has no port 0 to ask the kernel for one).
int freeLoopbackPort() {
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  const bool bound = ::bind(probe, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                     ::getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(probe);
  return bound ? ntohs(address.sin_port) : 0;
}

/// Names of the files in `dir` (none when it does not exist).
std::set<std::string> filesIn(const fs::path& dir) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(dir, error))
    names.insert(entry.path().filename().string());
  return names;
}

/// What must not survive a deletion: records, kept events, cookies, the mark of a deletion.
bool holdsAppData(const fs::path& dir) {
  for (const std::string& name : filesIn(dir)) {
    if ((name.rfind("ZLogs", 0) == 0 && name != "ZLogs.lock") || name == "ZTemplates.tmp" ||
        name == "cookies.txt" || name == "ZErasing")
      return true;
  }
  return testing::slurp(dir / "settings.json").find("latestAppVersion") != std::string::npos;
}

struct PrivacyTest : ::testing::Test {
  void SetUp() override {
    // Every sync answer is a new triple, also set as the three cookies a real server sets.
    server_.setResponder([this](const ReceivedRequest& request) {
      if (request.path.rfind("/sync", 0) != 0) return CannedResponse{200, "ok", {}, 0};
      const std::string n = std::to_string(++syncs_);
      CannedResponse answer;
      answer.body = R"({"version":1,"status":{"code":"0000","msg":"ok"},"data":[)";
      answer.body += R"({"cid":"c)" + n + R"(","did":"d)" + n + R"(","sid":"s)" + n + R"("}]})";
      for (const char* name : {"fa_cid=c", "fa_did=d", "fa_sid=s"})
        answer.headers.emplace_back("Set-Cookie", name + n + "; Max-Age=86400; Path=/");
      return answer;
    });
  }

  void TearDown() override {
    ZelvanorTracker::setBeforeSend({});
    newProcess();
  }
  // The switch as a fresh process has it, before it reads the settings file.
  static void newProcess() {
    ZelvanorTracker::shutdown();
    detail::settings().collectionEnabled = true;
    detail::settings().collectionSetByHost = false;
  }

  /// Starts the SDK as a host app's launch does: servers, configuration, the common block.
  void start(ZEndpoints endpoints = {}) {
    ASSERT_TRUE(testing::pointAt(server_, app(), std::move(endpoints)));
    ZelvanorTracker::setRequired(ZConfiguration{.timeout = 5, .batchSize = 1})
        .setReachabilityFlags(0x2)  // reachable
        .set(ZId{.appUserId = "user-7"})
        .set(ZCommon({.serviceName = "shop", .deployment = "production"}));
  }

  /// Whether a track request that arrived since the `from`th request holds `part`.
  bool arrived(const std::string& part, std::size_t from = 0) const {
    const auto received = server_.received();
    return std::any_of(received.begin() + from, received.end(), [&](const ReceivedRequest& r) {
      return r.path == "/sdk/track" && r.body.find(part) != r.body.npos;
    });
  }

  std::string app() const { return (dir_.path() / "app").string(); }

  testing::TempDir dir_;
  testing::HttpsTestServer server_;
  std::atomic<int> syncs_{0};
};

// Collection off, across starts, then on; then the app's data deleted while events are tracked, and
// the "forget me" recipe (off, then delete).
TEST_F(PrivacyTest, CollectionOffAndDeletingLocalDataLeaveNothingToSendAndStartOverFresh) {
  // Switched off before the first operation: not even the first start's sync request goes out.
  ZelvanorTracker::setCollectionEnabled(false);
  start();
  for (int i = 0; i < 3; ++i) track("off-" + std::to_string(i));
  ZelvanorTracker::post(ZLifecycleEvent::willResignActive);  // no background event either
  ZelvanorTracker::flush();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(server_.received().empty());
  const ZCounters counters = ZelvanorTracker::counters();
  EXPECT_EQ(std::pair(counters.dropped.collectionOff, counters.tracked), std::pair(4ul, 4ul));
  // Only the switch itself is written (and the store's lock file taken).
  EXPECT_EQ(filesIn(app()), (std::set<std::string>{"settings.json", "ZLogs.lock"}));

  // The next launch of the app (a fresh process: the settings file decides) stays off.
  newProcess();
  start();
  EXPECT_FALSE(ZelvanorTracker::collectionEnabled());
  track("still-off");
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_TRUE(server_.received().empty());

  // On again: the identity is asked for (the server's first triple, c1), the install the common
  // block announced is recorded, and events flow.
  ZelvanorTracker::setCollectionEnabled(true);
  track("on");
  ASSERT_TRUE(eventually([&] {
    return arrived("\"on\"") && arrived("\"install\"") && fs::exists(app() + "/cookies.txt");
  }));
  EXPECT_FALSE(arrived("off-") || arrived("still-off"));

  // Records kept on disk (offline), and others tracked while the deletion runs.
  ZelvanorTracker::setReachabilityFlags(0);
  for (int i = 0; i < 3; ++i) track("kept-" + std::to_string(i));
  ZelvanorTracker::flush();
  ASSERT_TRUE(eventually([] { return ZelvanorTracker::counters().keptOnDisk >= 3; }));
  std::thread racing([] {
    for (int i = 0; i < 200; ++i) track("racing");
  });
  ZelvanorTracker::deleteLocalData();
  racing.join();
  // With collection on, the SDK starts over at once (a new triple, a fresh install); nothing of the
  // old identity or its records is left.
  for (const std::string& payload : testing::pendingPayloads(app()))
    EXPECT_THAT(payload, Not(AnyOf(HasSubstr("kept-"), HasSubstr("\"c1\""))));
  EXPECT_EQ(testing::slurp(app() + "/cookies.txt").find("\tc1\n"), std::string::npos);

  // The "forget me" recipe: collection off, then delete. Nothing is left, at once.
  ZelvanorTracker::setCollectionEnabled(false);
  ZelvanorTracker::deleteLocalData();
  EXPECT_FALSE(holdsAppData(app())) << ::testing::PrintToString(filesIn(app()));
  EXPECT_EQ(ZelvanorTracker::counters().waitingOnDisk, 0u);
  ZelvanorTracker::shutdown();
  EXPECT_FALSE(holdsAppData(app())) << ::testing::PrintToString(filesIn(app()));

  // Headers and proxies that are refused change nothing.
  const ZEndpoints before = ZelvanorTracker::endpoints();
  for (const auto& row : testing::dataTable("privacy/refused_endpoints.txt")) {
    ZEndpoints bad = before;
    if (row.at(0) == "proxy") bad.proxy = row.at(1);
    if (row.at(0) == "header") bad.headers = {{row.at(1), row.at(2)}};
    EXPECT_FALSE(ZelvanorTracker::setEndpoints(bad));
    EXPECT_EQ(ZelvanorTracker::endpoints(), before);
  }

  // The next start, collection on, through a proxy with the host's headers and a before-send
  // hook: a fresh install with a triple never seen before; nothing kept before the deletions is
  // ever sent.
  ZelvanorTracker::setBeforeSend([](ZLogRecord& record) {
    // Calls that take the SDK's own locks: a hook run under them would deadlock here.
    ZelvanorTracker::set(ZId{.customId = "seen"});
    (void)ZelvanorTracker::counters();
    if (record.action.name == "secret") return false;
    if (record.id) record.id->appUserId = "masked";
    if (record.ucid) record.ucid->id = "masked";
    return true;
  });
  // The proxy opens tunnels only for user:pw (others get 401 or 407) and only to the server's port,
  // and logs each CONNECT it is asked for.
  const int proxyPort = freeLoopbackPort();
  const fs::path proxyLog = dir_.path() / "tinyproxy.log";
  std::ofstream(dir_.path() / "tinyproxy.conf")
      << "Listen 127.0.0.1\nPort " << proxyPort << "\nLogFile \"" << proxyLog.string()
      << "\"\nLogLevel Info\nBasicAuth user pw\nConnectPort " << server_.baseUrl().substr(18)
      << "\n";
  testing::ChildHost proxy(
      {"/usr/bin/tinyproxy", "-d", "-c", (dir_.path() / "tinyproxy.conf").string()});
  ASSERT_TRUE(eventually([&] {
    return testing::slurp(proxyLog).find("Accepting connections") != std::string::npos;
  })) << "tinyproxy (scripts/bootstrap installs it) did not start";
  const int syncsBefore = syncs_.load();
  const std::size_t from = server_.received().size();
  ZelvanorTracker::setCollectionEnabled(true);
  // Install and launch wait for the triple and meet the hook on the SDK's worker; "public" and
  // "secret" meet it on this thread.
  start(ZEndpoints{.headers = {{"X-Tenant", "acme"}, {"Authorization", "Bearer t0k"}},
                   .proxy = "http://user:pw@127.0.0.1:" + std::to_string(proxyPort)});
  ASSERT_TRUE(eventually([&] { return arrived("\"install\"", from); }));
  track("public");
  track("secret");
  ASSERT_TRUE(ZelvanorTracker::flushAndWait(std::chrono::seconds(5)));
  const auto received = server_.received();
  // Triples are numbered as the server issued them: this one came after the deletions.
  EXPECT_TRUE(std::any_of(received.begin() + from, received.end(), [&](const ReceivedRequest& r) {
    const auto cid = r.body.find("\"cid\":\"c");
    return r.body.find("\"install\"") != r.body.npos && cid != r.body.npos &&
           std::atoi(r.body.c_str() + cid + 8) > syncsBefore;
  }));
  EXPECT_TRUE(arrived("\"public\"", from) && arrived("masked", from));
  EXPECT_FALSE(arrived("kept-") || arrived("\"secret\"") || arrived("user-7", from));
  EXPECT_EQ(ZelvanorTracker::counters().dropped.beforeSend, 1u);
  for (std::size_t i = from; i < received.size(); ++i) {
    EXPECT_EQ(received[i].headers.count("X-Tenant"), 1u) << received[i].path;
    EXPECT_EQ(received[i].headers.find("Authorization")->second, "Bearer t0k");
  }
  // Through the proxy: it opened a tunnel, so the credentials were right and the port the server's.
  EXPECT_THAT(testing::slurp(proxyLog), HasSubstr("Established connection to host \"127.0.0.1\""));

  // "none" goes direct even when the environment names a proxy (here one that is not there), and
  // the proxy used so far is gone, so that no tunnel kept open from before can carry the request.
  ASSERT_TRUE(proxy.kill());
  ::setenv("https_proxy", "http://127.0.0.1:9", 1);
  ZEndpoints direct = ZelvanorTracker::endpoints();
  direct.proxy = "none";
  ASSERT_TRUE(ZelvanorTracker::setEndpoints(direct));
  track("direct");
  EXPECT_TRUE(eventually([&] { return arrived("\"direct\""); }));
  ::unsetenv("https_proxy");
}

// A host killed at any moment while it deletes its data: the next start finds either all of it
// (killed before the deletion began) or none of it, never a part it would take for data.
TEST(PrivacyCrash, KilledWhileDeletingLeavesAllOrNothing) {
  testing::TempDir dir;
  constexpr int kSegments = 1000;  // many files, so that kills land part way through
  std::mt19937 random(std::random_device{}());
  // The kill moment closes in on where the deletion happens: after a kill that left everything the
  // next one comes later, after one that left nothing it comes sooner.
  int earliest = 0, latest = 300000;
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const fs::path app = dir.path() / ("app" + std::to_string(round));
    fs::create_directories(app);
    for (int n = 1; n <= kSegments; ++n)
      std::ofstream(app / ("ZLogs.tmp." + std::to_string(n)), std::ios::binary)
          << testing::framed({testing::namedRecord(std::to_string(n))});
    std::ofstream(app / "cookies.txt") << "127.0.0.1\tFALSE\t/\tTRUE\t4102444800\tfa_cid\tc\n";
    std::ofstream(app / "settings.json") << "{\"latestAppVersion\":\"1.0\"}\n";

    // Killed at a random moment after the deletion starts (or, now and then, just before).
    testing::ChildHost child({ZELVANOR_CRASH_CHILD, app.string(), "erase"});
    ASSERT_TRUE(child.said("erasing"));
    const int delay = std::uniform_int_distribution<int>(earliest, latest)(random);
    std::this_thread::sleep_for(std::chrono::microseconds(delay));
    child.kill();

    // What the next start does before it reads anything.
    detail::local_data::finishInterruptedErase(app);
    const std::size_t records = testing::pendingPayloads(app).size();
    const bool all =
        records == kSegments && fs::exists(app / "cookies.txt") &&
        testing::slurp(app / "settings.json").find("latestAppVersion") != std::string::npos;
    EXPECT_TRUE(all || !holdsAppData(app)) << records << " records, some data left";
    (all ? earliest : latest) = delay;
  }
}

}  // namespace
}  // namespace zelvanor
