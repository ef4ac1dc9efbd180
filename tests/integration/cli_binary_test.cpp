// The built zelvanor tool against a loopback collector, run after run as a person would: a faulty
// script sends nothing, an offline run keeps its records, a full script's records arrive with
// those, a slow collector is waited for, and what is still in flight at the end waits in the
// pending file; and each command line alone gives its exit code and says why. The runs and what
// each must show are a table (tests/data/cli/runs.txt).
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "support/data_table.hpp"
#include "support/https_test_server.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;
constexpr auto npos = std::string::npos;

struct CliBinaryTest : ::testing::Test {
  // The collector as the tool meets it: the identity sync answered (under /id with the endpoint
  // options, at the root with --endpoint), a record named "refuse-me" refused, every other one
  // taken after `delayMs`.
  void SetUp() override {
    server.setResponder([this](const testing::ReceivedRequest& r) {
      if (r.body.find("\"refuse-me\"") != npos)
        return testing::CannedResponse{400, "fail: bad", {}, 0};
      const bool sync = r.path.starts_with("/id/sync") || r.path.starts_with("/sync");
      return testing::CannedResponse{
          200, sync ? testing::kSyncAnswer : "ok", {}, sync ? 0 : delayMs.load()};
    });
    fs::create_directory(dir.path() / "existing");
    fs::permissions(dir.path() / "existing", fs::perms(0755));
    std::ofstream(dir.path() / "file") << "x";
    ASSERT_EQ(::mkfifo((dir.path() / "fifo").c_str(), 0600), 0);
  }

  // The table's names in `text` replaced, paths quoted for the shell when `quote`.
  std::string expand(std::string text, bool quote) const {
    const auto path = [&](const fs::path& p) {
      return quote ? "'" + p.string() + "'" : p.string();
    };
    const std::pair<std::string, std::string> names[] = {
        {"$SEND",
         "send --track-url $URL --sandbox-url $URL/sandbox --sync-url $URL/id --ca-file "
         "$CA --data-dir $DATA/"},
        {"$URL", server.baseUrl()},
        {"$CA", path(server.caFile())},
        {"$DATA", path(dir.path() / "parent" / "data")},
        {"$TMP", path(dir.path())},
        {"@", path(fs::path(ZELVANOR_TEST_DATA_DIR) / "cli") + "/"}};
    for (const auto& [name, value] : names) {
      for (auto at = text.find(name); at != npos; at = text.find(name, at + value.size())) {
        text.replace(at, name.size(), value);
      }
    }
    return text;
  }

  testing::TempDir dir;
  testing::HttpsTestServer server;
  std::atomic<int> delayMs{0};
};

TEST_F(CliBinaryTest, RunAfterRunEachShowsWhatTheTableSays) {
  std::string out, err;   // of the last run
  std::size_t first = 0;  // the first request the last run made
  for (const auto& row : testing::dataTable("cli/runs.txt")) {
    const std::string& kind = row.at(0);
    const std::string& text = row.at(1);
    SCOPED_TRACE(kind + " " + text + (row.size() > 2 ? " " + row[2] : ""));
    const auto received = server.received();
    const auto holds = [&](const std::string& path) {
      const std::string also = kind == "sent" && row.size() > 2 ? row[2] : "";
      return std::any_of(received.begin(), received.end(), [&](const auto& r) {
        return (path.empty() || r.path == path) && r.body.find(text) != npos &&
               r.body.find(also) != npos;
      });
    };
    if (kind == "run") {
      delayMs = std::stoi(text);
      first = received.size();
      const fs::path outFile = dir.path() / "tool.out", errFile = dir.path() / "tool.err";
      const std::string command = "TZ=UTC " + std::string(ZELVANOR_CLI) + " " +
                                  expand(row.at(3), true) + " >" + outFile.string() + " 2>" +
                                  errFile.string();
      const int status = std::system(command.c_str());
      out = testing::slurp(outFile);
      err = testing::slurp(errFile);
      EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, std::stoi(row.at(2))) << err;
    } else if (kind == "err" || kind == "no-err" || kind == "out") {
      const std::string& stream = kind == "out" ? out : err;
      EXPECT_EQ(stream.find(text) == npos, kind == "no-err") << stream;
    } else if (kind == "sent" || kind == "unsent" || kind == "sandbox") {
      EXPECT_EQ(holds(kind == "sandbox" ? "/sandbox/sdk/track" : "/sdk/track"), kind != "unsent");
    } else if (kind == "never") {
      EXPECT_FALSE(holds(""));
    } else if (kind == "header") {
      for (auto r = received.begin() + first; r != received.end(); ++r) {
        EXPECT_EQ(r->headers.count(text), 1u) << r->path;
      }
    } else if (kind == "mode") {
      const fs::path path = expand(text, false);
      std::ostringstream mode;
      mode << std::oct << static_cast<int>(fs::status(path).permissions() & fs::perms::mask);
      EXPECT_EQ(fs::exists(path) ? mode.str() : "missing", row.at(2));
    } else {
      ADD_FAILURE() << "no such row kind";
    }
  }
}

}  // namespace
}  // namespace zelvanor
