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
using testing::framed;
using testing::namedRecord;
using testing::pendingNames;
using testing::rawLength;
using testing::writeFile;

std::string nameOf(const std::string& json) {
  auto record = decodeJson<ZLogRecord>(json);
  return record ? record->action.name : "<undecodable>";
}

/// "from", ..., "to - 1": the names of records numbered in that range.
std::vector<std::string> numbered(int from, int to) {
  std::vector<std::string> out;
  for (int i = from; i < to; ++i) out.push_back(std::to_string(i));
  return out;
}

std::vector<std::string> records(const std::vector<std::string>& names) {
  std::vector<std::string> out;
  for (const auto& name : names) out.push_back(namedRecord(name));
  return out;
}

/// The store's record files in `dir` ("ZLogs.tmp" and its segments), and what they take on disk
/// whatever the store itself counts.
std::vector<std::string> recordFiles(const fs::path& dir, std::uint64_t* bytes = nullptr) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) {
    if (entry.path().filename().string().rfind("ZLogs.tmp", 0) != 0) continue;
    names.push_back(entry.path().filename().string());
    if (bytes) *bytes += platform::regularFileSize(entry.path()).value_or(0);
  }
  return names;
}

std::uint64_t filesOnDisk(const fs::path& dir) {
  std::uint64_t total = 0;
  recordFiles(dir, &total);
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
  std::vector<std::string> onDisk() const { return pendingNames(dir.path()); }
  /// Reads every record waiting to be sent, without answering any.
  static std::vector<PendingStore::Read> readAll(PendingStore& store) {
    std::vector<PendingStore::Read> out;
    while (auto read = store.next()) out.push_back(std::move(*read));
    return out;
  }
  testing::TempDir dir;
};

// One store's life across kills: a restored record leaves the disk only once answered (a kill
// resends only what was in flight) and goes out in this SDK's own encoding; spilled records
// follow the restored ones; one that was not sent stays in its place with everything after it;
// kept ones wait for a later start, in a file only the app may read.
TEST_F(StoreTest, RecordsLeaveTheDiskOnlyOnceAnsweredAndTheRestWaitsInOrder) {
  const std::string stored =
      R"({"xid":{"cid":"c","did":"d","sid":"s"},"sdk":{"type":"production","version":"0.9.0",)"
      R"("common_log_version":"1.2.0"},"action":{"type":"event","name":"1","kind":"k"},)"
      R"("agreement":{"third_ad_agree":true},"page":null,"from_a_later_version":{"x":1}})";
  writeFile(pendingFile(), framed({stored, namedRecord("2"), namedRecord("3"), namedRecord("4")}));
  {
    PendingStore store(dir.path(), {});
    ASSERT_EQ(store.open(), 4u);
    EXPECT_FALSE(fs::exists(pendingFile())) << "the start takes the file over";
    auto first = store.next();
    auto second = store.next();
    auto third = store.next();
    ASSERT_TRUE(first && second && third);
    EXPECT_EQ(first->bytes, encodeJson(decodeJson<ZLogRecord>(stored).value()).value());
    for (const char* dropped : {"third_ad_agree", "null", "from_a_later_version"})
      EXPECT_EQ(first->bytes.find(dropped), std::string::npos) << dropped;
    store.answered(first->ref);
    store.answered(third->ref);  // answered out of order: "2" is still in flight
    // Killed here: the store is let go without any goodbye.
  }
  EXPECT_EQ(onDisk(), numbered(2, 5)) << "only the answered prefix left the disk";
  PendingStore again(dir.path(), {});
  ASSERT_EQ(again.open(), 3u);
  ASSERT_EQ(again.keep({namedRecord("kept")}).written, 1u);
  ASSERT_EQ(again.spill(records({"s1", "s2"})), 2u);
  // Exactly these are read: no further read comes to find a segment's end.
  std::vector<PendingStore::Read> reads;
  for (int i = 0; i < 5; ++i) reads.push_back(again.next().value());
  EXPECT_EQ(nameOf(reads[0].bytes), "2");
  EXPECT_EQ(nameOf(reads[3].bytes), "s1") << "spilled behind the restored ones";
  EXPECT_GT(again.bytesOnDisk(), 0u);
  for (const auto& read : reads) again.answered(read.ref);
  EXPECT_EQ(again.bytesOnDisk(), filesOnDisk(dir.path())) << "it falls as the answers come in";
  EXPECT_EQ(recordFiles(dir.path()), (std::vector<std::string>{"ZLogs.tmp"}))
      << "answered segments are removed";
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"kept"})) << "kept for a later start";
  again.close();

  writeFile(pendingFile(), framed(records({"5", "6", "7"})));
  PendingStore third(dir.path(), {});
  ASSERT_EQ(third.open(), 3u);
  // A pending file left readable by others (an older build, a careless tool) is tightened by the
  // next append.
  writeFile(pendingFile(), framed({namedRecord("loose")}));
  ASSERT_EQ(::chmod(pendingFile().c_str(), 0644), 0);
  ASSERT_EQ(third.keep({namedRecord("kept")}).written, 1u);
  struct stat info {};
  ASSERT_EQ(::stat(pendingFile().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  auto all = readAll(third);
  ASSERT_EQ(all.size(), 3u);
  third.answered(all[0].ref);
  third.unsent(all[1].ref);  // a transport failure
  for (std::size_t i = 2; i < all.size(); ++i) third.answered(all[i].ref);
  EXPECT_EQ(onDisk(), (std::vector<std::string>{"6", "7", "loose", "kept"}));
  // Nor through a link planted at the path (file_ops_test has every kind), which gives a failed
  // append, not a target created.
  fs::remove(pendingFile());
  fs::create_symlink(dir.path() / "missing", pendingFile());
  PendingStore appender(dir.path(), {});  // never opened: it only appends to the pending file
  EXPECT_EQ(appender.keep({namedRecord("2")}).written, 0u);
  EXPECT_FALSE(fs::exists(dir.path() / "missing"));
}

TEST_F(StoreTest, TheDiskStaysWithinItsLimitByDroppingTheOldest) {
  const ZStoreLimits limits{.maxBytesOnDisk = 16u << 10};
  PendingStore store(dir.path(), limits);
  store.open();
  constexpr int kRecords = 2000;
  for (int i = 0; i < kRecords; i += 50) {
    const auto batch = records(numbered(i, i + 50));
    ASSERT_EQ(store.keep(batch).written, batch.size());
    EXPECT_LE(store.bytesOnDisk(), limits.maxBytesOnDisk);
    EXPECT_LE(filesOnDisk(dir.path()), limits.maxBytesOnDisk) << "the files themselves too";
  }
  const auto kept = onDisk();
  ASSERT_FALSE(kept.empty());
  const int first = std::stoi(kept.front());
  EXPECT_EQ(kept, numbered(first, kRecords)) << "the newest, in order, no gaps";
  EXPECT_EQ(store.counts().droppedForSpace, static_cast<std::uint64_t>(first));
}

// What a test plants where one of the store's files belongs.
enum class Thing { none, records, zerosBehind, lengthPastTheEnd, fifo, directory, link };

void plant(const fs::path& at, Thing thing, const std::string& good) {
  fs::remove(at);
  const std::size_t junk = 1u << 20;  // four times the limit below
  switch (thing) {
    case Thing::none:
      break;
    case Thing::records:
      writeFile(at, good);
      break;
    case Thing::zerosBehind:
      writeFile(at, good + std::string(junk, '\0'));
      break;
    case Thing::lengthPastTheEnd:
      writeFile(at, good + rawLength(1'000'000'000) + std::string(junk, 'x'));
      break;
    case Thing::fifo:
      ASSERT_EQ(::mkfifo(at.c_str(), 0600), 0);
      break;
    case Thing::directory:
      fs::create_directory(at);
      break;
    case Thing::link:
      fs::create_symlink(at.parent_path() / "target", at);
      break;
  }
}

// Damaged or foreign things where the store's files belong: the good records all go out, nothing
// is dropped as "storage full", the files stay within the limit, nothing that is no regular file
// is opened or waited on, and what stops the usual way is said.
TEST_F(StoreTest, DamagedOrForeignFilesNeverHoldUpOrPushOutTheGoodRecords) {
  const ZStoreLimits limits{.maxBytesOnDisk = 256u << 10};
  struct Planted {
    const char* name;
    Thing thing;
  };
  struct Case {
    std::vector<Planted> plants;
    const char* said;  // in a finding, or nothing to say
  };
  const std::vector<Case> cases{
      {{{"ZLogs.tmp", Thing::zerosBehind}}, nullptr},
      {{{"ZLogs.tmp", Thing::none}, {"ZLogs.tmp.1", Thing::lengthPastTheEnd}}, nullptr},
      {{{"ZLogs.lock", Thing::fifo}}, "ZLogs.lock is a FIFO"},
      {{{"ZLogs.lock", Thing::directory}}, "ZLogs.lock is a directory"},
      {{{"ZLogs.lock", Thing::link}}, "ZLogs.lock is a symbolic link"},
      {{{"ZLogs.tmp.1", Thing::directory}}, "ZLogs.tmp.1 is a directory"},
      {{{"ZLogs.tmp.2", Thing::records},
        {"ZLogs.tmp", Thing::fifo},
        {"ZLogs.tmp.3", Thing::link},
        {"ZLogs.tmp.7", Thing::directory}},
       "ZLogs.tmp is a FIFO"},
      {{{"ZLogs.tmp.1", Thing::records}, {"ZLogs.tmp", Thing::link}},
       "ZLogs.tmp is a symbolic link"},
  };
  const auto goodNames = numbered(0, 300);
  const std::string good = framed(records(goodNames));
  const std::string elsewhere = framed({namedRecord("elsewhere")});
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(::testing::Message() << "case " << i << ": " << cases[i].plants[0].name);
    testing::TempDir here;
    const fs::path d = here.path();
    writeFile(d / "ZLogs.tmp", good);
    writeFile(d / "target", elsewhere);
    for (const auto& [name, thing] : cases[i].plants) plant(d / name, thing, good);
    std::vector<std::string> said;
    {
      PendingStore store(d, limits);
      EXPECT_EQ(store.open(), 300u);
      EXPECT_LE(filesOnDisk(d), limits.maxBytesOnDisk) << "the junk is gone";
      EXPECT_EQ(sendAll(store), goodNames);
      EXPECT_EQ(store.counts().droppedForSpace, 0u);
      // Kept for later and found by the next start, whatever stands at the pending file.
      EXPECT_EQ(store.keep({namedRecord("kept")}).written, 1u);
      said = store.takeFindings();
    }
    PendingStore later(d, limits);
    EXPECT_EQ(later.open(), 1u);
    const char* expected = cases[i].said;
    EXPECT_TRUE(!expected || std::any_of(said.begin(), said.end(), [&](const std::string& line) {
      return line.find(expected) != std::string::npos;
    })) << ::testing::PrintToString(said);
    EXPECT_EQ(testing::slurp(d / "target"), elsewhere) << "a link's target is never touched";
  }
}

// A start takes "ZLogs.tmp" over while another writer of the app keeps appending to it: across
// starts, every record is sent exactly once and in the order appended.
TEST_F(StoreTest, StartsRacingWithAppendsLoseNoneAndDuplicateNone) {
  constexpr int kRecords = 2000;
  std::atomic<bool> appending{true};
  std::thread appender([&] {
    PendingStore other(dir.path(), {});  // never opened: it owns nothing and only appends
    for (const auto& record : records(numbered(0, kRecords)))
      EXPECT_EQ(other.keep({record}).written, 1u);
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
  EXPECT_EQ(sent, numbered(0, kRecords));
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
    const bool kept = other.keep({namedRecord("from-the-other")}).written == 1;
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

// Damaged frames never hold up the records around them: payloads this build cannot read (a later
// build's, a damaged disk's) are moved aside as they were, within the quarantine's limit and each
// counted; a long run of them is read past in bounded stretches, and a shutdown stops the reading
// where it is. A damaged length is read past, and a last frame cut short by a kill is not counted.
TEST_F(StoreTest, DamagedFramesAreMovedAsideOrReadPastInStretchesWithinTheQuarantinesLimit) {
  constexpr std::size_t kBad = 5000;
  const std::string later = R"({"xid":{"cid":"c","did":"d","sid":"s"},"action":{"type":"x"}})";
  std::vector<std::string> payloads{later};
  std::vector<std::string> good;
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
    auto first = store.next();
    ASSERT_TRUE(first);
    EXPECT_EQ(nameOf(first->bytes), good.front());
    store.answered(first->ref);
    stop = true;
    EXPECT_FALSE(store.next()) << "a shutdown does not wait for the whole run to be read past";
    EXPECT_TRUE(store.readPaused());
    counts = store.counts();
    store.close();
  }
  good.erase(good.begin());
  EXPECT_GE(testing::pendingPayloads(dir.path()).size(), kBad - 10) << "what was not read past";
  EXPECT_EQ(onDisk(), good);

  PendingStore store(dir.path(), limits);  // a start with no stop flag at all
  store.open();
  std::vector<std::string> sent;
  std::size_t stretches = 0;
  for (int turns = 0; turns < 100; ++turns) {
    auto read = store.next();
    if (!read && !store.readPaused()) break;
    stretches += read ? 0 : 1;
    if (!read) continue;
    sent.push_back(nameOf(read->bytes));
    store.answered(read->ref);
  }
  EXPECT_EQ(sent, good);
  EXPECT_GE(stretches, (kBad - 100) / PendingStore::kPiecesPerRead);
  EXPECT_EQ(counts.quarantined + store.counts().quarantined, kBad + 1) << "each counted once";
  // The negative and the oversized length.
  EXPECT_GE(counts.skippedPieces + store.counts().skippedPieces, 2u);
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
    for (int i = 0; i < 40; ++i) batch.push_back(namedRecord(std::to_string(round * 40 + i)));
    EXPECT_EQ(store.keep(batch).written, batch.size()) << "round " << round;
    // What the owner does at its start.
    fs::rename(pendingFile(), dir.path() / ("ZLogs.tmp." + std::to_string(round + 1)));
  }
  for (int round = 1; round <= 8; ++round)
    fs::remove(dir.path() / ("ZLogs.tmp." + std::to_string(round)));
  std::size_t written = 0;
  bool full = false;
  for (int i = 0; i < 1000 && !full; ++i) {
    const auto kept = store.keep({namedRecord("fill-" + std::to_string(i))});
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
    writeFile(here.path() / "ZLogs.tmp", framed({namedRecord("r1"), namedRecord("r2")}));
    testing::LockHeldByChild other(here.path() / held);
    ASSERT_TRUE(other.held());
    PendingStore store(here.path(), {});
    EXPECT_EQ(store.open(), 0u);
    EXPECT_TRUE(store.openUnfinished());
    const bool lockHeld = std::string(held) == "ZLogs.lock";
    if (lockHeld) {
      EXPECT_EQ(store.spill({namedRecord("s1")}), 1u) << "not dropped: the disk has room";
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
