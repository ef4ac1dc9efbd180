// Platforms without their own facts: a host passes them in through setPlatformFacts.
#include <ctime>

#include "platform/platform.hpp"

namespace zelvanor::platform {

ZPlatformFacts detectFacts() {
  ZPlatformFacts facts;
  std::error_code error;
  const auto temp = std::filesystem::temp_directory_path(error);
  if (!error) facts.dataDirectory = (temp / "zelvanor").string();
  return facts;
}

long secondsFromGMT(std::int64_t unixTime) {
  const std::time_t when = static_cast<std::time_t>(unixTime);
  const std::tm* utc = std::gmtime(&when);
  if (!utc) return 0;
  std::tm asLocal = *utc;
  asLocal.tm_isdst = -1;
  return static_cast<long>(std::difftime(when, std::mktime(&asLocal)));
}

std::string todayInstallDate() {
  const std::time_t now = std::time(nullptr);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", std::localtime(&now));
  return text;
}

bool ensurePrivateDirectory(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  return std::filesystem::is_directory(path, error) && !std::filesystem::is_symlink(path, error);
}

}  // namespace zelvanor::platform
