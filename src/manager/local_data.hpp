// What the SDK keeps for an app in its data directory besides the pending store's files, and the
// mark that lets a deletion of all of it survive a crash part way: the mark is written (and
// flushed) before anything is removed and removed after everything is, and a start that finds it
// finishes the deletion before anything reads the directory. So a later start never mistakes
// the remains of a half-done deletion for data.
#pragma once

#include <filesystem>
#include <string_view>

#include "platform/settings_store.hpp"

namespace zelvanor::detail::local_data {

inline constexpr std::string_view kCookieJarFileName = "cookies.txt";
inline constexpr std::string_view kSettingsFileName = "settings.json";
inline constexpr std::string_view kErasingMarkName = "ZErasing";

/// Removes the settings that say the app was installed and which version ran last, so that the
/// next start (or the next common block) records a fresh install. The collection switch stays.
void forgetInstall(platform::SettingsStore& settings);
/// Writes the mark; false when the directory would not take it.
bool markErasing(const std::filesystem::path& directory);
void unmarkErasing(const std::filesystem::path& directory);
/// At a start, before anything reads the directory: finishes a deletion a crash interrupted.
void finishInterruptedErase(const std::filesystem::path& directory);

}  // namespace zelvanor::detail::local_data
