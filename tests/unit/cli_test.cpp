// The zelvanor tool's script reader, pending-file inspector and commands, driven in-process.
// (Running scripts against a collector is tests/integration/cli_binary_test.cpp.)
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "cli.hpp"
#include "pending.hpp"
#include "script.hpp"
#include "store/pending_store.hpp"
#include "support/data_table.hpp"
#include "support/pending_files.hpp"
#include "support/shared_tracker.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/zelvanor.h"

namespace zelvanor::cli {
namespace {

namespace fs = std::filesystem;
constexpr auto npos = std::string::npos;

const fs::path kData = fs::path(ZELVANOR_TEST_DATA_DIR);
const fs::path kExample = fs::path(ZELVANOR_SOURCE_DIR) / "tools" / "cli" / "example.jsonl";

const std::string kAction =
    R"({"op":"set","block":"action","value":{"type":"event","name":"n","kind":"k"}})";

// Every op runs through the built tool against a server (cli_binary_test); here, what only the
// reader shows. Each faulty line of the table (tests/data/cli) is reported with its own number
// and names its fault; the good lines around them are kept: values that a run does not echo,
// line numbers past comments, blank and CRLF lines, and a last line without a newline.
TEST(CliScript, EveryLineIsAStepOrAnErrorNamingItsLineAndFault) {
  const auto faults = testing::dataTable("cli/script_faults.txt", testing::Escapes::keep);
  std::string text =
      "# a session\n"
      "{\"op\":\"setRequired\",\"timeout\":10,\"batchSize\":3,\"usingSandboxEnvironment\":true}\n"
      "\n"
      "{\"op\":\"setTimeout\",\"value\":2.5}\r\n";
  for (const auto& row : faults) text += row.at(0) + "\n";
  const Script script = parseScript(text +
                                    "{\"op\":\"setBatchSize\",\"value\":0}\n"
                                    "{\"op\":\"track\",\"verbose\":true,\"disabled\":false}\n"
                                    "{\"op\":\"deleteLocalData\"}");
  ASSERT_EQ(script.errors.size(), faults.size()) << "every faulty line is reported, not just one";
  for (std::size_t i = 0; i < faults.size(); ++i) {
    EXPECT_NE(script.errors[i].message.find(faults[i].at(1)), npos)
        << faults[i][0] << "\n  gave: " << script.errors[i].message;
    EXPECT_EQ(describe(script.errors[i]).rfind("line " + std::to_string(i + 5) + ": ", 0), 0u);
  }
  ASSERT_EQ(script.steps.size(), 5u);
  std::vector<std::size_t> lines;
  for (const auto& step : script.steps) lines.push_back(step.line);
  const std::size_t next = faults.size() + 5;
  EXPECT_EQ(lines, (std::vector<std::size_t>{2, 4, next, next + 1, next + 2}));
  EXPECT_EQ(std::get<op::SetRequired>(script.steps[0].operation).configuration,
            (ZConfiguration{10, 3, true}));
  EXPECT_EQ(std::get<op::SetTimeout>(script.steps[1].operation).value, 2.5);
  EXPECT_EQ(std::get<op::SetBatchSize>(script.steps[2].operation).value, 0u);
  const auto& track = std::get<op::Track>(script.steps[3].operation);
  EXPECT_EQ(std::pair(track.verbose, track.disabled), std::pair(true, false));
  EXPECT_TRUE(std::holds_alternative<op::DeleteLocalData>(script.steps[4].operation));
}

// A common block from a script is built as the C API builds one from the same text (the records
// of cli_binary_test's runs show the members it derives).
using CliAgreesWithTheCApi = testing::SharedTrackerTest;

TEST_F(CliAgreesWithTheCApi, OnEachCommonBlockOfTheScript) {
  ZelvanorTracker::setDevelopment();  // starts the shared instance
  deliverTriple();
  ZelvanorTracker::set(ZId{.appUserId = "u"});  // getData gives a record once ids are known
  const std::regex stamp(R"("request_timestamp": \d+,?)");  // getData's own, taken as it is called
  for (const std::string& line : testing::dataLines("cli/common.jsonl")) {
    if (line.find(R"("block":"common")") == npos) continue;
    SCOPED_TRACE(line);
    const std::string value = line.substr(line.find(R"("value":)") + 8);
    char* text = nullptr;
    EXPECT_EQ(zelvanor_set("common", value.substr(0, value.size() - 1).c_str()), ZELVANOR_OK);
    EXPECT_EQ(zelvanor_set("action", R"({"type":"event","name":"n","kind":"k"})"), ZELVANOR_OK);
    EXPECT_EQ(zelvanor_get_data(&text), ZELVANOR_OK) << zelvanor_last_error();
    const std::string throughTheCApi = text ? text + std::string("\n") : "";
    zelvanor_string_free(text);
    std::ostringstream out;
    RunCounts counts;
    for (const auto& step : parseScript(line + "\n" + kAction + "\n{\"op\":\"getData\"}").steps)
      runStep(step, out, counts);
    EXPECT_NE(throughTheCApi.find(R"("common": {)"), npos) << throughTheCApi;
    EXPECT_EQ(std::regex_replace(out.str(), stamp, ""),
              std::regex_replace(throughTheCApi, stamp, ""));
  }
}

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
  for (const auto& row : testing::dataTable("cli/pending_show.txt")) {
    SCOPED_TRACE(row.at(0));
    const std::array counts = {std::stoul(row.at(1)), std::stoul(row.at(2)), std::stoul(row.at(3)),
                               std::stoul(row.at(4))};
    const std::string content = testing::slurp(kData / "cli" / row[0]);
    const PendingReport report = inspectPending(content);
    EXPECT_EQ((std::array{report.frames(), report.undecodable(), report.skipped(), report.torn()}),
              counts);

    testing::TempDir dir;
    const fs::path file = dir.path() / "ZLogs.tmp";
    fs::copy_file(kData / "cli" / row[0], file);
    // An old stamp, so that any write would show.
    const auto stamp = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(file, stamp);
    const CliRun shown = run({"pending", "show", file.string()});
    EXPECT_EQ(testing::slurp(file), content);
    EXPECT_EQ(fs::last_write_time(file), stamp);
    EXPECT_EQ(shown.code, counts[1] + counts[2] + counts[3] == 0 ? kOk : kInvalid);
    EXPECT_NE(shown.out.find(row.at(5)), npos) << shown.out;
    EXPECT_NE(shown.err.find(row.at(6)), npos) << shown.err;
    // Pieces tile the file from offset 0; every record is shown.
    std::uint64_t offset = 0;
    for (const auto& piece : report.pieces) {
      EXPECT_EQ(piece.offset, offset);
      offset += piece.size;
      if (piece.kind == PendingPiece::Kind::frame && !piece.error) {
        EXPECT_NE(shown.out.find(std::string(piece.payload)), npos);
      }
    }
    EXPECT_EQ(offset, content.size());

    detail::PendingStore store(dir.path(), ZStoreLimits{});
    store.open();
    std::size_t sent = 0;
    for (auto read = store.next(); read && sent < 100; read = store.next(), ++sent) {
      store.answered(read->ref);
    }
    EXPECT_EQ(sent, report.restorable());
    EXPECT_EQ(store.counts().quarantined, report.undecodable());
    // A skipped piece is read past; a torn end is cut off when the start counts the records.
    EXPECT_EQ(store.counts().skippedPieces, report.skipped() + report.torn());
  }
}

// Each command line of the table (tests/data/cli/commands.txt) gives its exit code and says what
// it found: validate's kind and key path of each fault, pending show's refusals, the usage errors.
TEST(CliCommandLine, EachCommandGivesItsExitCodeAndSaysWhy) {
  testing::TempDir dir;
  ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
  for (const auto& row : testing::dataTable("cli/commands.txt")) {
    std::vector<std::string> args;
    std::istringstream words(row.at(0));
    for (std::string word; words >> word;) {
      for (const auto& [name, path] : {std::pair{"$DATA", kData}, {"$TMP", dir.path()}}) {
        if (word.starts_with(name)) word = path.string() + word.substr(std::strlen(name));
      }
      args.push_back(word == "$EXAMPLE" ? kExample.string() : word);
    }
    const CliRun result = run(args);
    EXPECT_EQ(result.code, std::stoi(row.at(1))) << row[0];
    EXPECT_NE((result.out + result.err).find(row.at(2)), npos) << row[0] << "\n"
                                                               << result.out << result.err;
  }
  EXPECT_FALSE(fs::exists(dir.path() / "missing")) << "nothing is created";
}

}  // namespace
}  // namespace zelvanor::cli
