// The zelvanor tool's script reader, pending-file inspector and commands, driven in-process.
// (Running scripts against a collector is tests/integration/cli_binary_test.cpp.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli.hpp"
#include "pending.hpp"
#include "script.hpp"
#include "store/pending_store.hpp"
#include "support/shared_tracker.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/zelvanor.h"

namespace zelvanor::cli {
namespace {

namespace fs = std::filesystem;

const fs::path kData = fs::path(ZELVANOR_TEST_DATA_DIR);

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

template <class T>
const T& as(const ScriptStep& step) {
  const T* value = std::get_if<T>(&step.operation);
  if (!value) throw std::runtime_error("line " + std::to_string(step.line) + " is " + step.name);
  return *value;
}

// ----- script ---------------------------------------------------------------------------------

// Every op runs through the built tool against a server (cli_binary_test); here, what only the
// reader shows: line numbers past comments, blank and CRLF lines, values that a run does not
// echo, and a last line without a newline.
TEST(CliScript, LinesAndValuesAreReadAsWritten) {
  const Script script = parseScript(
      "# a session\n"
      "{\"op\":\"setRequired\",\"timeout\":10,\"batchSize\":3,\"usingSandboxEnvironment\":true}\n"
      "\n"
      "{\"op\":\"setTimeout\",\"value\":2.5}\r\n"
      "{\"op\":\"setBatchSize\",\"value\":0}\n"
      "{\"op\":\"track\",\"verbose\":true,\"disabled\":false}\n"
      "{\"op\":\"deleteLocalData\"}");
  for (const auto& e : script.errors) ADD_FAILURE() << describe(e);
  ASSERT_EQ(script.steps.size(), 5u);
  EXPECT_EQ(as<op::SetRequired>(script.steps[0]).configuration, (ZConfiguration{10, 3, true}));
  EXPECT_EQ(script.steps[0].line, 2u);
  EXPECT_EQ(script.steps[1].line, 4u) << "blank and comment lines still count";
  EXPECT_EQ(as<op::SetTimeout>(script.steps[1]).value, 2.5);
  EXPECT_EQ(as<op::SetBatchSize>(script.steps[2]).value, 0u);
  EXPECT_TRUE(as<op::Track>(script.steps[3]).verbose);
  EXPECT_FALSE(as<op::Track>(script.steps[3]).disabled);
  as<op::DeleteLocalData>(script.steps[4]);
  EXPECT_EQ(script.steps[4].line, 7u) << "a last line without a newline is read too";
}

TEST(CliScript, TheShippedExampleIsValid) {
  std::ifstream in(fs::path(ZELVANOR_SOURCE_DIR) / "tools" / "cli" / "example.jsonl");
  const Script script = parseScript(std::string(std::istreambuf_iterator<char>(in), {}));
  for (const auto& e : script.errors) ADD_FAILURE() << describe(e);
  EXPECT_EQ(script.steps.size(), 15u);
}

// A common block from a script is built as the C API builds one from the same text: through the
// common block's constructor, which derives access_time from access_timestamp in the device's
// zone and falls back to the bundle identifier for svcdomain. A given access_time or
// request_timestamp is not the host's to give and does not survive.
class CliAgreesWithTheCApi : public testing::SharedTrackerTest {
 protected:
  void SetUp() override {
    SharedTrackerTest::SetUp();
    setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.agree",
                                    .appVersion = "1.0",
                                    .dataDirectory = dir.path().string()});
    ZelvanorTracker::setDevelopment();  // starts the shared instance
    deliverTriple();
    ZelvanorTracker::set(ZId{.appUserId = "u"});  // getData gives a record once ids are known
  }
};

// The common block of the record in getData's text.
ZCommon commonOf(const std::string& data) {
  auto record = decodeJson<ZLogRecord>(data);
  if (!record || !record->common) throw std::runtime_error("no common block in: " + data);
  ZCommon common = *record->common;
  common.requestTimeStamp.reset();  // the manager's own stamp, taken at getData
  return common;
}

TEST_F(CliAgreesWithTheCApi, OnTheCommonBlocksDerivedMembers) {
  const std::string action = R"({"type":"event","name":"n","kind":"k"})";
  const auto throughTheCApi = [&](const std::string& json) {
    char* text = nullptr;
    EXPECT_EQ(zelvanor_set("common", json.c_str()), ZELVANOR_OK) << zelvanor_last_error();
    EXPECT_EQ(zelvanor_set("action", action.c_str()), ZELVANOR_OK) << zelvanor_last_error();
    EXPECT_EQ(zelvanor_get_data(&text), ZELVANOR_OK);
    const std::string data = text ? text : "";
    zelvanor_string_free(text);
    return commonOf(data);
  };
  const auto throughTheScript = [&](const std::string& json) {
    const Script script = parseScript(R"({"op":"set","block":"common","value":)" + json + "}\n" +
                                      R"({"op":"set","block":"action","value":)" + action + "}\n" +
                                      R"({"op":"getData"})");
    EXPECT_TRUE(script.ok());
    std::ostringstream out;
    RunCounts counts;
    for (const auto& step : script.steps) runStep(step, out, counts);
    return commonOf(out.str());
  };
  const auto derived = [](std::int64_t stamp) {
    return ZCommon(ZCommon::Fields{.accessTimeStamp = stamp}).accessTime;
  };
  struct Case {
    std::string json;
    std::optional<std::string> svcDomain;
    std::optional<std::string> accessTime;
  };
  const std::vector<Case> cases = {
      {R"({"service_name":"s","deployment":"d","access_timestamp":1700000000})",
       "com.example.agree", derived(1700000000)},
      {R"({"service_name":"s","deployment":"d","svcdomain":"example.org","access_timestamp":0,)"
       R"("access_time":"given","request_timestamp":5})",
       "example.org", derived(0)},
      {R"({"service_name":"s","deployment":"d","access_time":"given"})", "com.example.agree",
       std::nullopt},
      {R"({"service_name":"s","deployment":"d","svcdomain":null,"url":"https://example.org/a"})",
       "com.example.agree", std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    const ZCommon fromScript = throughTheScript(c.json);
    EXPECT_EQ(throughTheCApi(c.json), fromScript);
    EXPECT_EQ(std::tuple(fromScript.serviceName, fromScript.svcDomain, fromScript.accessTime),
              std::tuple("s", c.svcDomain, c.accessTime));
  }
  // The last case's other members come through as given.
  EXPECT_EQ(throughTheScript(cases.back().json).url, "https://example.org/a");
}

// Each faulty line of the table names its fault; the table is data (tests/data/cli), every line
// of it is reported, each with its own line number, and the good lines around them are kept.
TEST(CliScript, EveryKindOfFaultIsReportedWithItsLineAndNothingElseIsLost) {
  std::vector<std::pair<std::string, std::string>> cases;  // (line, a part of the message)
  std::istringstream table(slurp(kData / "cli" / "script_faults.txt"));
  for (std::string row; std::getline(table, row);) {
    if (!row.starts_with("#"))
      cases.emplace_back(row.substr(0, row.find('\t')), row.substr(row.find('\t') + 1));
  }
  ASSERT_GE(cases.size(), 20u);
  std::string text = "{\"op\":\"flush\"}\n";
  for (const auto& c : cases) text += c.first + "\n";
  const Script script = parseScript(text + "{\"op\":\"getData\"}\n");
  EXPECT_FALSE(script.ok());
  ASSERT_EQ(script.errors.size(), cases.size()) << "every faulty line is reported, not just one";
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const ScriptError& error = script.errors[i];
    EXPECT_NE(error.message.find(cases[i].second), std::string::npos)
        << cases[i].first << "\n  gave: " << error.message;
    EXPECT_EQ(describe(error).rfind("line " + std::to_string(i + 2) + ": ", 0), 0u);
  }
  ASSERT_EQ(script.steps.size(), 2u);
  EXPECT_EQ(script.steps[1].line, cases.size() + 2);
}

// ----- pending show ---------------------------------------------------------------------------

using Kind = PendingPiece::Kind;

struct CliRun {
  int code;
  std::string out;
  std::string err;
};

CliRun run(const std::vector<std::string>& args) {
  std::ostringstream out, err;
  const int code = runCli(args, out, err);
  return {code, out.str(), err.str()};
}

// The inspector must agree with what the SDK itself makes of a file at its next start (the
// records it sends, the payloads it quarantines, the pieces it reads past), name each bad piece,
// and show every piece without ever changing the file.
TEST(CliPending, FixturesAreSplitAsTheSdkReadsThemAndShownUnchanged) {
  struct Case {
    std::string file;
    std::array<std::size_t, 4> counts;  // frames, undecodable, skipped, torn
    std::string said;                   // in the output of `pending show`
    std::string advice;                 // in its summary
  };
  const std::vector<Case> cases = {
      {"pending_good.bin", {3, 0, 0, 0}, "frame 1 offset 192 length ", "would restore 3 records."},
      {"pending_undecodable.bin",
       {3, 1, 0, 0},
       "undecodable: data corrupted at sdk.type",
       "restore 2 records and move 1 undecodable payload aside"},
      {"pending_torn.bin",
       {2, 0, 0, 1},
       ": torn end: length 220 but only 40 bytes follow",
       "restore 2 records and read past 48 bytes"},
      {"pending_torn_length.bin",
       {1, 0, 0, 1},
       ": torn end: the length field has only 3 of 8 bytes",
       "restore 1 record and read past 3 bytes"},
      {"pending_negative.bin",
       {1, 0, 0, 1},
       ": torn end: length -",
       "restore 1 record and read past"},
      {"pending_negative_middle.bin",
       {3, 0, 1, 0},
       "skipped offset 192 size 15: bytes that are no whole frame, skipped (length -5)",
       "restore 3 records and read past 15 bytes"},
      {"pending_zero_tail.bin",
       {2, 0, 0, 1},
       "torn offset 471 size 64: torn end: length 0 names no frame and no whole frame follows",
       "restore 2 records and read past 64 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string content = slurp(kData / "cli" / c.file);
    const PendingReport report = inspectPending(content);
    EXPECT_EQ(report.size, content.size());
    EXPECT_EQ((std::array{report.frames(), report.undecodable(), report.skipped(), report.torn()}),
              c.counts);

    testing::TempDir dir;
    const fs::path file = dir.path() / "ZLogs.tmp";
    fs::copy_file(kData / "cli" / c.file, file);
    // An old stamp, so that any write would show.
    const auto stamp = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(file, stamp);
    const CliRun shown = run({"pending", "show", file.string()});
    EXPECT_EQ(slurp(file), content);
    EXPECT_EQ(fs::last_write_time(file), stamp);
    EXPECT_EQ(shown.code, c.counts[1] + c.counts[2] + c.counts[3] == 0 ? kOk : kInvalid);
    EXPECT_NE(shown.out.find(c.said), std::string::npos) << shown.out;
    EXPECT_NE(shown.err.find(c.advice), std::string::npos) << shown.err;
    // Pieces tile the file from offset 0; every record is shown.
    std::uint64_t offset = 0;
    for (const auto& piece : report.pieces) {
      EXPECT_EQ(piece.offset, offset);
      offset += piece.size;
      if (piece.kind == Kind::frame && !piece.error) {
        EXPECT_NE(shown.out.find(std::string(piece.payload)), std::string::npos);
      }
    }
    EXPECT_EQ(offset, content.size());

    detail::PendingStore store(dir.path(), ZStoreLimits{});
    store.open();
    std::size_t sent = 0;
    for (; sent < 100; ++sent) {
      auto read = store.next();
      if (!read) break;
      store.answered(read->ref);
    }
    EXPECT_EQ(sent, report.restorable());
    EXPECT_EQ(store.counts().quarantined, report.undecodable());
    // A skipped piece is read past; a torn end is cut off when the start counts the records.
    EXPECT_EQ(store.counts().skippedPieces, report.skipped() + report.torn());
  }
  EXPECT_TRUE(inspectPending("").pieces.empty());
  const CliRun pretty =
      run({"pending", "show", "--pretty", (kData / "cli" / "pending_good.bin").string()});
  EXPECT_EQ(pretty.code, kOk);
  EXPECT_NE(pretty.out.find("\n  \"xid\": {"), std::string::npos) << pretty.out;
  const fs::path missing = kData / "cli" / "missing";
  EXPECT_EQ(run({"pending", "show", missing.string()}).code, kRuntime);
  EXPECT_FALSE(fs::exists(missing)) << "nothing is created";
}

// A FIFO with no writer would hold a blocking open (and read) forever; a directory is no file.
TEST(CliPending, ShowRefusesAFifoOrADirectoryWithoutWaiting) {
  testing::TempDir dir;
  const fs::path fifo = dir.path() / "ZLogs.tmp";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto started = std::chrono::steady_clock::now();
  for (const fs::path& path : {fifo, dir.path()}) {
    const CliRun shown = run({"pending", "show", path.string()});
    EXPECT_EQ(shown.code, kRuntime);
    EXPECT_NE(shown.err.find("not a regular file"), std::string::npos) << shown.err;
  }
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

// ----- validate and the command line ----------------------------------------------------------

TEST(CliValidate, NamesTheKindAndKeyPathOfEachFault) {
  struct Case {
    std::vector<std::string> files;
    int code;
    std::string said;  // on either stream
  };
  const std::vector<Case> cases = {
      {{"pending/minimal.json", "pending/full.json"}, kOk, "full.json: valid"},
      {{"pending/missing_action.json"}, kInvalid, "invalid: key not found at action"},
      {{"cli/record_wrong_type.json"},
       kInvalid,
       "invalid: type mismatch at domain.purchase.quantity"},
      {{"cli/record_null_required.json"}, kInvalid, "invalid: value not found at xid.did"},
      {{"cli/record_not_json.json"}, kInvalid, "invalid: data corrupted at (document)"},
      // One invalid file fails the run.
      {{"pending/minimal.json", "cli/record_wrong_type.json"}, kInvalid, "1 of 2 files valid"},
      {{"nope.json"}, kRuntime, ""},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"validate"};
    for (const auto& file : c.files) args.push_back((kData / file).string());
    const CliRun result = run(args);
    EXPECT_EQ(result.code, c.code) << c.files[0];
    EXPECT_NE((result.out + result.err).find(c.said), std::string::npos)
        << result.out << result.err;
  }
}

TEST(CliCommandLine, UsageErrorsAndHelp) {
  const CliRun help = run({"--help"});
  EXPECT_EQ(help.code, kOk);
  for (const char* text : {"zelvanor send", "pending show", "validate", "Exit codes",
                           "useGeneralEnvrionment", "--ca-file", "--data-dir", "--header",
                           "--proxy", "setCollectionEnabled", "deleteLocalData"}) {
    EXPECT_NE(help.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(run({"send", "--help"}).out, help.out);

  const std::string script =
      (fs::path(ZELVANOR_SOURCE_DIR) / "tools" / "cli" / "example.jsonl").string();
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{},
                                             {"sned", "x"},
                                             {"send"},
                                             {"send", "a", "b"},
                                             {"send", "--track-url"},
                                             {"send", "--endpoint", "http://127.0.0.1:1", script},
                                             {"send", "--network", "satellite", script},
                                             {"send", "--online", "--network", "offline", script},
                                             {"pending", "list", "f"},
                                             {"pending", "show"},
                                             {"validate"}}) {
    EXPECT_EQ(run(args).code, kUsage) << ::testing::PrintToString(args);
  }
  EXPECT_NE(run({"send", "--fast", "x"}).err.find("unknown option --fast"), std::string::npos);
  EXPECT_EQ(run({"send", "/nonexistent/script.jsonl"}).code, kRuntime);
  // A faulty script is refused before any setup: cli_binary_test runs one.
}

}  // namespace
}  // namespace zelvanor::cli
