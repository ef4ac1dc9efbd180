// Replays every fuzzer seed and every input that once broke a decoder through every fuzzer's
// checks, so a fix stays fixed without running the fuzzers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "cookie_check.hpp"
#include "pending_check.hpp"
#include "round_trip.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;

const fs::path kFuzzDir = ZELVANOR_FUZZ_DIR;

std::vector<std::string> inputs() {
  std::vector<std::string> files;
  for (const char* dir : {"corpus", "regressions"}) {
    for (const auto& entry : fs::recursive_directory_iterator(kFuzzDir / dir)) {
      if (entry.is_regular_file()) {
        files.push_back(fs::relative(entry.path(), kFuzzDir).generic_string());
      }
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string contents(const std::string& relative) {
  std::ifstream in(kFuzzDir / relative, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

class FuzzInput : public ::testing::TestWithParam<std::string> {};

TEST_P(FuzzInput, KeepsEveryFuzzersRules) {
  const std::string text = contents(GetParam());
  EXPECT_EQ(fuzzing::checkRecord(text), "");
  EXPECT_EQ(fuzzing::checkEnvelope(text), "");
  EXPECT_EQ(fuzzing::checkSetCookie(text), "");
  EXPECT_EQ(fuzzing::checkRetryAfter(text), "");
  testing::TempDir dir;
  EXPECT_EQ(fuzzing::checkPendingContent(text, dir.path() / "ZLogs.tmp"), "");
}

INSTANTIATE_TEST_SUITE_P(Replay, FuzzInput, ::testing::ValuesIn(inputs()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                           std::string name = info.param;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

// The checks above pass trivially on text that never decodes; make sure the seeds reach past
// the parser into the round trip. (The pending reader's seeds are judged by the coverage of the
// reader they give.)
TEST(FuzzCorpus, SeedsDecodeSoTheRoundTripIsExercised) {
  int records = 0, envelopes = 0;
  for (const auto& file : inputs()) {
    const std::string text = contents(file);
    if (decodeJson<ZLogRecord>(text)) ++records;
    if (decodeJson<ZHTTPResult<std::vector<ZXid>>>(text)) ++envelopes;
  }
  EXPECT_GE(records, 5);
  EXPECT_GE(envelopes, 3);
}

}  // namespace
}  // namespace zelvanor
