// Replays every fuzzer seed and every input that once broke a decoder through every fuzzer's
// checks, so a fix stays fixed without running the fuzzers.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cookie_check.hpp"
#include "pending_check.hpp"
#include "round_trip.hpp"
#include "support/temp_dir.hpp"

namespace zelvanor {
namespace {

namespace fs = std::filesystem;

TEST(FuzzCorpus, EveryInputKeepsEveryFuzzersRules) {
  int records = 0, envelopes = 0;
  for (const char* folder : {"corpus", "regressions"}) {
    for (const auto& file :
         fs::recursive_directory_iterator(fs::path(ZELVANOR_FUZZ_DIR) / folder)) {
      if (!file.is_regular_file()) continue;
      SCOPED_TRACE(file.path().string());
      std::ifstream in(file.path(), std::ios::binary);
      const std::string text{std::istreambuf_iterator<char>(in), {}};
      EXPECT_EQ(fuzzing::checkRecord(text), "");
      EXPECT_EQ(fuzzing::checkEnvelope(text), "");
      EXPECT_EQ(fuzzing::checkSetCookie(text), "");
      EXPECT_EQ(fuzzing::checkRetryAfter(text), "");
      testing::TempDir dir;
      EXPECT_EQ(fuzzing::checkPendingContent(text, dir.path() / "ZLogs.tmp"), "");
      if (decodeJson<ZLogRecord>(text)) ++records;
      if (decodeJson<ZHTTPResult<std::vector<ZXid>>>(text)) ++envelopes;
    }
  }
  // The checks above pass trivially on text that never decodes: the seeds must reach past the
  // parser into the round trip. (The pending reader's seeds are judged by the coverage of the
  // reader they give.)
  EXPECT_GE(records, 5);
  EXPECT_GE(envelopes, 3);
}

}  // namespace
}  // namespace zelvanor
