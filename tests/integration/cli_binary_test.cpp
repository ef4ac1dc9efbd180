// The built zelvanor tool against a loopback collector: a script's records arrive, a faulty
// script sends nothing, and what is still in flight at the end waits in the pending file. What
// runCli does with its arguments alone is cli_test's; here, the process, its files and the wire.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "support/https_test_server.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;
using testing::CannedResponse;
using testing::ReceivedRequest;

constexpr auto npos = std::string::npos;

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

std::string inQuotes(const fs::path& path) {
  return "'" + path.string() + "'";
}

const std::string kCommon =
    R"({"op":"set","block":"common","value":{"service_name":"cli-svc","deployment":"test"}})"
    "\n";
const std::string kTrack = "{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n";
// Time for the identity triple to arrive before anything is tracked.
const std::string kSleep = "{\"op\":\"sleep\",\"ms\":800}\n";

// The script lines that track one event named `name`.
std::string track(const std::string& name) {
  return R"({"op":"set","block":"action","value":{"type":"event","name":")" + name +
         R"(","kind":"y"}})"
         "\n" +
         kTrack;
}

struct ToolRun {
  int code = -1;
  std::string out;
  std::string err;
};

struct CliBinaryTest : ::testing::Test {
  // The collector as the tool meets it: the identity sync answered (under /id with the endpoint
  // options, at the root with --endpoint), a record named "refuse-me" refused, every other one
  // taken after `delayMs`.
  void SetUp() override {
    server.setResponder([this](const ReceivedRequest& r) {
      if (r.path.rfind("/id/sync", 0) == 0 || r.path.rfind("/sync", 0) == 0) {
        return CannedResponse{200, testing::kSyncAnswer, {}, 0};
      }
      if (r.body.find("\"refuse-me\"") != npos)
        return CannedResponse{400, "fail: bad record", {}, 0};
      return CannedResponse{200, "ok", {}, delayMs.load()};
    });
  }

  // Runs the tool with `arguments` (already quoted for the shell).
  ToolRun runTool(const std::string& arguments) const {
    const fs::path out = dir.path() / "tool.out";
    const fs::path err = dir.path() / "tool.err";
    const std::string command =
        std::string(ZELVANOR_CLI) + " " + arguments + " >" + inQuotes(out) + " 2>" + inQuotes(err);
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
  }
  // `zelvanor send` against the server, `arguments` ending with the script.
  ToolRun send(const std::string& arguments) const {
    return runTool("send --track-url " + server.baseUrl() + " --sandbox-url " + server.baseUrl() +
                   "/sandbox --sync-url " + server.baseUrl() + "/id --ca-file " +
                   inQuotes(server.caFile()) + " --data-dir " + inQuotes(data()) + " " + arguments);
  }
  fs::path data() const { return dir.path() / "data"; }
  std::string writeScript(const std::string& text) const {
    const fs::path file = dir.path() / "script.jsonl";
    std::ofstream(file) << text;
    return inQuotes(file);
  }
  std::vector<std::string> bodiesAt(const std::string& path) const {
    std::vector<std::string> found;
    for (const auto& r : server.received()) {
      if (r.path == path) found.push_back(r.body);
    }
    return found;
  }
  static bool anyHolds(const std::vector<std::string>& bodies, const std::string& text,
                       const std::string& also = {}) {
    return std::any_of(bodies.begin(), bodies.end(), [&](const std::string& body) {
      return body.find(text) != npos && body.find(also) != npos;
    });
  }

  testing::TempDir dir;
  testing::HttpsTestServer server;
  std::atomic<int> delayMs{0};
};

TEST_F(CliBinaryTest, EveryOpReachesTheTrackerAndTheRecordsArrive) {
  const fs::path script = fs::path(ZELVANOR_TEST_DATA_DIR) / "cli" / "every_op.jsonl";
  const ToolRun run = send("-v --online " + inQuotes(script));
  ASSERT_EQ(run.code, 0) << run.err;

  const auto general = bodiesAt("/sdk/track");
  ASSERT_TRUE(anyHolds(general, "\"cli-first\"")) << run.err;
  // What each op and block of the script shows in the records sent. The held record went out on
  // flush, before the batch of two was full.
  for (const char* text :
       {R"("service_name":"cli-svc")", "\"cli-user\"", R"("title":"Home Title")",
        R"("type":"production")", R"("carrier":"acme-carrier")", R"("cookie_agree":true)",
        "\"cli-layer\"", "\"cli-city\"", "\"cli-promo\"", "\"cli-status\"", R"("duration":77)",
        "\"cli-keyword\"", "\"cli-source\"", "\"cli-b0\"", "\"cli-b2\"", "\"cli-v0\"", "\"cli-v1\"",
        "\"cli-held\"", R"("type":"development")"}) {
    EXPECT_TRUE(anyHolds(general, text)) << text;
  }
  EXPECT_FALSE(anyHolds(general, "cli-free-text")) << "the facade drops free text";
  for (const auto& [pageId, kind] : {std::pair{"cli-resign", "background"},
                                     {"cli-foreground", "launch"},
                                     {"cli-terminate", "background"}}) {
    EXPECT_TRUE(anyHolds(general, "\"id\":\"" + std::string(pageId) + "\"",
                         "\"kind\":\"" + std::string(kind) + "\""))
        << "the record of the lifecycle event posted after page " << pageId;
  }
  EXPECT_TRUE(anyHolds(bodiesAt("/sandbox/sdk/track"), "\"cli-sandbox\""));
  EXPECT_FALSE(anyHolds(general, "\"cli-sandbox\""));
  for (const auto& r : server.received()) {
    EXPECT_EQ(r.body.find("cli-disabled"), npos) << "a disabled track is dropped";
    EXPECT_EQ(r.body.find("cli-data"), npos) << "getData uses up its blocks";
  }

  int ops = 0;
  std::istringstream lines(slurp(script));
  for (std::string line; std::getline(lines, line);) ops += line.starts_with("{") ? 1 : 0;
  EXPECT_NE(run.out.find("\"name\": \"cli-data\""), npos) << run.out;
  for (const std::string& said :
       {std::string("line 3: turnOffConsoleLogs"), "ran " + std::to_string(ops) + " operations",
        std::string("0 waiting after it")}) {
    EXPECT_NE(run.err.find(said), npos) << said << "\n" << run.err;
  }
  EXPECT_FALSE(fs::exists(data() / "ZLogs.tmp"));
}

TEST_F(CliBinaryTest, AFaultyScriptSendsNothingAtAll) {
  const std::string script = writeScript(
      track("x") + R"({"op":"set","block":"usage","value":{"duration":"long"}})" + "\n" + kTrack);
  const ToolRun run = send("--online " + script);
  EXPECT_EQ(run.code, 2);
  for (const char* said : {"script.jsonl: line 3: block \"usage\" does not decode: type mismatch "
                           "at value.duration",
                           "nothing was sent"}) {
    EXPECT_NE(run.err.find(said), npos) << said << "\n" << run.err;
  }
  EXPECT_TRUE(server.received().empty()) << "not even an identity request";
  EXPECT_FALSE(fs::exists(data()));
  EXPECT_EQ(runTool("send --endpoint http://127.0.0.1:1 " + script).code, 2)
      << "the script is checked before the options' values";
  EXPECT_EQ(runTool("send --ca-file /nonexistent.pem " + writeScript(kTrack)).code, 3);
  EXPECT_TRUE(server.received().empty());
}

TEST_F(CliBinaryTest, RecordsInFlightAtTheEndWaitInThePendingFileForPendingShow) {
  delayMs = 3000;  // far longer than the run lasts
  // The script comes in on standard input this time.
  const ToolRun run =
      send("--online - <" + writeScript(kCommon + kSleep + track("cli-late-1") +
                                        track("cli-late-2") + "{\"op\":\"sleep\",\"ms\":200}\n"));
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.err.find("0 record(s) before the run"), npos) << run.err;

  // What the file holds is shown as cli_test checks in detail.
  const ToolRun show = runTool("pending show " + inQuotes(data() / "ZLogs.tmp"));
  EXPECT_EQ(show.code, 0) << show.out << show.err;
  for (const char* name : {"\"cli-late-1\"", "\"cli-late-2\""}) {
    EXPECT_NE(show.out.find(name), npos) << show.out;
  }
}

TEST_F(CliBinaryTest, TheSummarySaysWhatBecameOfEveryEventAndWaitWaitsForTheAnswers) {
  delayMs = 700;  // slower than the shutdown's grace
  const std::string script =
      kSleep + track("before-common") + kCommon + track("cli-ok-1") + track("cli-ok-2") +
      track("refuse-me") +
      R"({"op":"set","block":"page","value":{"id":"p","name":"n","title":"t"}})" + "\n" + kTrack +
      "{\"op\":\"setCollectionEnabled\",\"value\":false}\n" + track("while-off") +
      "{\"op\":\"setCollectionEnabled\",\"value\":true}\n";
  const ToolRun run = send(
      "--online --wait 30 --header 'X-Tenant: acme' --header 'X-Env: t' "
      "--proxy none " +
      writeScript(script));
  ASSERT_EQ(run.code, 0) << run.err;
  // Errors reach stderr without asking: the dropped events say why. The wait outlasted the slow
  // answers: nothing was left for the next start.
  for (const char* said :
       {"refused by the collector 1,",
        "dropped 3 (no common block: 1, no action block: 1, collection off: 1)",
        "no common block has been set",
        "refused by the collector (HTTP 400), which answered \"fail: bad", "0 waiting after it"}) {
    EXPECT_NE(run.err.find(said), npos) << said << "\n" << run.err;
  }
  EXPECT_EQ(run.err.find("without an answer"), npos) << run.err;
  for (const auto& request : server.received()) {
    EXPECT_EQ(request.headers.count("X-Tenant"), 1u) << request.path;
    EXPECT_EQ(request.headers.count("X-Env"), 1u) << request.path;
  }
  EXPECT_FALSE(anyHolds(bodiesAt("/sdk/track"), "\"while-off\""));
  EXPECT_TRUE(anyHolds(bodiesAt("/sdk/track"), "\"cli-ok-2\""));

  // A wait that ends first says so, and so does the exit code.
  const ToolRun shortWait = send("--online --wait 0.3 " + writeScript(kCommon + track("cli-late")));
  EXPECT_EQ(shortWait.code, 4) << shortWait.err;
  EXPECT_NE(shortWait.err.find("ended before every record had an answer"), npos) << shortWait.err;
}

TEST_F(CliBinaryTest, ThePinnedNetworkStateDecidesWhetherRecordsGoOut) {
  const ToolRun offline =
      send("-v --wait 10 --network offline " + writeScript(kCommon + track("cli-offline")));
  ASSERT_EQ(offline.code, 0) << offline.err;
  EXPECT_TRUE(bodiesAt("/sdk/track").empty()) << "offline sends nothing";
  for (const char* said : {"kept on disk: the network is offline", "delivered 0,"}) {
    EXPECT_NE(offline.err.find(said), npos) << "-v says why: " << offline.err;
  }

  const ToolRun mobile =
      send("--wait 10 --network mobile " + writeScript(kCommon + track("cli-mobile")));
  ASSERT_EQ(mobile.code, 0) << mobile.err;
  EXPECT_TRUE(anyHolds(bodiesAt("/sdk/track"), "\"cli-offline\""))
      << "the kept record goes out at the next start";
  EXPECT_TRUE(anyHolds(bodiesAt("/sdk/track"), "\"cli-mobile\"", "\"network_state\":\"mobile\""))
      << "a record of a run pinned to mobile says so";
}

// The data directory holds the identity cookies and undelivered records: one the tool makes is
// the owner's alone (its parents as usual); one that exists keeps its mode.
TEST_F(CliBinaryTest, ADataDirectoryItMakesIsPrivateAndAnExistingOneKeepsItsMode) {
  const auto sendWith = [&](const std::string& dataDir) {
    return runTool("send --endpoint " + server.baseUrl() + " --ca-file " +
                   inQuotes(server.caFile()) + " --data-dir " + inQuotes(dataDir) + " " +
                   writeScript(kTrack));
  };
  // As an int, so a failure prints the mode in octal.
  const auto mode = [](const fs::path& path) {
    return static_cast<int>(fs::status(path).permissions() & fs::perms::mask);
  };
  const fs::path made = dir.path() / "parent" / "made";
  ToolRun run = sendWith(made.string() + "/");
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(mode(made), 0700) << std::oct << mode(made);

  const fs::path existing = dir.path() / "existing";
  fs::create_directory(existing);
  fs::permissions(existing, fs::perms(0755));
  run = sendWith(existing.string());
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(mode(existing), 0755) << std::oct << mode(existing);

  std::ofstream(dir.path() / "file") << "x";
  run = sendWith((dir.path() / "file").string());
  EXPECT_EQ(run.code, 3) << run.err;
  EXPECT_NE(run.err.find("cannot create data directory"), npos) << run.err;
}

}  // namespace
}  // namespace zelvanor
