// Win32 file operations. Every open shares read, write and delete with other handles (so another
// process, or a reader of ours, never makes a rename or a removal fail), never goes through a
// reparse point (a symbolic link or junction is opened as itself, then refused), and handles are
// not inherited by child processes. Files live in the user's own %LOCALAPPDATA%, whose ACL
// already keeps other users out; nothing here widens it.
#include <windows.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

#include "platform/file_ops.hpp"

namespace zelvanor::platform {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

class Handle {
 public:
  explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) noexcept : handle_(handle) {}
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  ~Handle() { close(); }
  HANDLE get() const noexcept { return handle_; }
  HANDLE release() noexcept { return std::exchange(handle_, INVALID_HANDLE_VALUE); }
  explicit operator bool() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
  bool close() noexcept {
    const HANDLE handle = std::exchange(handle_, INVALID_HANDLE_VALUE);
    return handle == INVALID_HANDLE_VALUE || ::CloseHandle(handle) != 0;
  }

 private:
  HANDLE handle_;
};

/// Opens without following a reparse point at the path; the caller checks what it got.
HANDLE openNoFollow(const std::filesystem::path& file, DWORD access, DWORD disposition) noexcept {
  return ::CreateFileW(file.c_str(), access, kShareAll, nullptr, disposition,
                       FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
}

/// A plain file on a disk: not a directory, not a reparse point, not a pipe or device.
bool isRegular(HANDLE handle, BY_HANDLE_FILE_INFORMATION& info) noexcept {
  if (::GetFileType(handle) != FILE_TYPE_DISK) return false;
  if (!::GetFileInformationByHandle(handle, &info)) return false;
  return (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
}

std::uint64_t sizeOf(const BY_HANDLE_FILE_INFORMATION& info) noexcept {
  return (static_cast<std::uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
}

bool writeAll(HANDLE handle, std::string_view bytes) noexcept {
  while (!bytes.empty()) {
    const DWORD chunk = bytes.size() > 0x40000000 ? 0x40000000 : static_cast<DWORD>(bytes.size());
    DWORD written = 0;
    if (!::WriteFile(handle, bytes.data(), chunk, &written, nullptr) || written == 0) return false;
    bytes.remove_prefix(written);
  }
  return true;
}

bool writeAtOffsetZero(HANDLE handle, std::string_view bytes) noexcept {
  std::uint64_t done = 0;
  while (done < bytes.size()) {
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(done);
    at.OffsetHigh = static_cast<DWORD>(done >> 32);
    const std::uint64_t left = bytes.size() - done;
    DWORD written = 0;
    if (!::WriteFile(handle, bytes.data() + done,
                     left > 0x40000000 ? 0x40000000 : static_cast<DWORD>(left), &written, &at) ||
        written == 0) {
      return false;
    }
    done += written;
  }
  return true;
}

/// Appends and moves aside take turns: threads of this process through this mutex, other
/// processes through a lock on one byte far past any real data. Windows locks are mandatory, so
/// locking the data itself would block readers; a byte beyond the end blocks only other lockers.
std::mutex& turnsInProcess() {
  static std::mutex turns;
  return turns;
}

constexpr DWORD kTurnOffsetHigh = 0x7FFFFFFF;

bool lockTurn(HANDLE handle, bool wait) noexcept {
  OVERLAPPED at{};
  at.OffsetHigh = kTurnOffsetHigh;
  const DWORD flags = LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY;
  if (!wait) return ::LockFileEx(handle, flags, 0, 1, 0, &at) != 0;
  // Appends are one write, so a longer wait means that process was stopped mid-append; the
  // caller tries again later rather than stall the SDK's worker behind it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
  auto pause = std::chrono::microseconds(50);
  for (;;) {
    if (::LockFileEx(handle, flags, 0, 1, 0, &at)) return true;
    if (::GetLastError() != ERROR_LOCK_VIOLATION) return true;  // no locks here: go on without
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
    pause = std::min<std::chrono::microseconds>(pause * 2, std::chrono::milliseconds(5));
  }
}

/// Whether the file is being deleted or no longer at `file`: a start that moved it aside between
/// our open and our lock has already counted its records.
bool stillAt(const std::filesystem::path& file, const BY_HANDLE_FILE_INFORMATION& info) noexcept {
  Handle atPath(openNoFollow(file, FILE_READ_ATTRIBUTES, OPEN_EXISTING));
  BY_HANDLE_FILE_INFORMATION now{};
  if (!atPath || !::GetFileInformationByHandle(atPath.get(), &now)) return false;
  return now.dwVolumeSerialNumber == info.dwVolumeSerialNumber &&
         now.nFileIndexHigh == info.nFileIndexHigh && now.nFileIndexLow == info.nFileIndexLow;
}

bool deletePending(HANDLE handle) noexcept {
  FILE_STANDARD_INFO standard{};
  return ::GetFileInformationByHandleEx(handle, FileStandardInfo, &standard, sizeof standard) &&
         (standard.DeletePending || standard.NumberOfLinks == 0);
}

/// Another handle without delete sharing (a virus scanner, an indexer, a backup) makes a rename
/// over or of a file fail for a moment; it is tried again for up to a second.
bool moveWithRetry(const std::filesystem::path& from, const std::filesystem::path& to,
                   DWORD flags) noexcept {
  for (int attempt = 0;; ++attempt) {
    if (::MoveFileExW(from.c_str(), to.c_str(), flags)) return true;
    const DWORD error = ::GetLastError();
    if ((error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) || attempt >= 20) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
}

constexpr int kOpenAttempts = 8;

}  // namespace

bool appendPrivate(const std::filesystem::path& file, std::string_view bytes) noexcept {
  try {
    std::lock_guard turn(turnsInProcess());
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      Handle handle(openNoFollow(file, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS));
      if (!handle) return false;
      BY_HANDLE_FILE_INFORMATION info{};
      if (!isRegular(handle.get(), info)) return false;
      if (!lockTurn(handle.get(), true)) return false;
      if (!isRegular(handle.get(), info)) return false;
      if (deletePending(handle.get()) || !stillAt(file, info)) continue;
      const std::uint64_t oldSize = sizeOf(info);
      LARGE_INTEGER end{};
      end.QuadPart = static_cast<LONGLONG>(oldSize);
      // One WriteFile at the end; a failure part way is cut back so the file stays a sequence of
      // whole frames (the turn keeps other appenders' frames out of what is cut).
      if (!::SetFilePointerEx(handle.get(), end, nullptr, FILE_BEGIN) ||
          !writeAll(handle.get(), bytes)) {
        if (::SetFilePointerEx(handle.get(), end, nullptr, FILE_BEGIN)) {
          (void)::SetEndOfFile(handle.get());
        }
        return false;
      }
      return handle.close();  // closing releases the turn
    }
    return false;
  } catch (...) {
    return false;
  }
}

bool moveAside(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
  try {
    std::lock_guard turn(turnsInProcess());
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      Handle handle(openNoFollow(from, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING));
      if (!handle) return false;
      BY_HANDLE_FILE_INFORMATION info{};
      if (!isRegular(handle.get(), info)) return false;
      if (!lockTurn(handle.get(), true)) return false;
      if (deletePending(handle.get())) continue;
      // Renaming a file that is open works because every handle shares delete.
      return moveWithRetry(from, to, MOVEFILE_REPLACE_EXISTING);
    }
    return false;
  } catch (...) {
    return false;
  }
}

bool writeAtStart(const std::filesystem::path& file, std::string_view bytes) noexcept {
  Handle handle(openNoFollow(file, GENERIC_WRITE | FILE_READ_ATTRIBUTES, OPEN_ALWAYS));
  BY_HANDLE_FILE_INFORMATION info{};
  if (!handle || !isRegular(handle.get(), info)) return false;
  return writeAtOffsetZero(handle.get(), bytes) && handle.close();
}

struct RewrittenFile::Handle {
  HANDLE handle = INVALID_HANDLE_VALUE;
};

RewrittenFile::RewrittenFile() : handle_(std::make_unique<Handle>()) {}
RewrittenFile::~RewrittenFile() {
  close();
}

void RewrittenFile::close() noexcept {
  if (handle_->handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle_->handle);
  handle_->handle = INVALID_HANDLE_VALUE;
}

bool RewrittenFile::writeAtStart(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept {
  if (handle_->handle == INVALID_HANDLE_VALUE) {
    platform::Handle opened(openNoFollow(file, GENERIC_WRITE | FILE_READ_ATTRIBUTES, OPEN_ALWAYS));
    BY_HANDLE_FILE_INFORMATION info{};
    if (!opened || !isRegular(opened.get(), info)) return false;
    handle_->handle = opened.release();
  }
  if (!writeAtOffsetZero(handle_->handle, bytes)) {
    close();  // opened afresh next time
    return false;
  }
  return true;
}

std::optional<std::uint64_t> regularFileSize(const std::filesystem::path& file) noexcept {
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!::GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data)) return std::nullopt;
  if (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) {
    return std::nullopt;
  }
  return (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

std::optional<std::string> somethingElseAt(const std::filesystem::path& file) noexcept {
  try {
    const DWORD attributes = ::GetFileAttributesW(file.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) return std::nullopt;  // missing or unreadable
    if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) return "a symbolic link or junction";
    if (attributes & FILE_ATTRIBUTE_DIRECTORY) return "a directory";
    Handle handle(openNoFollow(file, FILE_READ_ATTRIBUTES, OPEN_EXISTING));
    if (handle && ::GetFileType(handle.get()) != FILE_TYPE_DISK) return "a device or pipe";
    return std::nullopt;
  } catch (...) {
    return std::nullopt;
  }
}

bool cutRegularFile(const std::filesystem::path& file, std::uint64_t size) noexcept {
  Handle handle(openNoFollow(file, GENERIC_READ | GENERIC_WRITE, OPEN_EXISTING));
  BY_HANDLE_FILE_INFORMATION info{};
  if (!handle || !isRegular(handle.get(), info) || sizeOf(info) < size) return false;
  LARGE_INTEGER end{};
  end.QuadPart = static_cast<LONGLONG>(size);
  return ::SetFilePointerEx(handle.get(), end, nullptr, FILE_BEGIN) &&
         ::SetEndOfFile(handle.get()) && handle.close();
}

struct ReadableFile::Handle {
  HANDLE handle = INVALID_HANDLE_VALUE;
  std::uint64_t size = 0;
};

ReadableFile::ReadableFile() : handle_(std::make_unique<Handle>()) {}
ReadableFile::~ReadableFile() {
  close();
}

bool ReadableFile::open(const std::filesystem::path& file) noexcept {
  close();
  platform::Handle opened(openNoFollow(file, GENERIC_READ, OPEN_EXISTING));
  BY_HANDLE_FILE_INFORMATION info{};
  if (!opened || !isRegular(opened.get(), info)) return false;
  handle_->size = sizeOf(info);
  handle_->handle = opened.release();
  return true;
}

void ReadableFile::close() noexcept {
  if (handle_ && handle_->handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle_->handle);
  if (handle_) handle_->handle = INVALID_HANDLE_VALUE;
}

bool ReadableFile::isOpen() const noexcept {
  return handle_->handle != INVALID_HANDLE_VALUE;
}

std::uint64_t ReadableFile::size() const noexcept {
  return handle_->size;
}

std::int64_t ReadableFile::readAt(std::uint64_t offset, char* into, std::size_t count) noexcept {
  OVERLAPPED at{};
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD got = 0;
  const DWORD want = count > 0x40000000 ? 0x40000000 : static_cast<DWORD>(count);
  if (!::ReadFile(handle_->handle, into, want, &got, &at)) {
    return ::GetLastError() == ERROR_HANDLE_EOF ? 0 : -1;
  }
  return got;
}

struct ProcessLock::Handle {
  HANDLE handle = INVALID_HANDLE_VALUE;
};

ProcessLock::ProcessLock() : handle_(std::make_unique<Handle>()) {}
ProcessLock::~ProcessLock() {
  unlock();
}

void ProcessLock::unlock() noexcept {
  // Closing releases the lock; so does the end of the process, however it ends.
  if (handle_->handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle_->handle);
  handle_->handle = INVALID_HANDLE_VALUE;
}

bool ProcessLock::tryLock(const std::filesystem::path& file) noexcept {
  if (handle_->handle != INVALID_HANDLE_VALUE) return true;
  platform::Handle opened(openNoFollow(file, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS));
  BY_HANDLE_FILE_INFORMATION info{};
  if (!opened || !isRegular(opened.get(), info)) return false;
  if (!lockTurn(opened.get(), false)) return false;  // another process owns it
  handle_->handle = opened.release();
  return true;
}

std::optional<std::string> readWhole(const std::filesystem::path& file) noexcept {
  try {
    Handle handle(openNoFollow(file, GENERIC_READ, OPEN_EXISTING));
    BY_HANDLE_FILE_INFORMATION info{};
    if (!handle || !isRegular(handle.get(), info)) return std::nullopt;
    std::string content;
    // The size is a hint only: the file may still grow, so read until end of file.
    content.resize(static_cast<std::size_t>(sizeOf(info)) + 1);
    std::size_t used = 0;
    for (;;) {
      if (used == content.size()) content.resize(content.size() * 2);
      const std::size_t room = content.size() - used;
      DWORD got = 0;
      if (!::ReadFile(handle.get(), content.data() + used,
                      room > 0x40000000 ? 0x40000000 : static_cast<DWORD>(room), &got, nullptr)) {
        return std::nullopt;
      }
      if (got == 0) break;
      used += got;
    }
    content.resize(used);
    return content;
  } catch (...) {
    return std::nullopt;
  }
}

bool removeFile(const std::filesystem::path& file) noexcept {
  // DeleteFileW removes a symbolic link itself, never its target.
  if (::DeleteFileW(file.c_str())) return true;
  const DWORD error = ::GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

bool writeWholePrivateAtomically(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept {
  try {
    std::random_device seed;
    std::filesystem::path temporary;
    HANDLE created = INVALID_HANDLE_VALUE;
    for (int attempt = 0; attempt < 16 && created == INVALID_HANDLE_VALUE; ++attempt) {
      temporary = file;
      temporary += L".tmp" + std::to_wstring(seed());
      created = ::CreateFileW(temporary.c_str(), GENERIC_WRITE, kShareAll, nullptr, CREATE_NEW,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    }
    Handle handle(created);
    if (!handle) return false;
    const bool written =
        writeAll(handle.get(), bytes) && ::FlushFileBuffers(handle.get()) && handle.close();
    // A reparse point at the path is replaced, not followed: MoveFileExW renames over the link.
    if (!written ||
        !moveWithRetry(temporary, file, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
      ::DeleteFileW(temporary.c_str());
      return false;
    }
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace zelvanor::platform
