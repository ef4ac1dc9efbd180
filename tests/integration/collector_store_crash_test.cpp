// Hosts killed at random moments: while they track (every record goes to disk), right after a
// burst, and while they restore and send a backlog to a real collector and shut down. Every
// record that was whole on disk is read back whole, in order, and is delivered or still on disk
// at the end; a record is delivered twice at most when it was in flight at a kill; what a kill
// loses is at most what was still in memory. And a full disk (a small tmpfs, so only when the
// tests run as root) or a read-only one: records the disk would not take stay in memory, only
// what was really written counts as kept, and the writes are tried again until the disk has
// room; none is lost and the order holds.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "collector.hpp"
#include "network/https_delivery.hpp"
#include "platform/file_ops.hpp"
#include "store/pending_frames.hpp"
#include "store/pending_store.hpp"
#include "support/child_host.hpp"
#include "support/data_table.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;
using collector::Collector;
using detail::FramePiece;

/// Starts the whole SDK in a child host over `dir` (zelvanor_crash_child) for each of `rounds`,
/// kills it at a random moment from `earliest` to `latest` after it says `word`, then runs `check`.
void killAtRandom(
    int rounds, int earliestMicros, int latestMicros,
    const std::function<testing::ChildHost()>& start, const char* word,
    const std::function<void()>& check = [] {}) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    testing::ChildHost host = start();
    ASSERT_TRUE(host.said(word)) << "the host did not get going within 30 s";
    const int delay = std::uniform_int_distribution<int>(earliestMicros, latestMicros)(random);
    std::this_thread::sleep_for(std::chrono::microseconds(delay));
    ASSERT_TRUE(host.kill());
    check();
  }
}

/// The sequence numbers of the host's records waiting in `dir`, in sending order. Each must be
/// whole and its own: its page is its action's, its title as long as the host made it.
std::vector<long long> trackedWaiting(const fs::path& dir) {
  std::vector<long long> seqs;
  for (const std::string& payload : testing::pendingPayloads(dir)) {
    auto record = decodeJson<ZLogRecord>(payload);
    EXPECT_TRUE(record) << "a kill left a record that is not whole";
    if (!record || record->action.name.rfind("crash-", 0) != 0) continue;
    EXPECT_EQ(record->xid, (ZXid{"crash-fa_cid", "crash-fa_did", "crash-fa_sid"}));
    const ZPage page = record->page.value_or(ZPage{});
    EXPECT_EQ("crash-" + page.id, record->action.name) << "a record mixed with another";
    seqs.push_back(std::stoll(record->action.name.substr(6)));
    // Every hundredth record of a tracking host (numbered from ten million on) is large.
    const bool large = seqs.back() >= 10'000'000 && seqs.back() % 100 == 0;
    EXPECT_EQ(page.title.size(), large ? 20000u : seqs.back() % 300);
  }
  return seqs;
}

// The whole SDK as the writer: a host tracking as fast as it can (gate closed, so every record
// goes to disk; some records span many pages) is killed at random; each start takes over what the
// last one left and carries on. And a burst far beyond the memory limit, then kill -9 shortly
// after: what went beyond the limit was on its way to disk, in order, and is there. Offline every
// record goes to disk; online (a collector refusing connections) the queue and the requests'
// window share the memory limit, and what goes beyond it goes to disk. Every file holds whole
// frames with at most a torn end (a kernel that gave up a write between pages, or a start
// appending behind a torn end, would show here); whatever a start finds decodes, and every record
// in it is one the host tracked, once.
TEST(PendingFileCrash, HostsKilledAtRandomLeaveOnlyWholeRecordsAndLoseAtMostTheMemoryLimit) {
  constexpr long long kBurst = 20000;
  for (const std::string mode : {"track", "burst", "burst-online"}) {
    SCOPED_TRACE(mode);
    // An identity from an earlier sync in the cookie jar, so that records are built without a
    // server.
    testing::TempDir temp;
    const fs::path dir = temp.path();
    testing::writeFile(dir / "cookies.txt", testing::dataText("crash/cookies.txt"));
    const bool burst = mode != "track";
    long long first = 0;
    killAtRandom(
        burst ? 1 : 12, burst ? 50000 : 0, burst ? 50000 : 250000,
        [&] {
          const long long arg = burst ? kBurst : first += 10'000'000;
          return testing::ChildHost(
              {ZELVANOR_CRASH_CHILD, dir.string(), mode, std::to_string(arg)});
        },
        burst ? "tracked" : "tracking",
        [&] {
          for (const auto& entry : fs::directory_iterator(dir)) {
            if (entry.path().filename().string().rfind("ZLogs.tmp", 0) != 0) continue;
            bool torn = false;
            detail::scanFrames(testing::slurp(entry.path()), 0, true, [&](const FramePiece& p) {
              EXPECT_FALSE(torn || p.kind == FramePiece::Kind::skipped) << entry.path();
              torn = p.kind == FramePiece::Kind::torn;
            });
          }
          auto kept = trackedWaiting(dir);
          // In tracking order (online, kept ones follow spilled ones).
          EXPECT_TRUE(mode == "burst-online" ||
                      std::ranges::adjacent_find(kept, std::greater_equal<>()) == kept.end());
          if (!burst) return;
          std::sort(kept.begin(), kept.end());
          const auto lost = kBurst - (std::unique(kept.begin(), kept.end()) - kept.begin());
          EXPECT_LE(lost, static_cast<long long>(ZStoreLimits{}.maxRecordsInMemory) + 8)
              << "the memory limit and the requests in flight";
        });
    // A last start finds every record the files hold waiting to be sent.
    const auto payloads = testing::pendingPayloads(dir).size();
    detail::PendingStore last(dir, ZStoreLimits{.maxBytesOnDisk = std::uint64_t{1} << 40});
    EXPECT_EQ(last.open(), payloads);
    last.close();
    EXPECT_GT(payloads, 0u) << "nothing is ever answered here, so what the rounds kept is on disk";
  }
}

constexpr int kSeeds = 3000;
constexpr int kKills = 12;
/// Requests one host keeps open at once; what was in flight at a kill may be sent again.
constexpr int kInFlightPerKill = 8;

/// The child host over `appDir` (zelvanor_crash_child) in `mode`.
testing::ChildHost storeChild(const fs::path& appDir, const Collector& server, const char* mode) {
  return testing::ChildHost(
      {ZELVANOR_CRASH_CHILD, appDir.string(), mode, server.baseUrl(), server.caFile().string()});
}

/// The records named `prefix`... that waited on disk in `appDir`, in sending order.
std::vector<std::string> waitingNamed(const fs::path& appDir, const std::string& prefix) {
  auto names = testing::pendingNames(appDir);
  std::erase_if(names, [&](const std::string& name) { return name.rfind(prefix, 0) != 0; });
  return names;
}

/// The records named `prefix`... the collector has. Flushes now and then (restored records wait
/// for the next flush) unless told not to, until `count` distinct ones arrived, 20 s at most.
std::multiset<std::string> delivered(const Collector& server, const std::string& prefix,
                                     std::size_t count = 0, bool flushing = true) {
  std::multiset<std::string> names;
  for (int i = 0; i < 200; ++i) {
    names.clear();
    for (const auto& event : server.events(collector::EventQuery{.limit = 1'000'000}))
      if (event.actionName.rfind(prefix, 0) == 0) names.insert(event.actionName);
    if (std::set<std::string>(names.begin(), names.end()).size() >= count) break;
    if (flushing) ZelvanorTracker::flush();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return names;
}

/// Starts the SDK in this process over `appDir`, as the child does.
void startHere(const fs::path& appDir, const Collector& server, const std::string& syncServer) {
  ZelvanorTracker::setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.crash",
                                                   .appVersion = "1.0",
                                                   .dataDirectory = appDir.string()});
  ASSERT_TRUE(ZelvanorTracker::setEndpoints(
      ZEndpoints{server.baseUrl(), server.baseUrl(), syncServer, server.caFile().string()}));
  ZelvanorTracker::setRequired(ZConfiguration{.timeout = 2, .batchSize = 1})
      .setReachabilityFlags(0x2)
      .set(ZCommon({.serviceName = "store", .deployment = "production"}));
}

// An app's data directory whose pending file holds `count` records named `prefix`<n>, as an
// earlier run left it.
fs::path seededAppDirectory(const testing::TempDir& dir, int count,
                            const std::string& prefix = "seed-") {
  const fs::path appDir = dir.path() / ("app-" + prefix);
  fs::create_directories(appDir);
  std::vector<std::string> records;
  for (int i = 0; i < count; ++i)
    records.push_back(testing::namedRecord(prefix + std::to_string(i), 100 + i % 400));
  testing::writeFile(appDir / "ZLogs.tmp", testing::framed(records));
  return appDir;
}

/// A real collector for the hosts to send to; each case names its records apart.
struct StoreCrash : ::testing::Test {
  void SetUp() override {
    std::string error;
    ASSERT_TRUE(server.start(&error)) << error;
  }
  testing::TempDir dir;
  Collector server{Collector::Options{.dataDirectory = dir.path() / "collector"}};
};

TEST_F(StoreCrash, KillsDuringRestoreSendingAndShutdownLoseNothingThatWasOnDisk) {
  const fs::path appDir = seededAppDirectory(dir, kSeeds);
  // Slow answers keep a backlog in flight for the kills to land on.
  server.setDelay(std::chrono::milliseconds(10));

  killAtRandom(
      kKills, 0, 700000, [&] { return storeChild(appDir, server, "send"); }, "started");
  server.setDelay(std::chrono::milliseconds(0));
  testing::ChildHost last = storeChild(appDir, server, "finish");
  ASSERT_TRUE(last.said("started"));
  const int status = last.wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  const auto sent = delivered(server, "seed-");
  const std::set<std::string> distinct(sent.begin(), sent.end());
  std::set<std::string> kept = distinct;
  for (const auto& name : waitingNamed(appDir, "seed-")) kept.insert(name);
  EXPECT_EQ(kept.size(), static_cast<std::size_t>(kSeeds))
      << "records that were on disk are neither delivered nor kept";
  // Only that the runs sent something: how much depends on the machine's load.
  EXPECT_GT(distinct.size(), static_cast<std::size_t>(kSeeds / 10)) << "the backlog went out";
  // Every end of a run (a kill, or a shutdown in the child, which restarts about every 250 ms)
  // may resend what it had in flight.
  const std::size_t runs = kKills * 5;
  EXPECT_LE(sent.size() - distinct.size(), runs * kInFlightPerKill)
      << "sent twice beyond what was in flight";
}

// What an earlier run left, whatever stands in the way at the next start, is delivered once:
// events tracked before the triple was known (the sync server unreachable at the first launch)
// kept at exit as templates, with a later start killed while it holds them (still templates, or
// already records waiting on disk, in tracking order); or a backlog on disk while the last run
// still shuts down (the store is held; the backlog goes out once the lock is let go, with no
// flush) or a FIFO stands where the lock belongs (the store's own test has every kind of thing in
// every place), which an error line names.
TEST_F(StoreCrash, WhatAnEarlierRunLeftIsDeliveredOnceWhateverStandsInTheWay) {
  for (const std::string mode : {"unknown-triple", "offline", "held", "fifo"}) {
    SCOPED_TRACE(mode);
    const std::string prefix = mode + "-";
    const bool templates = mode == "unknown-triple" || mode == "offline";
    const fs::path appDir = seededAppDirectory(dir, templates ? 0 : 300, prefix);
    std::vector<std::string> tracked;
    for (int i = 0; i < (templates ? 20 : 300); ++i) tracked.push_back(prefix + std::to_string(i));
    if (templates) {
      startHere(appDir, server, "https://127.0.0.1:9");  // nothing answers there
      for (const auto& name : tracked)
        ZelvanorTracker::set(ZAction("event", name, "tap")).track(false, false);
      ZelvanorTracker::shutdown();
      ASSERT_TRUE(fs::exists(appDir / "ZTemplates.tmp"));
    }
    if (mode == "fifo") {
      ASSERT_EQ(::mkfifo((appDir / "ZLogs.lock").c_str(), 0600), 0);
    }
    std::mutex linesLock;
    std::string said;  // the error lines
    ZelvanorTracker::setDiagnostics(ZLogLevel::error, [&](ZLogLevel, std::string_view line) {
      std::lock_guard lock(linesLock);
      said.append(line).append("\n");
    });
    testing::ChildHost other =
        templates ? storeChild(appDir, server, mode.c_str())
                  : testing::lockHeldByChild(appDir / (mode == "held" ? "ZLogs.lock" : "unused"));
    ASSERT_TRUE(other.said(templates ? "started" : "held"));
    if (!templates) startHere(appDir, server, server.baseUrl());
    // The host takes the templates right after its start; killed while it holds them, or once
    // the records built from them wait on disk.
    std::this_thread::sleep_for(std::chrono::milliseconds(templates ? 1000 : 300));
    for (int i = 0; i < 200 && mode == "offline" && waitingNamed(appDir, prefix) != tracked; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(other.kill());
    if (mode == "offline") {
      EXPECT_EQ(waitingNamed(appDir, prefix), tracked);
    }
    if (templates) startHere(appDir, server, server.baseUrl());
    const auto sent = delivered(server, prefix, tracked.size(), /*flushing=*/templates);
    ZelvanorTracker::shutdown();
    ZelvanorTracker::setDiagnostics(ZLogLevel::error, {});
    EXPECT_EQ(sent, std::multiset<std::string>(tracked.begin(), tracked.end()));
    EXPECT_TRUE(testing::pendingPayloads(appDir).empty());
    std::lock_guard lock(linesLock);
    EXPECT_TRUE(mode != "fifo" || said.find("ZLogs.lock is a FIFO") != std::string::npos) << said;
  }
}

/// A 64 KiB tmpfs mounted over `at` for as long as it lives.
struct SmallDisk {
  explicit SmallDisk(const fs::path& at)
      : at(at),
        mounted(::mount("zelvanor-test", at.c_str(), "tmpfs", 0, "size=64k,mode=0700") == 0) {}
  ~SmallDisk() {
    if (mounted) ::umount2(at.c_str(), MNT_DETACH);
  }
  /// Read-only, or writable again with room for everything.
  bool setReadOnly(bool readOnly) const {
    return ::mount(nullptr, at.c_str(), nullptr, MS_REMOUNT | (readOnly ? MS_RDONLY : 0),
                   "size=4m") == 0;
  }
  const fs::path at;
  const bool mounted;
};

// A disk too small for the records, and one that is read-only (for root only a read-only mount
// refuses a write; otherwise the directory's mode bits do): only what was really written counts
// as kept, nothing is dropped, and once there is room every record is written, in order.
TEST(FullDisk, RecordsTheDiskRefusesWaitInMemoryAndAnsweredOnesAreNotSentAgain) {
  const bool root = ::geteuid() == 0;
  for (const bool readOnly : {false, true}) {
    SCOPED_TRACE(readOnly ? "read-only" : "full");
    if (!readOnly && !root) continue;  // mounting a small tmpfs needs root
    testing::TempDir dir;
    std::optional<SmallDisk> disk;
    if (root) {
      disk.emplace(dir.path());
      if (!disk->mounted) GTEST_SKIP() << "tmpfs could not be mounted here";
    }
    const auto setReadOnly = [&](bool on) {
      return root ? disk->setReadOnly(on) : ::chmod(dir.path().c_str(), on ? 0500 : 0700) == 0;
    };
    if (readOnly) {
      ASSERT_TRUE(setReadOnly(true));
    } else {
      // A disk that fills up while the store sends: the answers are still recorded, so a later
      // start sends again none of the records that were answered, after a kill or after all were.
      std::vector<std::string> answered;
      for (int i = 0; i < 40; ++i) answered.push_back(testing::namedRecord(std::to_string(i), 10));
      ASSERT_TRUE(platform::appendPrivate(dir.path() / "ZLogs.tmp", testing::framed(answered)));
      for (const auto& [waiting, answer] : {std::pair{40, 15}, {25, 25}, {0, 0}}) {
        detail::PendingStore store(dir.path(), {});
        EXPECT_EQ(store.open(), static_cast<std::uint64_t>(waiting));
        if (waiting == 40) testing::writeFile(dir.path() / "filler", std::string(64 << 10, 'f'));
        for (int i = 0; i < answer; ++i) {
          auto read = testing::nextOf(store);
          ASSERT_TRUE(read);
          store.answered(read->ref);
        }
      }  // killed: let go without any goodbye
      fs::remove(dir.path() / "filler");
    }
    auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
    auto delivery = std::make_shared<detail::HttpsDelivery>(
        http, dir.path(), ZStoreLimits{.maxBytesOnDisk = 1 << 20});
    // Full: about 300 KB, far more than the disk holds. Record 3 is larger than the whole
    // allowance: it can never be kept, so it is counted as dropped only, not also as kept.
    const int records = readOnly ? 20 : 300;
    std::vector<std::string> expected;  // what must be on disk in the end
    for (int i = 0; i < records; ++i) {
      if (i != 3) expected.push_back(std::to_string(i));
      const std::size_t title = i == 3 ? 2 << 20 : readOnly ? 10 : 900;
      delivery->send(0, {testing::namedRecord(std::to_string(i), title)},
                     /*networkAvailable=*/false);
    }
    ASSERT_TRUE(delivery->waitUntilSettled(std::chrono::seconds(20)));
    const auto counts = delivery->counts();
    EXPECT_LT(counts.keptOnDisk, static_cast<std::uint64_t>(records));
    EXPECT_EQ(counts.keptOnDisk, testing::pendingNames(dir.path()).size())
        << "only real writes count as kept";
    EXPECT_LE(counts.droppedForSpace, 1u) << "the memory limit allows keeping the others";

    ASSERT_TRUE(setReadOnly(false));
    for (int i = 0; i < 100 && testing::pendingNames(dir.path()).size() < expected.size(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(testing::pendingNames(dir.path()), expected);
    EXPECT_EQ(delivery->counts().keptOnDisk, expected.size());
    EXPECT_EQ(delivery->counts().droppedForSpace, 1u);
    delivery->shutdown({}, {});
    http->shutdown();
  }
}

}  // namespace
}  // namespace zelvanor
