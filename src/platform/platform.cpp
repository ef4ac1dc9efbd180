#include "platform/platform.hpp"

#include <charconv>
#include <chrono>
#include <cstdio>
#include <mutex>

namespace zelvanor {

namespace {

struct FactsState {
  std::mutex mutex;
  ZPlatformFacts overrides;
  std::optional<ZPlatformFacts> detected;
};

FactsState& factsState() {
  static auto* state = new FactsState();  // reachable during exit
  return *state;
}

template <class T>
void overlay(std::optional<T>& base, const std::optional<T>& over) {
  if (over) base = over;
}

}  // namespace

void setPlatformFacts(const ZPlatformFacts& overrides) {
  std::lock_guard lock(factsState().mutex);
  factsState().overrides = overrides;
}

ZPlatformFacts currentPlatformFacts() {
  auto& state = factsState();
  std::lock_guard lock(state.mutex);
  if (!state.detected) state.detected = platform::detectFacts();
  ZPlatformFacts facts = *state.detected;
  const ZPlatformFacts& o = state.overrides;
  overlay(facts.bundleIdentifier, o.bundleIdentifier);
  overlay(facts.appVersion, o.appVersion);
  overlay(facts.os, o.os);
  overlay(facts.osVersion, o.osVersion);
  overlay(facts.deviceModel, o.deviceModel);
  overlay(facts.language, o.language);
  overlay(facts.screen, o.screen);
  if (o.dataDirectory) {
    facts.dataDirectory = o.dataDirectory;
  } else if (o.bundleIdentifier && state.detected->dataDirectory) {
    // The default directory is named after the bundle id: follow the host's id.
    facts.dataDirectory =
        (std::filesystem::path(*state.detected->dataDirectory).parent_path() / *o.bundleIdentifier)
            .string();
  }
  return facts;
}

namespace platform {

std::string appVersionOrUnknown() {
  return currentPlatformFacts().appVersion.value_or("Unknown Version");
}

std::string timezoneText() {
  const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  return timezoneTextForOffset(secondsFromGMT(now));
}

std::string timezoneTextForOffset(long secondsFromGMT) {
  // C++ division truncates toward zero, so -0:30 is "+0" and -3:30 is "-3", not "-4".
  const long hours = secondsFromGMT / 3600;
  std::string text = std::to_string(hours);
  if (hours >= 0) text.insert(text.begin(), '+');
  return text;
}

long offsetBetween(const std::tm& local, const std::tm& utc) noexcept {
  long days = 0;
  if (local.tm_year != utc.tm_year) {
    days = local.tm_year > utc.tm_year ? 1 : -1;  // one side of a new year's midnight
  } else {
    days = local.tm_yday - utc.tm_yday;
  }
  return days * 86400 + static_cast<long>(local.tm_hour - utc.tm_hour) * 3600 +
         static_cast<long>(local.tm_min - utc.tm_min) * 60 + (local.tm_sec - utc.tm_sec);
}

namespace {
std::string doubleText(double value) {
  char buffer[32];
  auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  std::string text(buffer, result.ptr);
  if (text.find_first_of(".en") == std::string::npos) text += ".0";
  return text;
}
}  // namespace

std::string screenText(ZScreenSize size) {
  return "(" + doubleText(size.width) + ", " + doubleText(size.height) + ")";
}

std::string languageFromLocaleName(std::string_view locale) {
  if (locale.empty() || locale == "C" || locale == "POSIX" || locale.rfind("C.", 0) == 0) return "";
  const auto end = locale.find_first_of("_.@");
  return std::string(locale.substr(0, end));
}

std::filesystem::path dataDirectory() {
  const auto facts = currentPlatformFacts();
  if (!facts.dataDirectory) return {};
  std::filesystem::path path(*facts.dataDirectory);
  if (!ensurePrivateDirectory(path)) return {};
  return path;
}

support::PassthroughSubject<LifecycleEvent>& lifecycleEvents() {
  static auto* subject = new support::PassthroughSubject<LifecycleEvent>();
  return *subject;
}

}  // namespace platform
}  // namespace zelvanor
