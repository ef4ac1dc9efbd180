// The built zelvanor tool against a loopback collector: a script's records arrive, a faulty
// script sends nothing, and what is still in flight at the end waits in the pending file.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "support/https_test_server.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;
using testing::CannedResponse;
using testing::ReceivedRequest;

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

struct ToolRun {
  int code = -1;
  std::string out;
  std::string err;
};

// Runs the tool with `arguments` (already quoted for the shell).
ToolRun runTool(const testing::TempDir& dir, const std::string& arguments) {
  const fs::path out = dir.path() / "tool.out";
  const fs::path err = dir.path() / "tool.err";
  const std::string command = std::string(ZELVANOR_CLI) + " " + arguments + " >'" + out.string() +
                              "' 2>'" + err.string() + "'";
  const int status = std::system(command.c_str());
  ToolRun run;
  run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = slurp(out);
  run.err = slurp(err);
  return run;
}

std::string quoted(const fs::path& path) {
  return "'" + path.string() + "'";
}

struct CliBinaryTest : ::testing::Test {
  std::string endpointOptions() const {
    return "--track-url " + server.baseUrl() + " --sandbox-url " + server.baseUrl() +
           "/sandbox --sync-url " + server.baseUrl() + "/id --ca-file " + quoted(server.caFile()) +
           " --data-dir " + quoted(data()) + " --online";
  }
  // The collector as the tool meets it: the identity sync answered (under /id with the
  // endpoint options, at the root with --endpoint), every record taken after `delayMs`.
  void answerAll(int delayMs = 0) {
    server.setResponder([delayMs](const ReceivedRequest& r) {
      if (r.path.rfind("/id/sync", 0) == 0 || r.path.rfind("/sync", 0) == 0) {
        return CannedResponse{200, testing::kSyncAnswer, {}, 0};
      }
      return CannedResponse{200, "ok", {}, delayMs};
    });
  }
  fs::path data() const { return dir.path() / "data"; }
  fs::path writeScript(const std::string& text) const {
    const fs::path file = dir.path() / "script.jsonl";
    std::ofstream(file) << text;
    return file;
  }
  std::vector<ReceivedRequest> tracked(const std::string& path) const {
    std::vector<ReceivedRequest> found;
    for (const auto& r : server.received()) {
      if (r.path == path) found.push_back(r);
    }
    return found;
  }
  static bool anyHolds(const std::vector<ReceivedRequest>& requests, const std::string& text,
                       const std::string& also = {}) {
    for (const auto& r : requests) {
      if (r.body.find(text) != std::string::npos && r.body.find(also) != std::string::npos)
        return true;
    }
    return false;
  }

  testing::TempDir dir;
  testing::HttpsTestServer server;
};

TEST_F(CliBinaryTest, EveryOpReachesTheTrackerAndTheRecordsArrive) {
  answerAll();
  const auto action = [](const std::string& name) {
    return R"({"op":"set","block":"action","value":{"type":"event","name":")" + name +
           R"(","kind":"tap"}})"
           "\n";
  };
  // A lifecycle record takes the event blocks set before it, so a page marks which post made it.
  const auto page = [](const std::string& id) {
    return R"({"op":"set","block":"page","value":{"id":")" + id +
           R"(","name":"n","title":"t"}})"
           "\n";
  };
  // Every other kind of block, and what shows it in the records sent.
  struct Block {
    const char* name;
    const char* value;
    const char* shows;
  };
  const std::vector<Block> blocks = {
      {"agent", R"({"carrier":"acme-carrier"})", R"("carrier":"acme-carrier")"},
      {"agreement", R"({"cookie_agree":true})", R"("cookie_agree":true)"},
      {"click", R"({"layer1":"cli-layer"})", "\"cli-layer\""},
      {"location", R"({"city":"cli-city"})", "\"cli-city\""},
      {"promotion", R"({"name":"cli-promo"})", "\"cli-promo\""},
      {"status", R"({"code":201,"msg":"cli-status"})", "\"cli-status\""},
      {"usage", R"({"duration":77})", R"("duration":77)"},
      {"domain", R"({"search":{"keyword":"cli-keyword"}})", "\"cli-keyword\""},
      {"utm", R"({"utm_source":"cli-source"})", "\"cli-source\""},
      {"bucket", R"({"name":"cli-b0"})", "\"cli-b0\""},
      {"buckets", R"([{"name":"cli-b1"},{"name":"cli-b2"}])", "\"cli-b2\""},
      {"viewImpressionContent", R"({"id":"cli-v0"})", "\"cli-v0\""},
      {"viewImpressionContents", R"([{"id":"cli-v1"}])", "\"cli-v1\""},
  };
  std::string blockLines;
  for (const auto& b : blocks) {
    blockLines +=
        std::string(R"({"op":"set","block":")") + b.name + R"(","value":)" + b.value + "}\n";
  }
  const fs::path script = writeScript(
      "{\"op\":\"turnOffConsoleLogs\"}\n"
      "{\"op\":\"turnOnConsoleLogs\"}\n"
      "{\"op\":\"setRequired\",\"timeout\":10,\"batchSize\":1,\"usingSandboxEnvironment\":false}\n"
      "{\"op\":\"setTimeout\",\"value\":5}\n"
      "{\"op\":\"setProduction\"}\n"
      R"({"op":"set","block":"common","value":{"service_name":"cli-svc","deployment":"test"}})"
      "\n"
      R"({"op":"set","block":"id","value":{"app_user_id":"cli-user"}})"
      "\n"
      // The identity triple arrives meanwhile.
      "{\"op\":\"sleep\",\"ms\":800}\n"
      R"({"op":"set","block":"page","value":{"id":"p1","name":"home","title":"Home Title"}})"
      "\n" +
      blockLines +
      R"({"op":"set","block":"free","value":"cli-free-text"})"
      "\n" +
      action("cli-first") + "{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n" +
      action("cli-disabled") + "{\"op\":\"track\",\"verbose\":false,\"disabled\":true}\n" +
      "{\"op\":\"setDevelopment\"}\n"
      "{\"op\":\"setBatchSize\",\"value\":2}\n" +
      action("cli-held") + "{\"op\":\"track\",\"verbose\":true,\"disabled\":false}\n" +
      "{\"op\":\"flush\"}\n"
      // Each request takes the collector in force when the SDK's network thread builds it, so
      // the switches wait until what was tracked before them is out.
      "{\"op\":\"sleep\",\"ms\":600}\n"
      "{\"op\":\"useSandboxEnvironment\"}\n"
      "{\"op\":\"setBatchSize\",\"value\":1}\n" +
      action("cli-sandbox") + "{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n" +
      "{\"op\":\"sleep\",\"ms\":600}\n"
      "{\"op\":\"useGeneralEnvrionment\"}\n" +
      page("cli-resign") + "{\"op\":\"post\",\"event\":\"willResignActive\"}\n" +
      page("cli-foreground") + "{\"op\":\"post\",\"event\":\"willEnterForeground\"}\n" +
      page("cli-terminate") + "{\"op\":\"post\",\"event\":\"willTerminate\"}\n" +
      action("cli-data") + "{\"op\":\"getData\"}\n" + "{\"op\":\"sleep\",\"ms\":1500}\n");

  const ToolRun run = runTool(dir, "send -v " + endpointOptions() + " " + quoted(script));
  ASSERT_EQ(run.code, 0) << run.err;
  const std::string text = slurp(script);
  const auto lines = std::count(text.begin(), text.end(), '\n');

  const auto general = tracked("/sdk/track");
  const auto sandbox = tracked("/sandbox/sdk/track");
  std::string seen;
  for (const auto& r : server.received()) seen += r.path + " " + r.body.substr(0, 400) + "\n";
  ASSERT_TRUE(anyHolds(general, "\"cli-first\"")) << run.err << seen;
  for (const char* text : {"\"service_name\":\"cli-svc\"", "\"cli-user\"",
                           "\"title\":\"Home Title\"", "\"type\":\"production\""}) {
    EXPECT_TRUE(anyHolds(general, text)) << text;
  }
  for (const auto& b : blocks) EXPECT_TRUE(anyHolds(general, b.shows)) << b.name;
  EXPECT_FALSE(anyHolds(general, "cli-free-text")) << "the facade drops free text";
  EXPECT_TRUE(anyHolds(general, "\"cli-held\"")) << "flush sends what the batch size holds";
  EXPECT_TRUE(anyHolds(general, "\"type\":\"development\"")) << "setDevelopment";
  for (const auto& [pageId, kind] : {std::pair{"cli-resign", "background"},
                                     {"cli-foreground", "launch"},
                                     {"cli-terminate", "background"}}) {
    EXPECT_TRUE(anyHolds(general, "\"id\":\"" + std::string(pageId) + "\"",
                         "\"kind\":\"" + std::string(kind) + "\""))
        << "the record of the lifecycle event posted after page " << pageId;
  }
  EXPECT_TRUE(anyHolds(sandbox, "\"cli-sandbox\""));
  EXPECT_FALSE(anyHolds(general, "\"cli-sandbox\""));
  for (const auto& r : server.received()) {
    EXPECT_EQ(r.body.find("cli-disabled"), std::string::npos) << "a disabled track is dropped";
    EXPECT_EQ(r.body.find("cli-data"), std::string::npos) << "getData uses up its blocks";
  }

  EXPECT_NE(run.out.find("\"name\": \"cli-data\""), std::string::npos) << run.out;
  EXPECT_NE(run.err.find("line 1: turnOffConsoleLogs"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("ran " + std::to_string(lines) + " operations"), std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("0 waiting after it"), std::string::npos) << run.err;
  EXPECT_FALSE(fs::exists(data() / "ZLogs.tmp"));
}

TEST_F(CliBinaryTest, AFaultyScriptSendsNothingAtAll) {
  answerAll();
  const fs::path script =
      writeScript(R"({"op":"set","block":"action","value":{"type":"event","name":"x","kind":"y"}})"
                  "\n"
                  "{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n"
                  R"({"op":"set","block":"usage","value":{"duration":"long"}})"
                  "\n"
                  "{\"op\":\"flush\"}\n");
  const ToolRun run = runTool(dir, "send " + endpointOptions() + " " + quoted(script));
  EXPECT_EQ(run.code, 2);
  EXPECT_NE(
      run.err.find(
          "script.jsonl: line 3: block \"usage\" does not decode: type mismatch at value.duration"),
      std::string::npos)
      << run.err;
  EXPECT_NE(run.err.find("nothing was sent"), std::string::npos) << run.err;
  EXPECT_TRUE(server.received().empty()) << "not even an identity request";
  EXPECT_FALSE(fs::exists(data()));

  const ToolRun http = runTool(dir, "send --endpoint http://127.0.0.1:1 --data-dir " +
                                        quoted(data()) + " " + quoted(script));
  EXPECT_EQ(http.code, 2) << "the script is checked first";
  const fs::path good = writeScript("{\"op\":\"flush\"}\n");
  EXPECT_EQ(runTool(dir, "send --endpoint http://127.0.0.1:1 " + quoted(good)).code, 1);
  EXPECT_EQ(runTool(dir, "send --ca-file /nonexistent.pem " + quoted(good)).code, 3);
  EXPECT_TRUE(server.received().empty());
}

TEST_F(CliBinaryTest, RecordsInFlightAtTheEndWaitInThePendingFileForPendingShow) {
  answerAll(/*delayMs=*/3000);  // far longer than the run lasts
  const fs::path script = writeScript(
      R"({"op":"set","block":"common","value":{"service_name":"cli-svc","deployment":"test"}})"
      "\n"
      "{\"op\":\"sleep\",\"ms\":800}\n"
      R"({"op":"set","block":"action","value":{"type":"event","name":"cli-late-1","kind":"y"}})"
      "\n"
      "{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n"
      R"({"op":"set","block":"action","value":{"type":"event","name":"cli-late-2","kind":"y"}})"
      "\n"
      "{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n"
      "{\"op\":\"sleep\",\"ms\":200}\n");
  // The script comes in on standard input this time.
  const ToolRun run = runTool(dir, "send " + endpointOptions() + " - <" + quoted(script));
  ASSERT_EQ(run.code, 0) << run.err;
  const fs::path pending = data() / "ZLogs.tmp";
  ASSERT_TRUE(fs::exists(pending)) << run.err;
  EXPECT_NE(run.err.find("0 record(s) before the run"), std::string::npos) << run.err;

  // What the file holds is shown as cli_test checks in detail.
  const ToolRun show = runTool(dir, "pending show " + quoted(pending));
  EXPECT_EQ(show.code, 0) << show.out << show.err;
  EXPECT_NE(show.out.find("\"cli-late-1\""), std::string::npos) << show.out;
  EXPECT_NE(show.out.find("\"cli-late-2\""), std::string::npos) << show.out;
}

TEST_F(CliBinaryTest, TheSummarySaysWhatBecameOfEveryEventAndWaitWaitsForTheAnswers) {
  server.setResponder([](const ReceivedRequest& r) {
    if (r.path.rfind("/id/sync", 0) == 0) return CannedResponse{200, testing::kSyncAnswer, {}, 0};
    if (r.body.find("\"refuse-me\"") != std::string::npos) {
      return CannedResponse{400, "fail: bad record", {}, 0};
    }
    return CannedResponse{200, "ok", {}, 700};  // slower than the shutdown's grace
  });
  auto action = [](const std::string& name) {
    return R"({"op":"set","block":"action","value":{"type":"event","name":")" + name +
           R"(","kind":"y"}})" + "\n{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n";
  };
  const fs::path script = writeScript(
      "{\"op\":\"sleep\",\"ms\":800}\n" + action("before-common") +
      R"({"op":"set","block":"common","value":{"service_name":"cli-svc","deployment":"test"}})"
      "\n" +
      action("cli-ok-1") + action("cli-ok-2") + action("refuse-me") +
      R"({"op":"set","block":"page","value":{"id":"p","name":"n","title":"t"}})"
      "\n{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n"
      "{\"op\":\"setCollectionEnabled\",\"value\":false}\n" +
      action("while-off") + "{\"op\":\"setCollectionEnabled\",\"value\":true}\n");

  const ToolRun run = runTool(dir,
                              "send --wait 30 --header 'X-Tenant: acme' --header 'X-Env: t' "
                              "--proxy none " +
                                  endpointOptions() + " " + quoted(script));
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_NE(run.err.find("refused by the collector 1,"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("dropped 3 (no common block: 1, no action block: 1, collection off: 1)"),
            std::string::npos)
      << run.err;
  for (const auto& request : server.received()) {
    EXPECT_EQ(request.headers.count("X-Tenant"), 1u) << request.path;
    EXPECT_EQ(request.headers.count("X-Env"), 1u) << request.path;
  }
  EXPECT_FALSE(anyHolds(tracked("/sdk/track"), "\"while-off\""));
  // Errors reach stderr without asking: the dropped events say why.
  EXPECT_NE(run.err.find("no common block has been set"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("refused by the collector (HTTP 400), which answered \"fail: bad"),
            std::string::npos)
      << run.err;
  // The wait outlasted the slow answers: nothing was left for the next start.
  EXPECT_EQ(run.err.find("without an answer"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("0 waiting after it"), std::string::npos) << run.err;
  EXPECT_TRUE(anyHolds(tracked("/sdk/track"), "\"cli-ok-2\""));

  // A wait that ends first says so, and so does the exit code.
  const fs::path late = writeScript(
      R"({"op":"set","block":"common","value":{"service_name":"cli-svc","deployment":"test"}})"
      "\n" +
      action("cli-late"));
  const ToolRun shortWait =
      runTool(dir, "send --wait 0.3 " + endpointOptions() + " " + quoted(late));
  EXPECT_EQ(shortWait.code, 4) << shortWait.err;
  EXPECT_NE(shortWait.err.find("ended before every record had an answer"), std::string::npos)
      << shortWait.err;
}

TEST_F(CliBinaryTest, ThePinnedNetworkStateDecidesWhetherRecordsGoOut) {
  answerAll();
  const fs::path script = writeScript(
      R"({"op":"set","block":"common","value":{"service_name":"cli-svc","deployment":"test"}})"
      "\n"
      R"({"op":"set","block":"action","value":{"type":"event","name":"cli-offline","kind":"y"}})"
      "\n{\"op\":\"track\",\"verbose\":false,\"disabled\":false}\n");
  std::string options = endpointOptions();
  options.erase(options.find(" --online"));
  const ToolRun offline =
      runTool(dir, "send -v --wait 10 --network offline " + options + " " + quoted(script));
  ASSERT_EQ(offline.code, 0) << offline.err;
  EXPECT_TRUE(tracked("/sdk/track").empty()) << "offline sends nothing";
  EXPECT_NE(offline.err.find("kept on disk: the network is offline"), std::string::npos)
      << "-v says why: " << offline.err;
  EXPECT_NE(offline.err.find("delivered 0,"), std::string::npos) << offline.err;

  std::string mobileScript = slurp(script);
  mobileScript.replace(mobileScript.find("cli-offline"), 11, "cli-mobile");
  const ToolRun mobile = runTool(
      dir, "send --wait 10 --network mobile " + options + " " + quoted(writeScript(mobileScript)));
  ASSERT_EQ(mobile.code, 0) << mobile.err;
  EXPECT_TRUE(anyHolds(tracked("/sdk/track"), "\"cli-offline\""))
      << "the kept record goes out at the next start";
  EXPECT_TRUE(anyHolds(tracked("/sdk/track"), "\"cli-mobile\"", "\"network_state\":\"mobile\""))
      << "a record of a run pinned to mobile says so";

  EXPECT_EQ(runTool(dir, "send --network satellite " + options + " " + quoted(script)).code, 1);
  EXPECT_EQ(runTool(dir, "send --online --network offline " + options + " " + quoted(script)).code,
            1);
}

// The data directory holds the identity cookies and undelivered records: one the tool makes is
// the owner's alone (its parents as usual); one that exists keeps its mode.
TEST_F(CliBinaryTest, ADataDirectoryItMakesIsPrivateAndAnExistingOneKeepsItsMode) {
  answerAll();
  const fs::path script = writeScript("{\"op\":\"flush\"}\n");
  const auto send = [&](const std::string& dataDir) {
    return runTool(dir, "send --endpoint " + server.baseUrl() + " --ca-file " +
                            quoted(server.caFile()) + " --data-dir " + quoted(fs::path(dataDir)) +
                            " " + quoted(script));
  };
  // As an int, so a failure prints the mode in octal.
  const auto mode = [](const fs::path& path) {
    return static_cast<int>(fs::status(path).permissions() & fs::perms::mask);
  };

  const fs::path made = dir.path() / "parent" / "made";
  ToolRun run = send(made.string() + "/");
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(mode(made), 0700) << std::oct << mode(made);
  EXPECT_TRUE(fs::is_directory(dir.path() / "parent"));

  const fs::path existing = dir.path() / "existing";
  fs::create_directory(existing);
  fs::permissions(existing, fs::perms(0755));
  run = send(existing.string());
  ASSERT_EQ(run.code, 0) << run.err;
  EXPECT_EQ(mode(existing), 0755) << std::oct << mode(existing);

  const fs::path notADirectory = dir.path() / "file";
  std::ofstream(notADirectory) << "x";
  run = send(notADirectory.string());
  EXPECT_EQ(run.code, 3) << run.err;
  EXPECT_NE(run.err.find("cannot create data directory"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace zelvanor
