#include "queue/logs_file_manager.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>
#include <thread>

#include "zelvanor/json.hpp"

namespace zelvanor::detail {
namespace {

namespace fs = std::filesystem;

std::string readData(const std::string& name) {
  std::ifstream in(std::string(ZELVANOR_TEST_DATA_DIR) + "/pending/" + name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string slurp(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void spew(const fs::path& file, const std::string& bytes) {
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// A frame laid out by hand, independently of the code under test.
std::string frame(const std::string& payload, std::int64_t length) {
  std::string bytes(8, '\0');
  std::memcpy(bytes.data(), &length, 8);
  return bytes + payload;
}
std::string frame(const std::string& payload) {
  return frame(payload, static_cast<std::int64_t>(payload.size()));
}

std::int64_t lengthAt(const std::string& bytes, std::size_t offset) {
  std::int64_t length = 0;
  std::memcpy(&length, bytes.data() + offset, 8);
  return length;
}

class PendingFileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "zelvanor-pending-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    file_ = ZLogsFileManager::pendingFilePath(dir_);
  }
  void TearDown() override {
    std::error_code error;
    fs::remove_all(dir_, error);
  }

  ZLogRecord decoded(const std::string& json) {
    Result<ZLogRecord> record = decodeJson<ZLogRecord>(json);
    EXPECT_TRUE(record.ok()) << (record.ok() ? "" : record.error().describe());
    return record.ok() ? record.value() : ZLogRecord{};
  }

  fs::path dir_;
  fs::path file_;
  const std::string minimal_ = readData("minimal.json");
  const std::string full_ = readData("full.json");
  const std::string missingAction_ = readData("missing_action.json");
};

TEST_F(PendingFileTest, AppendsWriteLengthPrefixedFramesPrivately) {
  EXPECT_EQ(file_, dir_ / "ZLogs.tmp");
  const mode_t oldMask = ::umask(0);  // a careless umask must not widen the file
  ZLogsFileManager::appendRecordData(full_, file_);
  ::umask(oldMask);

  std::string bytes = slurp(file_);
  ASSERT_EQ(bytes.size(), 8 + full_.size());
  EXPECT_EQ(lengthAt(bytes, 0), static_cast<std::int64_t>(full_.size()));
  EXPECT_EQ(bytes.substr(8), full_);
  struct stat info {};
  ASSERT_EQ(::stat(file_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);

  ZLogsFileManager::appendRecordData(minimal_, file_);
  bytes = slurp(file_);
  ASSERT_EQ(bytes.size(), 16 + full_.size() + minimal_.size());
  EXPECT_EQ(bytes.substr(0, 8 + full_.size()), frame(full_));
  EXPECT_EQ(lengthAt(bytes, 8 + full_.size()), static_cast<std::int64_t>(minimal_.size()));
  EXPECT_EQ(bytes.substr(16 + full_.size()), minimal_);
}

TEST_F(PendingFileTest, AppendTightensALooseExistingFile) {
  spew(file_, frame(minimal_));
  ASSERT_EQ(::chmod(file_.c_str(), 0644), 0);
  ZLogsFileManager::appendRecordData(full_, file_);
  struct stat info {};
  ASSERT_EQ(::stat(file_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  EXPECT_EQ(slurp(file_), frame(minimal_) + frame(full_));
}

TEST_F(PendingFileTest, ReadGivesFramesInOrderAndRemovesTheFile) {
  spew(file_, frame(full_) + frame(minimal_) + frame(full_));
  const std::vector<ZLogRecord> records = ZLogsFileManager::readRecords(file_);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(records[0].action.name, "add_to_cart");
  EXPECT_EQ(records[1].action.name, "home");
  EXPECT_EQ(records[2].action.name, "add_to_cart");
  EXPECT_EQ(records[0], decoded(full_));
  EXPECT_EQ(records[1], decoded(minimal_));
  ASSERT_TRUE(records[0].free.has_value());
  EXPECT_EQ(*records[0].free, "Ünïcødé ✓");
  EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));

  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));
}

TEST_F(PendingFileTest, AppendedRecordsComeBack) {
  ZLogsFileManager::appendRecordData(minimal_, file_);
  ZLogsFileManager::appendRecordData(full_, file_);
  const std::vector<ZLogRecord> records = ZLogsFileManager::readRecords(file_);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0], decoded(minimal_));
  EXPECT_EQ(records[1], decoded(full_));
}

TEST_F(PendingFileTest, AReadRacingWithAppendsLosesNoneAndDuplicatesNone) {
  // A new start reads the file while the old instance (or another process of the app) still
  // appends: every record comes back exactly once, across the reads, in the order appended.
  constexpr int kRecords = 3000;
  std::atomic<bool> appending{true};
  std::thread appender([&] {
    for (int i = 0; i < kRecords; ++i) {
      const ZLogRecord record{.xid = {"c", "d", "s"}, .action = {"event", std::to_string(i), "x"}};
      ZLogsFileManager::appendRecordData(encodeJson(record).value(), file_);
    }
    appending = false;
  });
  std::vector<std::string> restored;
  auto readOnce = [&] {
    for (const auto& record : ZLogsFileManager::readRecords(file_))
      restored.push_back(record.action.name);
  };
  while (appending) readOnce();
  appender.join();
  readOnce();
  std::vector<std::string> expected;
  for (int i = 0; i < kRecords; ++i) expected.push_back(std::to_string(i));
  EXPECT_EQ(restored, expected);
}

TEST_F(PendingFileTest, MissingOrEmptyFileGivesNothingAndIsLeftAlone) {
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));

  spew(file_, "");
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_TRUE(fs::exists(file_));
}

TEST_F(PendingFileTest, UndecodablePayloadKeepsTheFileForGood) {
  const std::string original = frame(minimal_) + frame(missingAction_) + frame(full_);
  spew(file_, original);
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_EQ(slurp(file_), original);

  // Appends keep going behind the bad frame, and reading still stops at it.
  ZLogsFileManager::appendRecordData(minimal_, file_);
  EXPECT_EQ(slurp(file_), original + frame(minimal_));
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_TRUE(fs::exists(file_));

  // An empty payload is not a record either.
  spew(file_, frame(minimal_) + frame(""));
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_TRUE(fs::exists(file_));
}

TEST_F(PendingFileTest, TornLastFrameGivesBackEveryWholeFrameBeforeIt) {
  const std::string whole = frame(full_) + frame(minimal_);
  const std::string last = frame(full_);
  // Every cut inside the last frame: in its length field, at the payload's start, mid-payload.
  for (std::size_t keep = 1; keep < last.size(); ++keep) {
    SCOPED_TRACE("bytes of the last frame kept: " + std::to_string(keep));
    spew(file_, whole + last.substr(0, keep));
    const std::vector<ZLogRecord> records = ZLogsFileManager::readRecords(file_);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0], decoded(full_));
    EXPECT_EQ(records[1], decoded(minimal_));
    EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));
  }

  // Nothing whole at all: nothing comes back, and the debris goes.
  spew(file_, last.substr(0, 5));
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));
}

TEST_F(PendingFileTest, ImpossibleLengthsEndTheFrames) {
  for (const std::int64_t bad :
       {std::int64_t{-1}, std::int64_t{-300}, std::numeric_limits<std::int64_t>::min(),
        std::numeric_limits<std::int64_t>::max(), std::int64_t{1} << 40}) {
    SCOPED_TRACE("length " + std::to_string(bad));
    spew(file_, frame(minimal_) + frame(full_, bad) + frame(full_));
    const std::vector<ZLogRecord> records = ZLogsFileManager::readRecords(file_);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0], decoded(minimal_));
    EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));
  }
  spew(file_, frame(full_, -8));
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_FALSE(fs::exists(fs::symlink_status(file_)));
}

TEST_F(PendingFileTest, TheStartReadsTheStoredTextsByTheSameRules) {
  struct Case {
    const char* what;
    std::string content;
    std::vector<std::string> texts;  // what comes back
    bool fileStays;
  };
  const std::vector<Case> cases{
      {"whole frames", frame(full_) + frame(minimal_), {full_, minimal_}, false},
      {"an undecodable frame", frame(minimal_) + frame(missingAction_), {}, true},
      {"an empty payload", frame(minimal_) + frame(""), {}, true},
      {"a torn end", frame(minimal_) + frame(full_).substr(0, 20), {minimal_}, false},
      {"a negative length", frame(full_) + frame(minimal_, -1), {full_}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    spew(file_, c.content);
    // The stored text itself, byte for byte: it is what goes on the wire again.
    const ZLogsFileManager::RecordTexts restored = ZLogsFileManager::readRecordTexts(file_);
    EXPECT_EQ(std::vector<std::string>(restored.texts.begin(), restored.texts.end()), c.texts);
    EXPECT_EQ(fs::exists(fs::symlink_status(file_)), c.fileStays);
    // And exactly as many as the record form gives back from the same bytes.
    spew(file_, c.content);
    EXPECT_EQ(ZLogsFileManager::readRecords(file_).size(), c.texts.size());
  }
}

TEST_F(PendingFileTest, SymlinkAtThePathIsNeverFollowed) {
  const fs::path target = dir_ / "target";
  spew(target, frame(minimal_));
  fs::create_symlink(target, file_);

  ZLogsFileManager::appendRecordData(full_, file_);
  EXPECT_EQ(slurp(target), frame(minimal_));
  EXPECT_TRUE(ZLogsFileManager::readRecords(file_).empty());
  EXPECT_TRUE(fs::is_symlink(fs::symlink_status(file_)));
  EXPECT_EQ(slurp(target), frame(minimal_));

  // A dangling link must not let an append create its target.
  const fs::path absent = dir_ / "absent";
  fs::remove(file_);
  fs::create_symlink(absent, file_);
  ZLogsFileManager::appendRecordData(full_, file_);
  EXPECT_FALSE(fs::exists(fs::symlink_status(absent)));
}

TEST_F(PendingFileTest, SplitFramesReportsHowTheContentEnds) {
  const std::string content = frame(minimal_) + frame(full_);
  std::vector<std::string_view> payloads;
  EXPECT_EQ(ZLogsFileManager::splitFrames(content, payloads), ZLogsFileManager::FrameEnd::clean);
  ASSERT_EQ(payloads.size(), 2u);
  EXPECT_EQ(payloads[0], minimal_);
  EXPECT_EQ(payloads[1], full_);

  payloads.clear();
  const std::string_view cut = std::string_view(content).substr(0, content.size() - 1);
  EXPECT_EQ(ZLogsFileManager::splitFrames(cut, payloads), ZLogsFileManager::FrameEnd::torn);
  ASSERT_EQ(payloads.size(), 1u);
  EXPECT_EQ(payloads[0], minimal_);
}

}  // namespace
}  // namespace zelvanor::detail
