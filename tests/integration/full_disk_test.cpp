// A full disk (a small tmpfs, so only when the tests run as root) or a read-only one: records the
// disk would not take stay in memory, only what was really written counts as kept, and the writes
// are tried again until the disk has room; none is lost and the order holds.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <optional>
#include <thread>

#include "network/https_delivery.hpp"
#include "platform/file_ops.hpp"
#include "store/pending_frames.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

class SmallDisk {
 public:
  explicit SmallDisk(const std::filesystem::path& at) : at_(at) {
    mounted_ = ::mount("zelvanor-test", at.c_str(), "tmpfs", 0, "size=64k,mode=0700") == 0;
  }
  ~SmallDisk() {
    if (mounted_) ::umount2(at_.c_str(), MNT_DETACH);
  }
  bool mounted() const { return mounted_; }
  bool grow() { return ::mount(nullptr, at_.c_str(), nullptr, MS_REMOUNT, "size=4m") == 0; }
  bool setReadOnly(bool readOnly) {
    return ::mount(nullptr, at_.c_str(), nullptr, MS_REMOUNT | (readOnly ? MS_RDONLY : 0),
                   "size=4m") == 0;
  }

 private:
  std::filesystem::path at_;
  bool mounted_ = false;
};

std::string record(int i, std::size_t title) {
  return testing::namedRecord(std::to_string(i), title);
}

// A disk too small for the records, and one that is read-only (for root only a read-only mount
// refuses a write; otherwise the directory's mode bits do): only what was really written counts
// as kept, nothing is dropped, and once there is room every record is written, in order.
TEST(FullDisk, RecordsTheDiskRefusesWaitInMemoryAndAreWrittenWhenThereIsRoom) {
  const bool root = ::geteuid() == 0;
  for (const bool readOnly : {false, true}) {
    SCOPED_TRACE(readOnly ? "read-only" : "full");
    if (!readOnly && !root) continue;  // mounting a small tmpfs needs root
    testing::TempDir dir;
    std::optional<SmallDisk> disk;
    if (root) {
      disk.emplace(dir.path());
      if (!disk->mounted()) {
        GTEST_SKIP() << "tmpfs could not be mounted here";
      }
    }
    const auto setReadOnly = [&](bool on) {
      return root ? disk->setReadOnly(on) : ::chmod(dir.path().c_str(), on ? 0500 : 0700) == 0;
    };
    if (readOnly) {
      ASSERT_TRUE(setReadOnly(true));
    }
    auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
    auto delivery = std::make_shared<detail::HttpsDelivery>(http, dir.path());
    // Full: about 300 KB, far more than the disk holds.
    const int records = readOnly ? 20 : 300;
    for (int i = 0; i < records; ++i) {
      std::vector<std::string> one{record(i, readOnly ? 10 : 900)};
      delivery->send(0, std::move(one), /*networkAvailable=*/false);
    }
    ASSERT_TRUE(delivery->waitUntilSettled(std::chrono::seconds(20)));
    const auto counts = delivery->counts();
    EXPECT_LT(counts.keptOnDisk, static_cast<std::uint64_t>(records));
    EXPECT_EQ(counts.keptOnDisk, testing::pendingNames(dir.path()).size())
        << "only real writes count as kept";
    EXPECT_EQ(counts.droppedForSpace, 0u) << "the memory limit allows keeping them all";

    ASSERT_TRUE(readOnly ? setReadOnly(false) : disk->grow());
    std::vector<std::string> expected;
    for (int i = 0; i < records; ++i) expected.push_back(std::to_string(i));
    for (int i = 0; i < 100 && testing::pendingNames(dir.path()).size() < expected.size(); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    EXPECT_EQ(testing::pendingNames(dir.path()), expected);
    EXPECT_EQ(delivery->counts().keptOnDisk, expected.size());
    delivery->shutdown({}, {});
    http->shutdown();
  }
}

// A disk that fills up while the store sends: the answers are still recorded, so a later start
// sends again none of the records that were answered, after a kill or after all were.
TEST(FullDisk, AnsweredRecordsAreNotSentAgainAtALaterStart) {
  if (::geteuid() != 0) GTEST_SKIP() << "mounting a small tmpfs needs root";
  testing::TempDir dir;
  SmallDisk disk(dir.path());
  if (!disk.mounted()) GTEST_SKIP() << "tmpfs could not be mounted here";
  std::vector<std::string> records;
  for (int i = 0; i < 40; ++i) records.push_back(record(i, 10));
  ASSERT_TRUE(platform::appendPrivate(dir.path() / "ZLogs.tmp", testing::framed(records)));
  auto sendAndAnswer = [&](std::uint64_t waiting, int answer) {
    detail::PendingStore store(dir.path(), {});
    EXPECT_EQ(store.open(), waiting);
    if (waiting == 40) {
      // Full from here on.
      std::ofstream filler(dir.path() / "filler", std::ios::binary);
      const std::string block(4096, 'f');
      for (int i = 0; i < 64 && filler; ++i) filler.write(block.data(), block.size()).flush();
    }
    for (int i = 0; i < answer; ++i) {
      auto read = store.next();
      ASSERT_TRUE(read);
      store.answered(read->ref);
    }
  };  // killed: let go without any goodbye
  sendAndAnswer(40, 15);
  sendAndAnswer(25, 25);
  sendAndAnswer(0, 0);
}

// A record larger than the whole disk allowance can never be kept: it is dropped, and counted as
// dropped only, not also as kept.
TEST(FullDisk, ARecordLargerThanTheWholeAllowanceIsCountedAsDroppedNotAsKept) {
  testing::TempDir dir;
  auto http = std::make_shared<network::HttpClient>(network::HttpClient::Options{});
  auto delivery = std::make_shared<detail::HttpsDelivery>(http, dir.path(),
                                                          ZStoreLimits{.maxBytesOnDisk = 4096});
  std::vector<std::string> records{record(1, 10), record(2, 5000), record(3, 10)};
  delivery->send(0, std::move(records), /*networkAvailable=*/false);
  ASSERT_TRUE(delivery->waitUntilSettled(std::chrono::seconds(20)));
  const auto counts = delivery->counts();
  EXPECT_EQ(counts.keptOnDisk, 2u);
  EXPECT_EQ(counts.droppedForSpace, 1u);
  EXPECT_EQ(testing::pendingNames(dir.path()), (std::vector<std::string>{"1", "3"}));
  delivery->shutdown({}, {});
  http->shutdown();
}

}  // namespace
}  // namespace zelvanor
