// Platforms without their own facts: a host passes them in through setPlatformFacts.
#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <utility>

#include "platform/platform.hpp"

namespace zelvanor::platform {

namespace {

// std::localtime and std::gmtime may return one buffer shared by the whole process; every use of
// them in the SDK goes through this lock, and each result is copied out before it is released.
std::mutex& brokenDownTimeMutex() {
  static auto* mutex = new std::mutex();  // reachable during exit
  return *mutex;
}

}  // namespace

ZPlatformFacts detectFacts() {
  ZPlatformFacts facts;
  std::error_code error;
  const auto temp = std::filesystem::temp_directory_path(error);
  if (!error) facts.dataDirectory = (temp / "zelvanor").string();
  return facts;
}

long secondsFromGMT(std::int64_t unixTime) {
  // An instant the C library cannot represent, or cannot convert, counts as UTC.
  if (!std::in_range<std::time_t>(unixTime)) return 0;
  const auto when = static_cast<std::time_t>(unixTime);
  std::tm local{};
  std::tm utc{};
  {
    std::lock_guard lock(brokenDownTimeMutex());
    const std::tm* localResult = std::localtime(&when);
    if (!localResult) return 0;
    local = *localResult;
    const std::tm* utcResult = std::gmtime(&when);
    if (!utcResult) return 0;
    utc = *utcResult;
  }
  // Field by field from the two forms of the same instant: exact on either side of a daylight
  // saving change, unlike mktime on the UTC fields, which applies the zone's rule of another hour.
  return offsetBetween(local, utc);
}

std::string todayInstallDate() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  bool haveLocal = false;
  {
    std::lock_guard lock(brokenDownTimeMutex());
    if (const std::tm* result = std::localtime(&now)) {
      local = *result;
      haveLocal = true;
    }
  }
  char text[16];
  if (haveLocal && std::strftime(text, sizeof text, "%Y-%m-%d", &local) != 0) return text;
  // No local time to be had: the date in UTC.
  using namespace std::chrono;
  const year_month_day date{floor<days>(system_clock::now())};
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return text;
}

bool ensurePrivateDirectory(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return std::filesystem::is_directory(path, error) && !std::filesystem::is_symlink(path, error);
}

}  // namespace zelvanor::platform
