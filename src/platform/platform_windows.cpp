// Windows facts: the executable's name, the real OS version (RtlGetVersion: GetVersionEx reports
// what the manifest allows), the BIOS product name, the user's locale, %LOCALAPPDATA%, and the
// zone from Win32 (the C runtime's localtime ignores the system zone unless TZ is unset and
// knows no POSIX TZ rules).
#include <windows.h>
// windows.h first: these need its types.
#include <knownfolders.h>
#include <shlobj.h>

#include <cstdio>
#include <string_view>

#include "platform/platform.hpp"

namespace zelvanor::platform {

namespace {

std::string utf8(std::wstring_view wide) {
  if (wide.empty()) return {};
  const int size = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                         nullptr, 0, nullptr, nullptr);
  if (size <= 0) return {};
  std::string text(static_cast<std::size_t>(size), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), text.data(), size,
                        nullptr, nullptr);
  return text;
}

std::optional<std::string> osVersion() {
  using RtlGetVersionFunction = LONG(WINAPI*)(OSVERSIONINFOW*);
  const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
  if (!ntdll) return std::nullopt;
  const auto rtlGetVersion =
      reinterpret_cast<RtlGetVersionFunction>(  // NOLINT: the documented way to reach it
          reinterpret_cast<void*>(::GetProcAddress(ntdll, "RtlGetVersion")));
  if (!rtlGetVersion) return std::nullopt;
  OSVERSIONINFOW info{};
  info.dwOSVersionInfoSize = sizeof info;
  if (rtlGetVersion(&info) != 0) return std::nullopt;
  return std::to_string(info.dwMajorVersion) + "." + std::to_string(info.dwMinorVersion) + "." +
         std::to_string(info.dwBuildNumber);
}

std::optional<std::string> productName() {
  wchar_t name[256];
  DWORD size = sizeof name;
  if (::RegGetValueW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DESCRIPTION\\System\\BIOS",
                     L"SystemProductName", RRF_RT_REG_SZ, nullptr, name, &size) != ERROR_SUCCESS) {
    return std::nullopt;
  }
  std::string text = utf8(name);
  if (text.find_first_not_of(' ') == std::string::npos) return std::nullopt;
  return text;
}

std::optional<std::filesystem::path> localAppData() {
  PWSTR folder = nullptr;
  std::optional<std::filesystem::path> path;
  if (SUCCEEDED(::SHGetKnownFolderPath(FOLDERID_LocalAppData, KF_FLAG_DEFAULT, nullptr, &folder))) {
    path = std::filesystem::path(folder);
  }
  ::CoTaskMemFree(folder);
  return path;
}

constexpr std::int64_t kUnixEpochIn100ns = 116444736000000000LL;

FILETIME fileTimeOf(std::int64_t unixTime) {
  const auto ticks = static_cast<std::uint64_t>(unixTime * 10'000'000LL + kUnixEpochIn100ns);
  return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

std::int64_t ticksOf(const FILETIME& time) {
  return static_cast<std::int64_t>((static_cast<std::uint64_t>(time.dwHighDateTime) << 32) |
                                   time.dwLowDateTime);
}

}  // namespace

ZPlatformFacts detectFacts() {
  ZPlatformFacts facts;
  wchar_t module[MAX_PATH];
  const DWORD length = ::GetModuleFileNameW(nullptr, module, MAX_PATH);
  if (length > 0 && length < MAX_PATH) {
    const std::filesystem::path executable(std::wstring_view(module, length));
    if (!executable.stem().empty()) facts.bundleIdentifier = utf8(executable.stem().wstring());
  }
  facts.os = "Windows";
  facts.osVersion = osVersion();
  facts.deviceModel = productName();
  if (!facts.deviceModel) {
    SYSTEM_INFO system{};
    ::GetNativeSystemInfo(&system);
    facts.deviceModel =
        system.wProcessorArchitecture == PROCESSOR_ARCHITECTURE_ARM64 ? "arm64" : "x86_64";
  }
  wchar_t locale[LOCALE_NAME_MAX_LENGTH];
  if (::GetUserDefaultLocaleName(locale, LOCALE_NAME_MAX_LENGTH) > 0) {
    // "en-US" on Windows; the language is what comes before the region.
    std::string name = utf8(locale);
    auto language = languageFromLocaleName(name.substr(0, name.find('-')));
    if (!language.empty()) facts.language = language;
  }
  if (auto folder = localAppData()) {
    const std::string bundle = facts.bundleIdentifier.value_or("zelvanor");
    facts.dataDirectory = utf8((*folder / std::filesystem::u8path(bundle)).wstring());
  }
  return facts;
}

long secondsFromGMT(std::int64_t unixTime) {
  // Instants outside what SYSTEMTIME holds (1601 to 30827) count as UTC.
  if (unixTime < -11644473600LL || unixTime > 910692730000LL) return 0;
  const FILETIME utcFile = fileTimeOf(unixTime);
  SYSTEMTIME utc{};
  SYSTEMTIME local{};
  if (!::FileTimeToSystemTime(&utcFile, &utc)) return 0;
  // The zone's rules of that year (a zone may have changed them), else today's.
  TIME_ZONE_INFORMATION zone{};
  if (!::GetTimeZoneInformationForYear(utc.wYear, nullptr, &zone) &&
      ::GetTimeZoneInformation(&zone) == TIME_ZONE_ID_INVALID) {
    return 0;
  }
  if (!::SystemTimeToTzSpecificLocalTime(&zone, &utc, &local)) return 0;
  FILETIME localFile{};
  if (!::SystemTimeToFileTime(&local, &localFile)) return 0;
  return static_cast<long>((ticksOf(localFile) - ticksOf(utcFile)) / 10'000'000LL);
}

std::string todayInstallDate() {
  SYSTEMTIME now{};
  ::GetLocalTime(&now);
  char text[16];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u", now.wYear, now.wMonth, now.wDay);
  return text;
}

bool ensurePrivateDirectory(const std::filesystem::path& path) {
  if (path.empty()) return false;
  const auto isPlainDirectory = [&path] {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    // A reparse point (junction, symbolic link) is never used: it could point anywhere.
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) &&
           !(attributes & FILE_ATTRIBUTE_REPARSE_POINT);
  };
  if (::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) return isPlainDirectory();
  std::error_code error;
  if (path.has_parent_path()) std::filesystem::create_directories(path.parent_path(), error);
  // Inherits the ACL of %LOCALAPPDATA%, which only the user (and the system) can open.
  if (!::CreateDirectoryW(path.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS) {
    return false;
  }
  return isPlainDirectory();
}

}  // namespace zelvanor::platform
