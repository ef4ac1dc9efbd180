// What the SDK asks of the platform: facts about the app and device, the local time zone, the
// app's private data directory, and the host's lifecycle events. One implementation file per
// platform (platform_linux.cpp, platform_none.cpp); the core includes only this header.
#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>

#include "support/subject.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor::platform {

/// Facts the platform detects by itself (each may be absent).
ZPlatformFacts detectFacts();

/// The app version, or "Unknown Version".
std::string appVersionOrUnknown();
/// Offset of the device's current zone from UTC at `unixTime`, in seconds.
long secondsFromGMT(std::int64_t unixTime);
/// Seconds by which `local` is ahead of `utc`, the local and the UTC broken-down forms of one
/// instant, for C libraries whose struct tm carries no offset. Offsets are under a day, so the
/// dates differ by at most one day.
long offsetBetween(const std::tm& local, const std::tm& utc) noexcept;
/// Whole hours from UTC now, truncated toward zero: "+9", "+5" for +5:30, "+0" for -0:30, "-5".
std::string timezoneText();
/// The same text for an offset of `secondsFromGMT` seconds.
std::string timezoneTextForOffset(long secondsFromGMT);
/// "(390.0, 844.0)": each number as a double's default text (a fraction only when there is one).
std::string screenText(ZScreenSize size);
/// Today in the device's zone, "yyyy-MM-dd".
std::string todayInstallDate();
/// The app's data directory, created 0700 if needed; empty when it cannot be had safely.
std::filesystem::path dataDirectory();
/// Creates `path` (and parents) with mode 0700; false if it is a symlink or not a directory.
bool ensurePrivateDirectory(const std::filesystem::path& path);
/// The language code of a locale name: "en_US.UTF-8" gives "en"; "C" and "POSIX" give "".
std::string languageFromLocaleName(std::string_view locale);

enum class LifecycleEvent { willTerminate, willResignActive, willEnterForeground };
/// Where the host's lifecycle events are published, process-wide.
support::PassthroughSubject<LifecycleEvent>& lifecycleEvents();

}  // namespace zelvanor::platform
