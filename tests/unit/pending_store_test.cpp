// The pending store: records leave the disk only once answered, damaged files give back every
// record they still hold, the disk stays within its limit, and nothing that is not a regular
// file of ours is ever read or waited on.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_ops.hpp"
#include "store/pending_store.hpp"
#include "support/lock_holder.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {
namespace {

namespace fs = std::filesystem;

std::string recordJson(const std::string& name) {
  return encodeJson(ZLogRecord{.xid = {"c", "d", "s"}, .action = {"event", name, "tap"}}).value();
}

std::string nameOf(const std::string& json) {
  auto record = decodeJson<ZLogRecord>(json);
  return record ? record->action.name : "<undecodable>";
}

std::string frames(const std::vector<std::string>& payloads) {
  std::string out;
  for (const auto& payload : payloads) appendFrame(out, payload);
  return out;
}

std::string rawLength(std::int64_t length) {
  std::string out(sizeof length, '\0');
  std::memcpy(out.data(), &length, sizeof length);
  return out;
}

void writeFile(const fs::path& file, const std::string& content) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out << content;
}

std::vector<std::string> names(const std::vector<std::string>& payloads) {
  std::vector<std::string> out;
  for (const auto& payload : payloads) out.push_back(nameOf(payload));
  return out;
}

/// What the store's record files take on disk, whatever the store itself counts.
std::uint64_t filesOnDisk(const fs::path& dir) {
  std::uint64_t total = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("ZLogs.tmp", 0) == 0)
      total += platform::regularFileSize(entry.path()).value_or(0);
  }
  return total;
}

/// Sends every record the store reads (across paused reads), answering each; their names.
std::vector<std::string> sendAll(PendingStore& store) {
  std::vector<std::string> sent;
  for (int turns = 0; turns < 1000; ++turns) {
    auto read = store.next();
    if (!read && !store.readPaused()) break;
    if (!read) continue;
    sent.push_back(nameOf(read->bytes));
    store.answered(read->ref);
  }
  return sent;
}

struct StoreTest : ::testing::Test {
  fs::path pendingFile() const { return dir.path() / "ZLogs.tmp"; }
  std::vector<std::string> onDisk() const { return names(testing::pendingPayloads(dir.path())); }
  /// Reads every record waiting to be sent, without answering any.
  static std::vector<PendingStore::Read> readAll(PendingStore& store) {
    std::vector<PendingStore::Read> out;
    while (auto read = store.next()) out.push_back(std::move(*read));
    return out;
  }
  testing::TempDir dir;
};

TEST_F(StoreTest, ARestoredRecordLeavesTheDiskOnlyOnceAnsweredAndAKillResendsOnlyWhatWasInFlight) {
  writeFile(pendingFile(),
            frames({recordJson("1"), recordJson("2"), recordJson("3"), recordJson("4")}));
  {
    PendingStore store(dir.path(), {});
    ASSERT_EQ(store.open(), 4u);
    EXPECT_FALSE(fs::exists(pendingFile())) << "the start takes the file over";
    auto first = store.next();
    auto second = store.next();
    auto third = store.next();
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(nameOf(first->bytes), "1");
    store.answered(first->ref);
    store.answered(third->ref);  // answered out of order: "2" is still in flight
    // Killed here: the store is let go without any goodbye.
  }
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"2", "3", "4"}))
      << "only the answered prefix left the disk";
  PendingStore again(dir.path(), {});
  ASSERT_EQ(again.open(), 3u);
  // Exactly the three are read: no further read comes to find the segment's end.
  std::vector<PendingStore::Read> reads;
  for (int i = 0; i < 3; ++i) reads.push_back(again.next().value());
  EXPECT_EQ(nameOf(reads[0].bytes), "2");
  EXPECT_GT(again.bytesOnDisk(), 0u);
  for (const auto& read : reads) again.answered(read.ref);
  EXPECT_EQ(again.bytesOnDisk(), 0u) << "it falls as the answers come in";
  EXPECT_TRUE(onDisk().empty());
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(dir.path())) {
    const auto name = entry.path().filename().string();
    if (name.rfind("ZLogs.tmp", 0) == 0) left.push_back(name);
  }
  EXPECT_TRUE(left.empty()) << "an answered segment is removed";

  // One that was not sent (a transport failure) stays, in its place, with everything after it.
  again.close();
  writeFile(pendingFile(), frames({recordJson("5"), recordJson("6"), recordJson("7")}));
  PendingStore third(dir.path(), {});
  ASSERT_EQ(third.open(), 3u);
  auto all = readAll(third);
  ASSERT_EQ(all.size(), 3u);
  third.answered(all[0].ref);
  third.unsent(all[1].ref);
  third.answered(all[2].ref);
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"6", "7"}));
}

TEST_F(StoreTest, RestoredRecordsAreSentInThisSdksOwnEncoding) {
  const std::string stored =
      R"({"xid":{"cid":"c","did":"d","sid":"s"},"sdk":{"type":"production","version":"0.9.0",)"
      R"("common_log_version":"1.2.0"},"action":{"type":"event","name":"n","kind":"k"},)"
      R"("agreement":{"third_ad_agree":true},"page":null,"from_a_later_version":{"x":1}})";
  writeFile(pendingFile(), frames({stored}));
  PendingStore store(dir.path(), {});
  store.open();
  auto read = store.next();
  ASSERT_TRUE(read);
  EXPECT_EQ(read->bytes, encodeJson(decodeJson<ZLogRecord>(stored).value()).value());
  EXPECT_EQ(read->bytes.find("third_ad_agree"), std::string::npos);
  EXPECT_EQ(read->bytes.find("null"), std::string::npos);
  EXPECT_EQ(read->bytes.find("from_a_later_version"), std::string::npos);
}

TEST_F(StoreTest, TheDiskStaysWithinItsLimitByDroppingTheOldest) {
  const ZStoreLimits limits{.maxBytesOnDisk = 16u << 10};
  PendingStore store(dir.path(), limits);
  store.open();
  constexpr int kRecords = 2000;
  for (int i = 0; i < kRecords; i += 50) {
    std::vector<std::string> batch;
    for (int j = i; j < i + 50; ++j) batch.push_back(recordJson(std::to_string(j)));
    ASSERT_EQ(store.keep(batch).written, batch.size());
    EXPECT_LE(store.bytesOnDisk(), limits.maxBytesOnDisk);
    EXPECT_LE(filesOnDisk(dir.path()), limits.maxBytesOnDisk) << "the files themselves too";
  }
  const auto kept = onDisk();
  ASSERT_FALSE(kept.empty());
  EXPECT_EQ(kept.back(), std::to_string(kRecords - 1)) << "the newest are kept";
  const int first = std::stoi(kept.front());
  for (std::size_t i = 0; i < kept.size(); ++i) {
    EXPECT_EQ(kept[i], std::to_string(first + static_cast<int>(i))) << "in order, no gaps";
  }
  EXPECT_EQ(store.counts().droppedForSpace, static_cast<std::uint64_t>(first));
}

TEST_F(StoreTest, SpilledRecordsFollowTheRestoredOnesAndKeptOnesWaitForALaterStart) {
  writeFile(pendingFile(), frames({recordJson("r1"), recordJson("r2")}));
  PendingStore store(dir.path(), {});
  ASSERT_EQ(store.open(), 2u);
  ASSERT_EQ(store.keep({recordJson("kept")}).written, 1u);
  ASSERT_EQ(store.spill({recordJson("s1"), recordJson("s2")}), 2u);
  EXPECT_EQ(sendAll(store), (std::vector<std::string>{"r1", "r2", "s1", "s2"}));
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"kept"}));
}

// Damaged or foreign things where the store's files belong: the good records all go out, nothing
// is dropped as "storage full", the files stay within the limit, nothing that is no regular file
// is opened or waited on, and what stops the usual way is said.
TEST_F(StoreTest, DamagedOrForeignFilesNeverHoldUpOrPushOutTheGoodRecords) {
  const ZStoreLimits limits{.maxBytesOnDisk = 256u << 10};
  const std::string junk(1u << 20, '\0');  // four times the limit
  struct Case {
    const char* name;
    std::function<void(const fs::path&, const std::string& good)> plant;
    const char* said;  // in a finding, or nothing to say
  };
  const std::vector<Case> cases{
      {"zeros behind the pending file's records",
       [&](const fs::path& d, const std::string& good) { writeFile(d / "ZLogs.tmp", good + junk); },
       nullptr},
      {"a length running past the end of a segment",
       [&](const fs::path& d, const std::string& good) {
         fs::remove(d / "ZLogs.tmp");
         writeFile(d / "ZLogs.tmp.1",
                   good + rawLength(1'000'000'000) + std::string(junk.size(), 'x'));
       },
       nullptr},
      {"a FIFO at the lock",
       [](const fs::path& d, const std::string&) {
         ASSERT_EQ(::mkfifo((d / "ZLogs.lock").c_str(), 0600), 0);
       },
       "ZLogs.lock is a FIFO"},
      {"a directory at the lock",
       [](const fs::path& d, const std::string&) { fs::create_directory(d / "ZLogs.lock"); },
       "ZLogs.lock is a directory"},
      {"a link at the lock",
       [](const fs::path& d, const std::string&) {
         writeFile(d / "target", "");
         fs::create_symlink(d / "target", d / "ZLogs.lock");
       },
       "ZLogs.lock is a symbolic link"},
      {"a directory where the next segment goes",
       [](const fs::path& d, const std::string&) { fs::create_directory(d / "ZLogs.tmp.1"); },
       "ZLogs.tmp.1 is a directory"},
      {"a FIFO at the pending file, a link and a directory among the segments",
       [](const fs::path& d, const std::string& good) {
         writeFile(d / "ZLogs.tmp.2", good);
         fs::remove(d / "ZLogs.tmp");
         ASSERT_EQ(::mkfifo((d / "ZLogs.tmp").c_str(), 0600), 0);
         writeFile(d / "target", frames({recordJson("elsewhere")}));
         fs::create_symlink(d / "target", d / "ZLogs.tmp.3");
         fs::create_directory(d / "ZLogs.tmp.7");
       },
       "ZLogs.tmp is a FIFO"},
      {"a link at the pending file",
       [](const fs::path& d, const std::string& good) {
         writeFile(d / "ZLogs.tmp.1", good);
         fs::remove(d / "ZLogs.tmp");
         fs::create_symlink(d / "target", d / "ZLogs.tmp");
       },
       "ZLogs.tmp is a symbolic link"},
  };
  std::vector<std::string> goodNames;
  std::vector<std::string> goodRecords;
  for (int i = 0; i < 300; ++i) {
    goodNames.push_back(std::to_string(i));
    goodRecords.push_back(recordJson(goodNames.back()));
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    testing::TempDir here;
    const fs::path d = here.path();
    writeFile(d / "ZLogs.tmp", frames(goodRecords));
    c.plant(d, frames(goodRecords));
    const auto content = [&] {
      std::ifstream in(d / "target", std::ios::binary);
      return in ? std::string(std::istreambuf_iterator<char>(in), {}) : "<none>";
    };
    const std::string targetBefore = content();
    std::vector<std::string> said;
    {
      PendingStore store(d, limits);
      EXPECT_EQ(store.open(), 300u);
      EXPECT_LE(filesOnDisk(d), limits.maxBytesOnDisk) << "the junk is gone";
      EXPECT_EQ(sendAll(store), goodNames);
      EXPECT_EQ(store.counts().droppedForSpace, 0u);
      // Kept for later and found by the next start, whatever stands at the pending file.
      EXPECT_EQ(store.keep({recordJson("kept")}).written, 1u);
      said = store.takeFindings();
    }
    PendingStore later(d, limits);
    EXPECT_EQ(later.open(), 1u);
    EXPECT_TRUE(!c.said || std::any_of(said.begin(), said.end(), [&](const std::string& line) {
      return line.find(c.said) != std::string::npos;
    })) << ::testing::PrintToString(said);
    EXPECT_EQ(content(), targetBefore) << "a link's target is never touched";
  }
}

// A pending file left readable by others (an older build, a careless tool) is tightened by the
// next append.
TEST_F(StoreTest, KeptRecordsGoOnlyIntoAPrivateFile) {
  writeFile(pendingFile(), frames({recordJson("loose")}));
  ASSERT_EQ(::chmod(pendingFile().c_str(), 0644), 0);
  PendingStore store(dir.path(), {});
  ASSERT_EQ(store.keep({recordJson("1")}).written, 1u);
  struct stat info {};
  ASSERT_EQ(::stat(pendingFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"loose", "1"}));
  // Nor through a link planted at the path (file_ops_test has every kind), which gives a failed
  // append, not a target created.
  fs::remove(pendingFile());
  fs::create_symlink(dir.path() / "missing", pendingFile());
  EXPECT_EQ(store.keep({recordJson("2")}).written, 0u);
  EXPECT_FALSE(fs::exists(dir.path() / "missing"));
}

// A start takes "ZLogs.tmp" over while another writer of the app keeps appending to it: across
// starts, every record is sent exactly once and in the order appended.
TEST_F(StoreTest, StartsRacingWithAppendsLoseNoneAndDuplicateNone) {
  constexpr int kRecords = 2000;
  std::atomic<bool> appending{true};
  std::thread appender([&] {
    PendingStore other(dir.path(), {});  // never opened: it owns nothing and only appends
    for (int i = 0; i < kRecords; ++i)
      EXPECT_EQ(other.keep({recordJson(std::to_string(i))}).written, 1u);
    appending = false;
  });
  std::vector<std::string> sent;
  auto start = [&] {
    PendingStore store(dir.path(), {});
    store.open();
    // Stops at the first read that gives nothing, paused or not: the next start goes on.
    while (auto read = store.next()) {
      sent.push_back(nameOf(read->bytes));
      store.answered(read->ref);
    }
  };
  for (int starts = 0; appending && starts < 100000; ++starts) start();
  appender.join();
  start();
  std::vector<std::string> expected;
  for (int i = 0; i < kRecords; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(sent, expected);
  EXPECT_TRUE(onDisk().empty());
}

// Templates are kept newest first within the limit. Taken at a start, they stay in their file
// until their records are on disk: a kill before then finds them again, one after only as records.
TEST_F(StoreTest, OnlyTheOwnerTakesTemplatesAndTakenOnesStayOnDiskUntilForgotten) {
  const fs::path file = dir.path() / "ZTemplates.tmp";
  {
    PendingStore earlier(dir.path(), ZStoreLimits{.maxTemplatesKept = 2});
    earlier.open();
    ASSERT_TRUE(earlier.writeTemplates({"{\"a\":0}", "{\"a\":1}", "{\"a\":2}"}));
  }
  PendingStore store(dir.path(), {});
  store.open();
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // Another process of the app: the owner holds the store and those templates; this one
    // restores nothing and keeps its own records and templates behind, for a later start.
    PendingStore other(dir.path(), {});
    const bool restored = other.open() != 0;
    const bool none = other.takeTemplates().empty();
    const bool kept = other.keep({recordJson("from-the-other")}).written == 1;
    ::_exit(!restored && none && kept && other.writeTemplates({"{\"b\":1}"}) ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"from-the-other"}));
  EXPECT_EQ(store.takeTemplates(),
            (std::vector<std::string>{"{\"a\":1}", "{\"a\":2}", "{\"b\":1}"}));
  EXPECT_TRUE(store.takeTemplates().empty()) << "taken once";
  EXPECT_TRUE(fs::exists(file)) << "taking them leaves the file";
  {
    PendingStore afterAKill(dir.path(), {});
    store.close();
    afterAKill.open();
    EXPECT_EQ(afterAKill.takeTemplates().size(), 3u);
  }
  store.open();
  store.forgetTakenTemplates();
  EXPECT_FALSE(fs::exists(file));
  // A shutdown keeps what is still waiting, including taken ones not yet resolved.
  ASSERT_TRUE(store.writeTemplates({"{\"c\":1}"}));
  store.close();
  PendingStore later(dir.path(), {});
  later.open();
  EXPECT_EQ(later.takeTemplates(), (std::vector<std::string>{"{\"c\":1}"}));
}

// A long run of payloads that are no record (a later build's, a damaged disk's) is read past in
// bounded stretches, and a shutdown stops the reading where it is.
TEST_F(StoreTest, ALongRunOfUnreadableFramesIsReadInStretchesAndShutdownLeavesTheRestOnDisk) {
  constexpr std::size_t kBad = 5000;
  std::vector<std::string> payloads(kBad, "{\"a\":1}");
  payloads.push_back(recordJson("behind"));
  writeFile(pendingFile(), frames(payloads));
  std::atomic<bool> stop{false};
  {
    PendingStore store(dir.path(), {});
    store.setStopFlag(&stop);
    ASSERT_EQ(store.open(), kBad + 1);
    stop = true;
    EXPECT_FALSE(store.next()) << "a shutdown does not wait for the whole run to be read past";
    EXPECT_TRUE(store.readPaused());
    store.close();
  }
  const auto left = testing::pendingPayloads(dir.path());
  EXPECT_GE(left.size(), kBad) << "what was not read past stays on disk";
  ASSERT_FALSE(left.empty());
  EXPECT_EQ(nameOf(left.back()), "behind");

  stop = false;
  PendingStore store(dir.path(), {});
  store.setStopFlag(&stop);
  store.open();
  std::optional<PendingStore::Read> read;
  std::size_t stretches = 0;
  while (stretches < 100 && !(read = store.next())) {
    ASSERT_TRUE(store.readPaused()) << "nothing left only at the end";
    ++stretches;
  }
  ASSERT_TRUE(read);
  EXPECT_EQ(nameOf(read->bytes), "behind");
  EXPECT_GE(stretches, kBad / PendingStore::kPiecesPerRead);
  store.answered(read->ref);
  EXPECT_FALSE(store.next());
  EXPECT_FALSE(store.readPaused());
  EXPECT_TRUE(onDisk().empty());
}

// Damaged frames never hold up the records around them: a payload this build cannot read is
// moved aside as it was (within the quarantine's limit, each counted), a damaged length is read
// past, and a last frame cut short by a kill is not counted.
TEST_F(StoreTest, DamagedFramesAreMovedAsideOrReadPastWithinTheQuarantinesLimit) {
  const std::string later = R"({"xid":{"cid":"c","did":"d","sid":"s"},"action":{"type":"x"}})";
  std::vector<std::string> payloads{later};
  std::vector<std::string> good;
  for (int i = 0; i < 100; ++i) {
    payloads.push_back("{\"a\":" + std::to_string(i) + "}");
    if (i % 10 == 0) {
      good.push_back(std::to_string(i));
      payloads.push_back(recordJson(good.back()));
    }
  }
  std::string content = frames(payloads) + rawLength(-5) + "garbage-after-a-negative-length";
  content += frames({recordJson("last")}) + rawLength(1'000'000'000) + "oversized";
  const std::string torn = frames({recordJson("torn")});
  content += torn.substr(0, torn.size() / 2);
  writeFile(pendingFile(), content);
  PendingStore store(dir.path(), ZStoreLimits{.maxQuarantineBytes = 1024});
  EXPECT_EQ(store.open(), payloads.size() + 1) << "every whole frame counts, the torn one does not";
  good.push_back("last");
  EXPECT_EQ(sendAll(store), good);
  EXPECT_EQ(store.counts().quarantined, 101u);
  EXPECT_GE(store.counts().skippedPieces, 2u);  // the negative and the oversized length
  const auto size = platform::regularFileSize(dir.path() / "ZLogs.quarantine");
  ASSERT_TRUE(size);
  EXPECT_LE(*size, 1024u);
  PendingFileReader quarantine;
  ASSERT_TRUE(quarantine.open(dir.path() / "ZLogs.quarantine"));
  auto piece = quarantine.next();
  ASSERT_TRUE(piece);
  EXPECT_EQ(piece->payload, later);
  EXPECT_TRUE(onDisk().empty()) << "nothing stays stuck on disk";
}

// Another process appends to the shared file, which the owner moves aside at each of its starts:
// what counts against the allowance is the file's size, not all this process ever appended. When
// the file really is full, the newest are not dropped: the caller keeps them in memory.
TEST_F(StoreTest, AnotherProcessKeepsWithinTheSharedFilesSizeAndDropsNothingWhenItIsFull) {
  testing::LockHeldByChild owner(dir.path() / "ZLogs.lock");
  ASSERT_TRUE(owner.held());
  const ZStoreLimits limits{.maxBytesOnDisk = 16u << 10};
  PendingStore store(dir.path(), limits);
  EXPECT_EQ(store.open(), 0u);
  for (int round = 0; round < 8; ++round) {
    std::vector<std::string> batch;
    for (int i = 0; i < 40; ++i) batch.push_back(recordJson(std::to_string(round * 40 + i)));
    EXPECT_EQ(store.keep(batch).written, batch.size()) << "round " << round;
    // What the owner does at its start.
    fs::rename(pendingFile(), dir.path() / ("ZLogs.tmp." + std::to_string(round + 1)));
  }
  for (int round = 1; round <= 8; ++round)
    fs::remove(dir.path() / ("ZLogs.tmp." + std::to_string(round)));
  std::size_t written = 0;
  bool full = false;
  for (int i = 0; i < 1000 && !full; ++i) {
    const auto kept = store.keep({recordJson("fill-" + std::to_string(i))});
    written += kept.written;
    full = kept.handled() == 0;
  }
  EXPECT_TRUE(full);
  EXPECT_EQ(store.counts().droppedForSpace, 0u);
  EXPECT_EQ(onDisk().size(), written);
  EXPECT_LE(store.bytesOnDisk(), limits.maxBytesOnDisk);
}

// A start while another process still holds the store (the last run shutting down) or appends to
// the pending file takes it over once that process lets go; spilled records meanwhile wait in
// the shared file.
TEST_F(StoreTest, AStartThatFindsTheStoreOrThePendingFileHeldTakesItOverOnceItIsLetGo) {
  for (const char* held : {"ZLogs.lock", "ZLogs.tmp"}) {
    SCOPED_TRACE(held);
    testing::TempDir here;
    writeFile(here.path() / "ZLogs.tmp", frames({recordJson("r1"), recordJson("r2")}));
    testing::LockHeldByChild other(here.path() / held);
    ASSERT_TRUE(other.held());
    PendingStore store(here.path(), {});
    EXPECT_EQ(store.open(), 0u);
    EXPECT_TRUE(store.openUnfinished());
    const bool lockHeld = std::string(held) == "ZLogs.lock";
    if (lockHeld) {
      EXPECT_EQ(store.spill({recordJson("s1")}), 1u) << "not dropped: the disk has room";
      EXPECT_EQ(store.retryOpen(), 0u);
    }
    other.release();
    EXPECT_EQ(store.retryOpen(), lockHeld ? 3u : 2u);
    EXPECT_FALSE(store.openUnfinished());
    EXPECT_EQ(sendAll(store), lockHeld ? (std::vector<std::string>{"r1", "r2", "s1"})
                                       : (std::vector<std::string>{"r1", "r2"}));
    EXPECT_TRUE(testing::pendingPayloads(here.path()).empty());
  }
}

}  // namespace
}  // namespace zelvanor::detail
