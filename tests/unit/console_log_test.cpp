// The one console line: its exact shape, its switch and its sink.
#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/types.h>

#include <limits>
#include <string>
#include <vector>

#include "network/http_api.hpp"
#include "support/console_log.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

struct ConsoleLogTest : ::testing::Test {
  void SetUp() override {
    ZelvanorTracker::setConsoleLogSink([this](std::string_view line) { lines.emplace_back(line); });
    ZelvanorTracker::turnOnConsoleLogs();
  }
  void TearDown() override {
    ZelvanorTracker::setConsoleLogSink({});
    ZelvanorTracker::turnOnConsoleLogs();
  }
  std::vector<std::string> lines;
};

// An unencodable record logs its line and still builds a request (without a body). The switch is
// read at each call (no line while off), and a sink that throws stays contained.
TEST_F(ConsoleLogTest, LinesTheirSwitchAndAThrowingSink) {
  ZLogRecord record{.xid = {"c", "d", "s"}, .action = {"e", "n", "k"}};
  record.usage = ZUsage{.scrollPercent = std::numeric_limits<float>::infinity()};
  EXPECT_FALSE(detail::ZHttpApi::track(record).urlRequest().body);
  ZelvanorTracker::turnOffConsoleLogs();
  detail::logError("hidden", "a/b", "f", 1);
  ZelvanorTracker::turnOnConsoleLogs();
  detail::logError("shown", "a/b", "f", 2);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"😱 [ZHttpApi urlRequest] [59] | Fail to encode logRecord",
                                      "😱 [b f] [2] | shown"}));
  ZelvanorTracker::setConsoleLogSink(
      [](std::string_view) { throw std::runtime_error("host bug"); });
  EXPECT_NO_THROW(detail::logError("m", "f", "g", 3));
}

#if defined(__GLIBC__)
// An unbuffered stream in place of stderr that keeps each write it is asked to make, so the test
// sees how many stdio calls a line took.
TEST_F(ConsoleLogTest, DefaultSinkWritesEachLineWithItsNewlineInOneCall) {
  ZelvanorTracker::setConsoleLogSink({});
  std::vector<std::string> writes;
  cookie_io_functions_t io{};
  io.write = [](void* self, const char* data, size_t size) -> ssize_t {
    static_cast<std::vector<std::string>*>(self)->emplace_back(data, size);
    return static_cast<ssize_t>(size);
  };
  FILE* const captured = fopencookie(&writes, "w", io);
  ASSERT_NE(captured, nullptr);
  setvbuf(captured, nullptr, _IONBF, 0);
  FILE* const saved = stderr;
  stderr = captured;
  detail::logError("whole", "a/b", "f", 4);
  detail::logError("again", "a/b", "f", 5);
  stderr = saved;
  fclose(captured);
  // One call per line: another thread's output to stderr can come between lines, never inside one.
  EXPECT_EQ(writes, (std::vector<std::string>{"😱 [b f] [4] | whole\n", "😱 [b f] [5] | again\n"}));
}
#endif

}  // namespace
}  // namespace zelvanor
