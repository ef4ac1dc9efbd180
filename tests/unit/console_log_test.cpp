// The one console line: its exact shape, its switch and its sink.
#include <gtest/gtest.h>

#include <stdio.h>
#include <sys/types.h>

#include <cmath>
#include <string>
#include <vector>

#include "network/http_api.hpp"
#include "support/console_log.hpp"
#include "support/settings.hpp"
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
  auto request = detail::ZHttpApi::track(record).urlRequest();
  EXPECT_FALSE(request.body);
  EXPECT_EQ(request.method, "POST");
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
// Puts an unbuffered stream in place of stderr that keeps each write it is asked to make, so the
// test sees how many stdio calls a line took.
class CapturedStderr {
 public:
  CapturedStderr() {
    cookie_io_functions_t io{};
    io.write = [](void* self, const char* data, size_t size) -> ssize_t {
      static_cast<CapturedStderr*>(self)->writes.emplace_back(data, size);
      return static_cast<ssize_t>(size);
    };
    stream_ = fopencookie(this, "w", io);
    if (stream_) {
      setvbuf(stream_, nullptr, _IONBF, 0);
      saved_ = stderr;
      stderr = stream_;
    }
  }
  ~CapturedStderr() { restore(); }
  CapturedStderr(const CapturedStderr&) = delete;
  CapturedStderr& operator=(const CapturedStderr&) = delete;
  bool ok() const { return stream_ != nullptr; }
  void restore() {
    if (!stream_) return;
    stderr = saved_;
    fclose(stream_);
    stream_ = nullptr;
  }
  std::vector<std::string> writes;

 private:
  FILE* stream_ = nullptr;
  FILE* saved_ = nullptr;
};

TEST_F(ConsoleLogTest, DefaultSinkWritesEachLineWithItsNewlineInOneCall) {
  ZelvanorTracker::setConsoleLogSink({});
  CapturedStderr captured;
  ASSERT_TRUE(captured.ok());
  detail::logError("whole", "a/b", "f", 4);
  detail::logError("again", "a/b", "f", 5);
  captured.restore();
  // One call per line: another thread's output to stderr can come between lines, never inside one.
  EXPECT_EQ(captured.writes,
            (std::vector<std::string>{"😱 [b f] [4] | whole\n", "😱 [b f] [5] | again\n"}));
}
#endif

}  // namespace
}  // namespace zelvanor
