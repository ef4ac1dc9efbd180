// Linux facts: uname, DMI, locale variables, /proc/self/exe, XDG state directory, local time.
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string_view>

#include "platform/platform.hpp"

namespace zelvanor::platform {

namespace {

std::optional<std::string> environment(const char* name) {
  // The SDK never changes the environment; a host that does so from another thread at the same
  // moment is racing with every library that reads it.
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

std::string trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string_view::npos) return "";
  const auto end = text.find_last_not_of(" \t\r\n");
  return std::string(text.substr(begin, end - begin + 1));
}

}  // namespace

ZPlatformFacts detectFacts() {
  ZPlatformFacts facts;
  std::error_code error;
  const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error && !executable.filename().empty())
    facts.bundleIdentifier = executable.filename().string();

  utsname names{};
  if (uname(&names) == 0) {
    facts.os = names.sysname;
    facts.osVersion = names.release;
    facts.deviceModel = names.machine;
  }
  std::ifstream product("/sys/class/dmi/id/product_name");
  std::string model;
  if (product && std::getline(product, model) && !trimmed(model).empty())
    facts.deviceModel = trimmed(model);

  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    if (auto locale = environment(variable)) {
      auto language = languageFromLocaleName(*locale);
      if (!language.empty()) facts.language = language;
      break;
    }
  }

  const std::string bundle = facts.bundleIdentifier.value_or("zelvanor");
  auto state = environment("XDG_STATE_HOME");
  if (state && std::filesystem::path(*state).is_absolute()) {
    facts.dataDirectory = (std::filesystem::path(*state) / bundle).string();
  } else if (auto home = environment("HOME")) {
    facts.dataDirectory = (std::filesystem::path(*home) / ".local" / "state" / bundle).string();
  }
  return facts;
}

long secondsFromGMT(std::int64_t unixTime) {
  const std::time_t when = static_cast<std::time_t>(unixTime);
  std::tm local{};
  if (!localtime_r(&when, &local)) return 0;
  return local.tm_gmtoff;
}

std::string todayInstallDate() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char text[16];
  std::strftime(text, sizeof text, "%Y-%m-%d", &local);
  return text;
}

bool ensurePrivateDirectory(const std::filesystem::path& path) {
  if (path.empty()) return false;
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0) {
    // An existing symlink or non-directory is never used: it could point anywhere.
    return S_ISDIR(info.st_mode) && !S_ISLNK(info.st_mode);
  }
  std::error_code error;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) return false;
  return true;
}

}  // namespace zelvanor::platform
