// A process killed at any moment while it appends pending records must leave files from which
// every record written whole comes back, in order, and nothing else.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "store/pending_store.hpp"
#include "support/child_host.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
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

/// Room for every record a round could append: the writer must never drop one for space.
constexpr ZStoreLimits kRoomy{.maxBytesOnDisk = std::uint64_t{1} << 40};

/// Appends through the store as a process that does not own the segments does: one record a
/// write, all into "ZLogs.tmp".
[[noreturn]] void appendUntilKilled(const fs::path& dir) {
  PendingStore store(dir, kRoomy);
  for (std::uint64_t seq = 0; seq < kMaxRecordsPerRound; ++seq) {
    const Result<std::string> json = encodeJson(recordFor(seq));
    if (!json) ::_exit(2);
    if (store.keep({*json}).written != 1) ::_exit(3);
  }
  ::_exit(0);
}

void removeStoreFiles(const fs::path& dir) {
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("ZLogs", 0) == 0) fs::remove(entry.path());
  }
}

TEST(PendingFileCrash, KilledWriterLeavesOnlyWholeRecordsInOrder) {
  testing::TempDir temp;
  const fs::path dir = temp.path();
  const fs::path file = dir / PendingStore::kPendingFileName;

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
    if (child == 0) appendUntilKilled(dir);
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    // A child that finished all its records before the kill is fine too; any other exit is not.
    ASSERT_TRUE((WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) ||
                (WIFEXITED(status) && WEXITSTATUS(status) == 0));

    // Whole frames, then at most a torn end: never a damaged piece in between.
    const std::string raw = testing::slurp(file);
    std::size_t frames = 0;
    bool torn = false, damaged = false;
    scanFrames(raw, 0, true, [&](const FramePiece& piece) {
      frames += piece.kind == FramePiece::Kind::frame ? 1 : 0;
      damaged = damaged || piece.kind == FramePiece::Kind::skipped || torn;
      torn = torn || piece.kind == FramePiece::Kind::torn;
    });
    EXPECT_FALSE(damaged);
    tornRounds += torn ? 1 : 0;

    // The next start sends every whole record, in order, and then nothing is left.
    std::vector<ZLogRecord> restored;
    {
      PendingStore store(dir, kRoomy);
      ASSERT_EQ(store.open(), frames);
      while (auto read = store.next()) {
        auto record = decodeJson<ZLogRecord>(read->bytes);
        ASSERT_TRUE(record);
        restored.push_back(std::move(*record));
        store.answered(read->ref);
      }
    }
    ASSERT_EQ(restored.size(), frames);
    for (std::size_t i = 0; i < restored.size(); ++i) {
      ASSERT_EQ(restored[i], recordFor(i)) << "record " << i << " of " << restored.size();
    }
    EXPECT_TRUE(testing::pendingPayloads(dir).empty());
    removeStoreFiles(dir);
    restoredTotal += restored.size();
  }
  std::cout << rounds << " kills, " << tornRounds << " left a torn last frame, " << restoredTotal
            << " records restored\n";
  EXPECT_GT(restoredTotal, 0u);
}

/// The whole SDK in a child host tracking with the network gate closed (zelvanor_crash_child).
testing::ChildHost trackingHost(const fs::path& dir, long long first,
                                std::optional<long long> burst = {}, bool online = false) {
  std::vector<std::string> argv{ZELVANOR_CRASH_CHILD, dir.string(), std::to_string(first)};
  if (burst) argv.push_back(std::to_string(*burst));
  if (online) argv.emplace_back("online");
  return testing::ChildHost(std::move(argv));
}

/// A directory for the SDK's files, with an identity from an earlier sync in its cookie jar, so
/// that records are built without a server.
struct CrashDirectory : testing::TempDir {
  CrashDirectory() {
    std::ofstream jar(path() / "cookies.txt");
    for (const char* name : {"fa_cid", "fa_did", "fa_sid"}) {
      jar << "127.0.0.1\tFALSE\t/\tTRUE\t4102444800\t" << name << "\tcrash-" << name << "\n";
    }
  }
};

// The whole SDK as the writer: a host process tracking as fast as it can (gate closed, so every
// record goes to disk) is killed at random; each start takes over what the last one left and
// carries on. Whatever a start finds decodes, and every record in it is one the host tracked.
TEST(PendingFileCrash, TrackingHostKilledAtRandomLeavesAFileEveryStartCanRead) {
  CrashDirectory temp;
  const fs::path dir = temp.path();
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<int> delayMicros(0, 250000);
  std::size_t lastFileRecords = 0, recordsSeen = 0, rounds = 0;
  for (long long first = 0; rounds < 12; first += 10'000'000, ++rounds) {
    SCOPED_TRACE("round " + std::to_string(rounds));
    testing::ChildHost host = trackingHost(dir, first);
    EXPECT_TRUE(host.said("tracking")) << "the host did not start tracking within 30 s";
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicros(random)));
    ASSERT_TRUE(host.kill());

    // What the next start would find, read without consuming it (the next child does that).
    const std::vector<std::string> payloads = testing::pendingPayloads(dir);
    for (const std::string& payload : payloads) {
      auto record = decodeJson<ZLogRecord>(payload);
      ASSERT_TRUE(record) << "a kill left a record that is not whole";
      EXPECT_EQ(record->xid, (ZXid{"crash-fa_cid", "crash-fa_did", "crash-fa_sid"}));
      if (record->action.name.rfind("crash-", 0) == 0) {
        ASSERT_TRUE(record->page) << record->action.name;
        EXPECT_EQ("crash-" + record->page->id, record->action.name)
            << "a record mixed with another";
        EXPECT_EQ(record->page->title.size(), std::stoull(record->page->id) % 300);
      }
    }
    lastFileRecords = payloads.size();
    recordsSeen += payloads.size();
  }
  // A last start finds every record the files hold waiting to be sent.
  PendingStore last(dir, kRoomy);
  EXPECT_EQ(last.open(), lastFileRecords);
  last.close();
  // Nothing is ever answered here, so what the rounds kept is still on disk.
  EXPECT_GT(lastFileRecords, 0u);
  std::cout << rounds << " kills of a tracking host; the store held " << recordsSeen
            << " records in all, the last " << lastFileRecords << "\n";
}

// A burst far beyond the memory limit, then kill -9 shortly after: what went beyond the limit
// was on its way to disk, in order, and is there.
TEST(PendingFileCrash, AKillShortlyAfterABurstLosesAtMostTheMemoryLimit) {
  constexpr long long kBurst = 20000;
  // Offline every record goes to disk; online (a collector refusing connections) the queue and
  // the requests' window share the memory limit, and what goes beyond it goes to disk.
  for (const bool online : {false, true}) {
    SCOPED_TRACE(online ? "online" : "offline");
    CrashDirectory temp;
    const fs::path dir = temp.path();
    testing::ChildHost host = trackingHost(dir, 0, kBurst, online);
    ASSERT_TRUE(host.said("tracked")) << "the host did not finish its burst within 30 s";
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ASSERT_TRUE(host.kill());
    std::set<long long> kept;
    long long last = -1;
    for (const std::string& payload : testing::pendingPayloads(dir)) {
      auto record = decodeJson<ZLogRecord>(payload);
      ASSERT_TRUE(record);
      if (record->action.name.rfind("crash-", 0) != 0) continue;
      const long long seq = std::stoll(record->action.name.substr(6));
      // Offline they reach the disk in tracking order (online, kept ones follow spilled ones).
      if (!online) {
        EXPECT_GT(seq, last) << "in order";
      }
      last = seq;
      kept.insert(seq);
    }
    const auto lost = kBurst - static_cast<long long>(kept.size());
    std::cout << lost << " of a burst of " << kBurst << " lost to a kill 50 ms after it\n";
    EXPECT_LE(lost, static_cast<long long>(ZStoreLimits{}.maxRecordsInMemory) + 8)
        << "the memory limit and the requests in flight";
  }
}

}  // namespace
}  // namespace zelvanor::detail
