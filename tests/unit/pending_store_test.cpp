// The pending store: records leave the disk only once answered, damaged files give back every
// record they still hold, the disk stays within its limit, and nothing that is not a regular
// file of ours is ever read or waited on.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/file_ops.hpp"
#include "store/pending_store.hpp"
#include "support/child_host.hpp"
#include "support/data_table.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {
namespace {

namespace fs = std::filesystem;
using testing::framed;
using testing::namedRecord;
using testing::nextOf;
using testing::rawLength;
using testing::writeFile;
using Names = std::vector<std::string>;

std::string nameOf(const std::string& json) {
  auto record = decodeJson<ZLogRecord>(json);
  return record ? record->action.name : "<undecodable>";
}

/// "from", ..., "to - 1": the names of records numbered in that range.
Names numbered(int from, int to) {
  Names out;
  for (int i = from; i < to; ++i) out.push_back(std::to_string(i));
  return out;
}

Names records(const Names& names) {
  Names out;
  for (const auto& name : names) out.push_back(namedRecord(name));
  return out;
}

/// What the store's record files in `dir` ("ZLogs.tmp" and its segments) take on disk, whatever
/// the store itself counts; their names into `names`.
std::uint64_t filesOnDisk(const fs::path& dir, Names* names = nullptr) {
  std::uint64_t total = 0;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("ZLogs.tmp", 0) != 0) continue;
    if (names) names->push_back(entry.path().filename().string());
    total += platform::regularFileSize(entry.path()).value_or(0);
  }
  return total;
}

/// Sends every record the store reads (across paused reads, counted into `pauses`), answering
/// each; their names. The store's count of what waits must be exactly what it then reads.
Names sendAll(PendingStore& store, std::size_t* pauses = nullptr) {
  const std::uint64_t counted = store.line().waiting();
  const std::uint64_t quarantinedBefore = store.counts().quarantined;
  Names sent;
  for (int turns = 0; turns < 100000; ++turns) {
    auto read = nextOf(store);
    if (!read && !store.readPaused()) break;
    if (!read && pauses) ++*pauses;
    if (!read) continue;
    sent.push_back(nameOf(read->bytes));
    store.answered(read->ref);
  }
  EXPECT_EQ(counted, sent.size() + store.counts().quarantined - quarantinedBefore);
  EXPECT_EQ(store.line().waiting(), 0u);
  return sent;
}

struct StoreTest : ::testing::Test {
  fs::path pendingFile() const { return dir.path() / "ZLogs.tmp"; }
  Names onDisk() const { return testing::pendingNames(dir.path()); }
  testing::TempDir dir;
};

// One store's life across kills: a restored record leaves the disk only once answered (a kill
// resends only what was in flight) and goes out in this SDK's own encoding (what a later version
// added is dropped); spilled records follow the restored ones; one that was not sent stays in its
// place with everything after it; kept ones wait for a later start, in a file only the app reads.
TEST_F(StoreTest, RecordsLeaveTheDiskOnlyOnceAnsweredAndTheRestWaitsInOrder) {
  // A record as a later version stores it, with a field this one does not know.
  const std::string stored = testing::dataText("pending/later_version.json");
  writeFile(pendingFile(), framed({stored, namedRecord("2"), namedRecord("3"), namedRecord("4")}));
  {
    PendingStore store(dir.path(), {});
    ASSERT_EQ(store.open(), 4u);
    EXPECT_FALSE(fs::exists(pendingFile())) << "the start takes the file over";
    auto first = nextOf(store).value();
    auto second = nextOf(store).value();
    auto third = nextOf(store).value();
    EXPECT_EQ(first.bytes, encodeJson(decodeJson<ZLogRecord>(stored).value()).value());
    store.answered(first.ref);
    store.answered(third.ref);  // answered out of order: "2" is still in flight
    // Killed here: the store is let go without any goodbye.
  }
  EXPECT_EQ(onDisk(), numbered(2, 5)) << "only the answered prefix left the disk";
  PendingStore again(dir.path(), {});
  ASSERT_EQ(again.open(), 3u);
  ASSERT_EQ(again.keep({namedRecord("kept")}).written, 1u);
  again.line().join(2);  // as a hand-over to the store does
  ASSERT_EQ(again.spill(records({"s1", "s2"})), 2u);
  // Exactly these are read: no further read comes to find a segment's end.
  std::vector<PendingStore::Read> reads;
  Names names;
  for (int i = 0; i < 5; ++i) {
    reads.push_back(nextOf(again).value());
    names.push_back(nameOf(reads.back().bytes));
  }
  EXPECT_EQ(names, (Names{"2", "3", "4", "s1", "s2"})) << "spilled behind the restored ones";
  EXPECT_GT(again.bytesOnDisk(), 0u);
  for (const auto& read : reads) again.answered(read.ref);
  Names files;
  EXPECT_EQ(again.bytesOnDisk(), filesOnDisk(dir.path(), &files)) << "it falls with the answers";
  EXPECT_EQ(files, Names{"ZLogs.tmp"}) << "answered segments are removed";
  EXPECT_EQ(onDisk(), Names{"kept"}) << "kept for a later start";
  again.close();

  writeFile(pendingFile(), framed(records({"5", "6", "7"})));
  PendingStore third(dir.path(), {});
  ASSERT_EQ(third.open(), 3u);
  // A pending file left readable by others (an older build, a careless tool) is tightened by the
  // next append.
  writeFile(pendingFile(), framed({namedRecord("loose")}));
  ASSERT_EQ(::chmod(pendingFile().c_str(), 0644), 0);
  ASSERT_EQ(third.keep({namedRecord("kept")}).written, 1u);
  EXPECT_EQ(fs::status(pendingFile()).permissions(),
            fs::perms::owner_read | fs::perms::owner_write);
  const auto five = nextOf(third).value(), six = nextOf(third).value();
  third.answered(five.ref);
  third.unsent(six.ref);  // a transport failure
  third.answered(nextOf(third).value().ref);
  EXPECT_FALSE(nextOf(third));
  EXPECT_EQ(onDisk(), (Names{"6", "7", "loose", "kept"}));
  // That a link planted at the path gives a failed append, not a target created, is the file
  // layer's own test (appends go through it).
}

// Plants `thing` (a word of tests/data/pending/foreign_files.txt) where one of the store's
// files belongs.
void plant(const fs::path& at, const std::string& thing, const std::string& good) {
  fs::remove(at);
  const std::string junk(1u << 20, thing == "zerosBehind" ? '\0' : 'x');  // 4x the limit
  if (thing == "records") writeFile(at, good);
  if (thing == "zerosBehind") writeFile(at, good + junk);
  if (thing == "lengthPastTheEnd") writeFile(at, good + rawLength(1'000'000'000) + junk);
  if (thing == "fifo") {
    ASSERT_EQ(::mkfifo(at.c_str(), 0600), 0);
  }
  if (thing == "directory") fs::create_directory(at);
  if (thing == "link") fs::create_symlink(at.parent_path() / "target", at);
}

// Damaged or foreign things where the store's files belong: the good records all go out, nothing
// is dropped as "storage full", the files stay within the limit, nothing that is no regular file
// is opened, waited on or written through, and what stops the usual way is said.
TEST_F(StoreTest, DamagedOrForeignFilesNeverHoldUpOrPushOutTheGoodRecords) {
  const ZStoreLimits limits{.maxBytesOnDisk = 256u << 10};
  const std::string good = framed(records(numbered(0, 300)));
  const std::string elsewhere = framed({namedRecord("elsewhere")});
  for (const auto& row : testing::dataTable("pending/foreign_files.txt")) {
    SCOPED_TRACE(row[0]);
    testing::TempDir here;
    const fs::path d = here.path();
    writeFile(d / "ZLogs.tmp", good);
    writeFile(d / "target", elsewhere);
    std::istringstream plants(row[0]);
    for (std::string word; plants >> word;)
      plant(d / word.substr(0, word.find('=')), word.substr(word.find('=') + 1), good);
    std::vector<std::string> said;
    {
      PendingStore store(d, limits);
      EXPECT_EQ(store.open(), 300u);
      EXPECT_LE(filesOnDisk(d), limits.maxBytesOnDisk) << "the junk is gone";
      EXPECT_EQ(sendAll(store), numbered(0, 300));
      EXPECT_EQ(store.counts().droppedForSpace, 0u);
      // Kept for later and found by the next start, whatever stands at the pending file.
      EXPECT_EQ(store.keep({namedRecord("kept")}).written, 1u);
      said = store.takeFindings();
    }
    PendingStore later(d, limits);
    EXPECT_EQ(later.open(), 1u);
    const std::string findings = ::testing::PrintToString(said);
    EXPECT_NE(findings.find(row.at(1)), std::string::npos) << findings;
    EXPECT_EQ(testing::slurp(d / "target"), elsewhere) << "a link's target is never touched";
  }
}

// A start takes "ZLogs.tmp" over while another writer of the app keeps appending to it: across
// starts, every record is sent exactly once and in the order appended. And where the disk limit
// is reached, the oldest are dropped.
TEST_F(StoreTest, StartsRacingWithAppendsLoseNoneAndTheDiskLimitDropsTheOldest) {
  constexpr int kRecords = 2000;
  std::atomic<bool> appending{true};
  std::thread appender([&] {
    PendingStore other(dir.path(), {});  // never opened: it owns nothing and only appends
    for (const auto& record : records(numbered(0, kRecords)))
      EXPECT_EQ(other.keep({record}).written, 1u);
    appending = false;
  });
  Names sent;
  auto start = [&] {
    PendingStore store(dir.path(), {});
    store.open();
    for (auto& name : sendAll(store)) sent.push_back(std::move(name));
  };
  for (int starts = 0; appending && starts < 100000; ++starts) start();
  appender.join();
  start();
  EXPECT_EQ(sent, numbered(0, kRecords));
  EXPECT_TRUE(onDisk().empty());

  // The disk stays within its limit by dropping the oldest.
  const ZStoreLimits limits{.maxBytesOnDisk = 16u << 10};
  PendingStore store(dir.path(), limits);
  store.open();
  for (int i = 0; i < 2000; i += 50) {
    ASSERT_EQ(store.keep(records(numbered(i, i + 50))).written, 50u);
    EXPECT_LE(store.bytesOnDisk(), limits.maxBytesOnDisk);
    EXPECT_LE(filesOnDisk(dir.path()), limits.maxBytesOnDisk) << "the files themselves too";
  }
  const auto kept = onDisk();
  ASSERT_FALSE(kept.empty());
  const int first = std::stoi(kept.front());
  EXPECT_EQ(kept, numbered(first, 2000)) << "the newest, in order, no gaps";
  EXPECT_EQ(store.counts().droppedForSpace, static_cast<std::uint64_t>(first));
  // Records waiting to be sent are dropped the same way, and leave the store's count with them.
  for (int i = 0; i < 1000; i += 20) {
    store.line().join(20);  // as a hand-over to the store does
    ASSERT_EQ(store.spill(records(numbered(i, i + 20))), 20u);
  }
  const Names spilled = sendAll(store);
  ASSERT_FALSE(spilled.empty());
  EXPECT_EQ(spilled, numbered(std::stoi(spilled.front()), 1000)) << "the newest, in order";
}

// Damaged frames never hold up the records around them: payloads this build cannot read (a later
// build's, a damaged disk's) are moved aside as they were, within the quarantine's limit and each
// counted; a long run of them is read past in bounded stretches, and a shutdown stops the reading
// where it is. A damaged length is read past, and a last frame cut short by a kill is not counted.
TEST_F(StoreTest, DamagedFramesAreMovedAsideOrReadPastInStretchesWithinTheQuarantinesLimit) {
  constexpr std::size_t kBad = 5000;
  const std::string later = R"({"xid":{"cid":"c","did":"d","sid":"s"},"action":{"type":"x"}})";
  Names payloads{later}, good;
  for (std::size_t i = 0; i < kBad; ++i) {
    payloads.push_back("{\"a\":" + std::to_string(i) + "}");
    if (i % 10 == 0 && i < 100) {
      good.push_back(std::to_string(i));
      payloads.push_back(namedRecord(good.back()));
    }
  }
  std::string content = framed(payloads) + rawLength(-5) + "garbage-after-a-negative-length";
  content += framed({namedRecord("last")}) + rawLength(1'000'000'000) + "oversized";
  const std::string torn = framed({namedRecord("torn")});
  writeFile(pendingFile(), content + torn.substr(0, torn.size() / 2));
  good.push_back("last");
  const ZStoreLimits limits{.maxQuarantineBytes = 1024};
  std::atomic<bool> stop{false};
  PendingStore::Counts counts;
  {
    PendingStore store(dir.path(), limits);
    store.setStopFlag(&stop);
    EXPECT_EQ(store.open(), payloads.size() + 1) << "every whole frame counts, the torn one not";
    auto first = nextOf(store).value();
    EXPECT_EQ(nameOf(first.bytes), good.front());
    store.answered(first.ref);
    stop = true;
    EXPECT_FALSE(nextOf(store)) << "a shutdown does not wait for the whole run to be read past";
    EXPECT_TRUE(store.readPaused());
    counts = store.counts();
    store.close();
  }
  good.erase(good.begin());
  EXPECT_GE(testing::pendingPayloads(dir.path()).size(), kBad - 10) << "what was not read past";
  EXPECT_EQ(onDisk(), good);

  PendingStore store(dir.path(), limits);  // a start with no stop flag at all
  store.open();
  std::size_t stretches = 0;
  EXPECT_EQ(sendAll(store, &stretches), good);
  EXPECT_GE(stretches, (kBad - 100) / PendingStore::kPiecesPerRead);
  EXPECT_EQ(counts.quarantined + store.counts().quarantined, kBad + 1) << "each counted once";
  // The negative and the oversized length.
  EXPECT_GE(counts.skippedPieces + store.counts().skippedPieces, 2u);
  EXPECT_LE(platform::regularFileSize(dir.path() / "ZLogs.quarantine").value(), 1024u);
  PendingFileReader quarantine;
  ASSERT_TRUE(quarantine.open(dir.path() / "ZLogs.quarantine"));
  EXPECT_EQ(quarantine.next().value().payload, later);
  EXPECT_TRUE(onDisk().empty()) << "nothing stays stuck on disk";
}

// A start while another process still holds the store (the last run shutting down) or appends to
// the pending file takes it over once that process lets go. Until then its records wait in the
// shared file, which the owner moves aside at each of its starts: what counts against the
// allowance is that file's size, not all this process ever appended; and when the file really is
// full the newest are not dropped (the caller keeps them in memory). Templates the last run kept
// are taken only once the store is owned, those of this process waiting behind them.
TEST_F(StoreTest,
       AStartThatFindsTheStoreOrThePendingFileHeldSharesItThenTakesItOverWithTheTemplates) {
  const ZStoreLimits limits{.maxBytesOnDisk = 16u << 10};
  for (const std::string held : {"ZLogs.lock", "ZLogs.tmp"}) {
    SCOPED_TRACE(held);
    testing::TempDir here;
    const fs::path d = here.path();
    {
      // The last run kept templates, newest first within the limit.
      PendingStore earlier(d, ZStoreLimits{.maxTemplatesKept = 2});
      earlier.open();
      ASSERT_TRUE(earlier.writeTemplates({"{\"a\":0}", "{\"a\":1}", "{\"a\":2}"}));
    }
    writeFile(d / "ZLogs.tmp", framed(records({"r1", "r2"})));
    auto other = testing::lockHeldByChild(d / held);
    ASSERT_TRUE(other.said("held"));
    PendingStore store(d, limits);
    EXPECT_EQ(store.open(), 0u);
    EXPECT_TRUE(store.openUnfinished());
    Names expected{"r1", "r2"};
    if (held == "ZLogs.lock") {
      // Only the owner takes templates; those of another process wait behind the kept ones.
      EXPECT_TRUE(store.takeTemplates().empty());
      EXPECT_TRUE(store.writeTemplates({"{\"b\":1}"}));
      for (int round = 1; round <= 8; ++round) {
        EXPECT_EQ(store.keep(records(numbered(round * 40, round * 40 + 40))).written, 40u);
        // What the owner does at its start (and later sends what it moved aside).
        fs::rename(d / "ZLogs.tmp", d / "ZLogs.tmp.1");
        fs::remove(d / "ZLogs.tmp.1");
      }
      store.line().join(1);
      EXPECT_EQ(store.spill({namedRecord("s1")}), 1u) << "not dropped: the disk has room";
      expected = {"s1"};
      for (int i = 0; i < 1000 && store.keep({namedRecord(std::to_string(i))}).handled(); ++i)
        expected.push_back(std::to_string(i));
      EXPECT_EQ(store.keep({namedRecord("over")}).handled(), 0u) << "the shared file is full";
      EXPECT_EQ(store.counts().droppedForSpace, 0u) << "the caller keeps what the disk would not";
      EXPECT_LE(store.bytesOnDisk(), limits.maxBytesOnDisk);
      EXPECT_EQ(store.retryOpen(), 0u);
    }
    other.kill();
    EXPECT_EQ(store.retryOpen(), expected.size());
    EXPECT_FALSE(store.openUnfinished());
    EXPECT_EQ(sendAll(store), expected);
    EXPECT_TRUE(testing::pendingPayloads(d).empty());
    if (held != "ZLogs.lock") continue;
    // Taken once the store is owned, templates stay in their file until their records are on
    // disk: a kill before then finds them again, one after only as records.
    EXPECT_EQ(store.takeTemplates(), (Names{"{\"a\":1}", "{\"a\":2}", "{\"b\":1}"}));
    EXPECT_TRUE(store.takeTemplates().empty()) << "taken once";
    EXPECT_TRUE(fs::exists(d / "ZTemplates.tmp")) << "taking them leaves the file";
    {
      PendingStore afterAKill(d, {});
      store.close();
      afterAKill.open();
      EXPECT_EQ(afterAKill.takeTemplates().size(), 3u);
    }
    store.open();
    store.forgetTakenTemplates();
    EXPECT_FALSE(fs::exists(d / "ZTemplates.tmp"));
    // A shutdown keeps what is still waiting, including taken ones not yet resolved.
    ASSERT_TRUE(store.writeTemplates({"{\"c\":1}"}));
    store.close();
    PendingStore later(d, {});
    later.open();
    EXPECT_EQ(later.takeTemplates(), Names{"{\"c\":1}"});
  }
}

}  // namespace
}  // namespace zelvanor::detail
