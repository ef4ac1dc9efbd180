#include "platform/file_ops.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "support/child_host.hpp"
#include "support/pending_files.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor::platform {
namespace {

namespace fs = std::filesystem;
using testing::slurp;

constexpr auto kPrivate = fs::perms::owner_read | fs::perms::owner_write;

struct FileOpsTest : ::testing::Test {
  testing::TempDir temp;
  const fs::path dir_ = temp.path();
};

// Appends and whole writes are private and read back whole; nothing but a regular file is
// written, read or removed through: a link's target stays as it was (or missing), and a FIFO
// (which would block an ordinary open until someone reads it) is not waited on.
TEST_F(FileOpsTest, WritesAreWholeAndPrivateAndGoOnlyThroughRegularFiles) {
  const fs::path file = dir_ / "f";
  EXPECT_FALSE(readWhole(file).has_value());
  std::string big(200000, 'x');  // larger than any single buffer on the way
  big[123456] = '\0';
  ASSERT_TRUE(appendPrivate(file, "head"));
  ASSERT_TRUE(appendPrivate(file, big));
  EXPECT_EQ(fs::status(file).permissions(), kPrivate);
  EXPECT_EQ(readWhole(file), "head" + big);
  const fs::path settings = dir_ / "settings.json";
  ASSERT_TRUE(writeWholePrivateAtomically(settings, "first, longer content"));
  ASSERT_TRUE(writeWholePrivateAtomically(settings, "second"));
  EXPECT_EQ(slurp(settings), "second");
  EXPECT_EQ(fs::status(settings).permissions(), kPrivate);
  EXPECT_FALSE(writeWholePrivateAtomically(dir_ / "missing-dir" / "f", "x"));

  const fs::path target = dir_ / "target";
  std::ofstream(target) << "secret";
  const fs::path link = dir_ / "link";
  fs::create_symlink(target, link);
  const fs::path dangling = dir_ / "dangling";
  fs::create_symlink(dir_ / "missing", dangling);
  const fs::path fifo = dir_ / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto started = std::chrono::steady_clock::now();
  for (const fs::path& path : {link, dangling, dir_, fifo}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(appendPrivate(path, "x"));
    EXPECT_FALSE(readWhole(path).has_value());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
  EXPECT_EQ(slurp(target), "secret");
  EXPECT_FALSE(fs::exists(dir_ / "missing")) << "a link's missing target is not created";
  // A whole write replaces a link, never writing through it.
  const fs::path jar = dir_ / "jar";
  fs::create_symlink(target, jar);
  ASSERT_TRUE(writeWholePrivateAtomically(jar, "cookies"));
  EXPECT_FALSE(fs::is_symlink(fs::symlink_status(jar)));
  EXPECT_EQ(slurp(jar), "cookies");
  EXPECT_EQ(slurp(target), "secret");

  EXPECT_TRUE(removeFile(link));
  EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
  EXPECT_EQ(slurp(target), "secret");
  EXPECT_TRUE(removeFile(link));  // nothing there: nothing left, so that is success
  EXPECT_FALSE(removeFile(dir_));
  // No temporary files are left behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(dir_), fs::directory_iterator()), 6);
}

// A full disk, played by a file size limit: the append that does not fit is taken back whole,
// so the file stays a run of whole appends. The limit is per process, hence the child.
TEST_F(FileOpsTest, AppendThatDoesNotFitIsTakenBackWhole) {
  const fs::path file = dir_ / "f";
  testing::ChildHost child([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{10000, 10000};
    if (::setrlimit(RLIMIT_FSIZE, &limit) != 0) ::_exit(2);
    int appended = 0;
    while (appendPrivate(file, std::string(3000, 'c'))) {
      if (++appended > 10) ::_exit(3);
    }
    // One more that would fit again after a smaller one failed.
    ::_exit(appended == 3 && appendPrivate(file, std::string(1000, 'd')) ? 0 : 4);
  });
  const int status = child.wait();
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(slurp(file), std::string(9000, 'c') + std::string(1000, 'd'));
}

// Another process moves the file aside while an append waits for its turn: the append must land
// in the file now at the path, not in the one moved away (whose records are already counted).
TEST_F(FileOpsTest, AnAppendWaitingWhileTheFileIsMovedAsideGoesToTheNewFile) {
  const fs::path file = dir_ / "pending";
  const fs::path aside = dir_ / "pending.1";
  int landed = 0;
  // The interleaving needs the append to open before the move and lock after it; a round whose
  // append timed out waiting for the lock says nothing and is tried again.
  for (int round = 0; round < 10 && landed == 0; ++round) {
    fs::remove(file);
    fs::remove(aside);
    ASSERT_TRUE(appendPrivate(file, "old|"));
    auto other = testing::lockHeldByChild(file);
    ASSERT_TRUE(other.said("held"));
    std::atomic<bool> appended{false};
    std::thread appender([&] { appended = appendPrivate(file, "new|"); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // it has opened and waits
    // Moved while still held, as a start moves the file aside; then the lock is let go.
    fs::rename(file, aside);
    other.kill();
    appender.join();
    if (!appended) continue;
    ++landed;
    EXPECT_EQ(slurp(aside), "old|") << "nothing joins a file once it is moved aside";
    EXPECT_EQ(slurp(file), "new|");
  }
  EXPECT_EQ(landed, 1) << "no round got the interleaving";
}

}  // namespace
}  // namespace zelvanor::platform
