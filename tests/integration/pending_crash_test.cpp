// A process killed at any moment while it appends pending records must leave a file from which
// every record written whole comes back, in order, and nothing else.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <thread>

#include "queue/logs_file_manager.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {
namespace {

namespace fs = std::filesystem;
using std::chrono::steady_clock;

constexpr std::uint64_t kMaxRecordsPerRound = 200000;

/// The record the writer appends as number seq.
ZLogRecord recordFor(std::uint64_t seq) {
  const std::string n = std::to_string(seq);
  ZLogRecord record;
  record.xid = ZXid{"cid-" + n, "did-" + n, "sid-" + n};
  record.sdk = ZSDK{DeploymentType::production, "0.9.0", "1.2.0"};
  record.action = ZAction("event", "seq-" + n, "crash");
  record.page = ZPage{.id = "p" + n, .name = "page", .title = "Title " + n};
  record.usage = ZUsage{.duration = static_cast<std::int64_t>(seq) * 3, .scrollPercent = 0.25f};
  // Some records are large, so that appends span many pages: a kernel that gives up a write
  // between pages when the writer is killed would leave a torn last frame.
  if (seq % 100 == 0) {
    record.free = std::string(100000 + (seq * 7919) % 200000, static_cast<char>('a' + seq % 26));
  } else if (seq % 5 == 0) {
    record.free = std::string(1000 + (seq * 37) % 8000, static_cast<char>('a' + seq % 26));
  }
  return record;
}

[[noreturn]] void appendUntilKilled(const fs::path& file) {
  for (std::uint64_t seq = 0; seq < kMaxRecordsPerRound; ++seq) {
    const Result<std::string> json = encodeJson(recordFor(seq));
    if (!json) ::_exit(2);
    ZLogsFileManager::appendRecordData(*json, file);
  }
  ::_exit(0);
}

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(PendingFileCrash, KilledWriterLeavesOnlyWholeRecordsInOrder) {
  std::string pattern = (fs::temp_directory_path() / "zelvanor-crash-XXXXXX").string();
  ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
  const fs::path dir = pattern;
  const fs::path file = ZLogsFileManager::pendingFilePath(dir);

  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delayMicros(0, 150000);
  const auto testEnd = steady_clock::now() + std::chrono::seconds(5);
  int rounds = 0, tornRounds = 0;
  std::size_t restoredTotal = 0;

  while (rounds < 60 && (rounds < 8 || steady_clock::now() < testEnd)) {
    SCOPED_TRACE("round " + std::to_string(rounds));
    ++rounds;
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) appendUntilKilled(file);
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    // A child that finished all its records before the kill is fine too; any other exit is not.
    ASSERT_TRUE((WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) ||
                (WIFEXITED(status) && WEXITSTATUS(status) == 0));

    const std::string raw = slurp(file);
    std::vector<std::string_view> payloads;
    const bool torn =
        ZLogsFileManager::splitFrames(raw, payloads) == ZLogsFileManager::FrameEnd::torn;
    tornRounds += torn ? 1 : 0;

    const std::vector<ZLogRecord> restored = ZLogsFileManager::readRecords(file);
    ASSERT_EQ(restored.size(), payloads.size());
    for (std::size_t i = 0; i < restored.size(); ++i) {
      ASSERT_EQ(restored[i], recordFor(i)) << "record " << i << " of " << restored.size();
    }
    // Killed between creating the file and writing to it: an empty file is left alone.
    if (!raw.empty()) {
      EXPECT_FALSE(fs::exists(fs::symlink_status(file)));
    }
    fs::remove(file);
    restoredTotal += restored.size();
  }
  std::cout << rounds << " kills, " << tornRounds << " left a torn last frame, " << restoredTotal
            << " records restored\n";
  EXPECT_GT(restoredTotal, 0u);

  std::error_code error;
  fs::remove_all(dir, error);
}

}  // namespace
}  // namespace zelvanor::detail
