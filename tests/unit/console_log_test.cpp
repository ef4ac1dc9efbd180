// The one console line: its exact shape, its switch and its sink.
#include <gtest/gtest.h>

#include <cmath>

#include "api/console_log.hpp"
#include "api/settings.hpp"
#include "network/http_api.hpp"
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

TEST_F(ConsoleLogTest, LineShapeUsesTheLastPathComponent) {
  EXPECT_EQ(detail::formatConsoleLine("Fail to encode logRecord", "Shared/Network/ZHttpApi",
                                      "urlRequest", 59),
            "😱 [ZHttpApi urlRequest] [59] | Fail to encode logRecord");
  EXPECT_EQ(detail::formatConsoleLine("m", "NoSlash", "f", -1), "😱 [NoSlash f] [-1] | m");
}

TEST_F(ConsoleLogTest, UnencodableRecordLogsAndStillBuildsARequestWithoutBody) {
  ZLogRecord record{.xid = {"c", "d", "s"}, .action = {"e", "n", "k"}};
  record.usage = ZUsage{.scrollPercent = std::numeric_limits<float>::infinity()};
  auto request = detail::ZHttpApi::track(record).urlRequest();
  ASSERT_TRUE(request);
  EXPECT_FALSE(request->body);
  EXPECT_EQ(request->method, "POST");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "😱 [ZHttpApi urlRequest] [59] | Fail to encode logRecord");
}

TEST_F(ConsoleLogTest, SwitchIsReadAtEachCall) {
  ZelvanorTracker::turnOffConsoleLogs();
  detail::logError("hidden", "a/b", "f", 1);
  ZelvanorTracker::turnOnConsoleLogs();
  detail::logError("shown", "a/b", "f", 2);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "😱 [b f] [2] | shown");
}

TEST_F(ConsoleLogTest, AThrowingSinkIsContained) {
  ZelvanorTracker::setConsoleLogSink(
      [](std::string_view) { throw std::runtime_error("host bug"); });
  EXPECT_NO_THROW(detail::logError("m", "f", "g", 3));
}

}  // namespace
}  // namespace zelvanor
