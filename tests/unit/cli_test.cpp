// The zelvanor tool's script reader and pending-file inspector, driven in-process.
// (Running scripts against a collector, and each command line, is
// tests/integration/cli_binary_test.cpp.)
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <sstream>

#include "cli.hpp"
#include "pending.hpp"
#include "script.hpp"
#include "store/pending_store.hpp"
#include "support/data_table.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor::cli {
namespace {

namespace fs = std::filesystem;
constexpr auto npos = std::string::npos;

const fs::path kData = fs::path(ZELVANOR_TEST_DATA_DIR);

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
  const auto& track = std::get<op::Track>(script.steps[3].operation);
  EXPECT_EQ(std::tuple(std::get<op::SetRequired>(script.steps[0].operation).configuration,
                       std::get<op::SetTimeout>(script.steps[1].operation).value,
                       std::get<op::SetBatchSize>(script.steps[2].operation).value, track.verbose,
                       track.disabled,
                       std::holds_alternative<op::DeleteLocalData>(script.steps[4].operation)),
            std::tuple(ZConfiguration{10, 3, true}, 2.5, 0u, true, false, true));
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
    std::ostringstream out, err;
    EXPECT_EQ(runCli({"pending", "show", file.string()}, out, err),
              counts[1] + counts[2] + counts[3] == 0 ? kOk : kInvalid);
    EXPECT_EQ(testing::slurp(file), content);
    EXPECT_EQ(fs::last_write_time(file), stamp);
    EXPECT_NE(out.str().find(row.at(5)), npos) << out.str();
    EXPECT_NE(err.str().find(row.at(6)), npos) << err.str();
    // Pieces tile the file from offset 0; every record is shown.
    std::uint64_t offset = 0;
    for (const auto& piece : report.pieces) {
      EXPECT_EQ(piece.offset, offset);
      offset += piece.size;
      if (piece.kind == PendingPiece::Kind::frame && !piece.error) {
        EXPECT_NE(out.str().find(std::string(piece.payload)), npos);
      }
    }
    EXPECT_EQ(offset, content.size());

    detail::PendingStore store(dir.path(), ZStoreLimits{});
    store.open();
    std::size_t sent = 0;
    for (auto read = testing::nextOf(store); read && sent < 100;
         read = testing::nextOf(store), ++sent) {
      store.answered(read->ref);
    }
    EXPECT_EQ(sent, report.restorable());
    EXPECT_EQ(store.counts().quarantined, report.undecodable());
    // A skipped piece is read past; a torn end is cut off when the start counts the records.
    EXPECT_EQ(store.counts().skippedPieces, report.skipped() + report.torn());
  }
}

}  // namespace
}  // namespace zelvanor::cli
