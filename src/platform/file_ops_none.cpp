// Portable file operations on std::filesystem and std::fstream, for platforms without a native
// file layer. The symlink checks race with other processes, and appends take turns with moves
// only within this process; a native layer should replace this wherever the data directory can
// be reached by another user or another process of the app.
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <system_error>

#include "platform/file_ops.hpp"

namespace zelvanor::platform {
namespace {

namespace fs = std::filesystem;

constexpr fs::perms kPrivatePerms = fs::perms::owner_read | fs::perms::owner_write;

/// Appends and moves aside take turns within the process.
std::mutex& appendLock() {
  static std::mutex lock;
  return lock;
}

/// True when the path is missing or names a regular file (not through a link).
bool missingOrRegular(const fs::path& file, bool& exists) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(file, error);
  exists = fs::exists(status);
  if (!exists) return true;
  return fs::is_regular_file(status);
}

bool writeFile(const fs::path& file, std::string_view bytes, std::ios::openmode mode) {
  std::ofstream out(file, std::ios::binary | std::ios::out | mode);
  if (!out) return false;
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  return !out.fail();
}

}  // namespace

bool appendPrivate(const std::filesystem::path& file, std::string_view bytes) noexcept {
  try {
    std::lock_guard lock(appendLock());
    bool exists = false;
    if (!missingOrRegular(file, exists)) return false;
    std::error_code error;
    std::uintmax_t oldSize = 0;
    if (exists) {
      oldSize = fs::file_size(file, error);
      if (error) return false;
    } else {
      // Create it empty first so that it is private before any byte lands in it.
      if (!writeFile(file, {}, std::ios::app)) return false;
      fs::permissions(file, kPrivatePerms, fs::perm_options::replace, error);
    }
    if (!writeFile(file, bytes, std::ios::app)) {
      fs::resize_file(file, oldSize, error);
      return false;
    }
    return true;
  } catch (...) {
    return false;
  }
}

std::optional<std::string> readWhole(const std::filesystem::path& file) noexcept {
  try {
    bool exists = false;
    if (!missingOrRegular(file, exists) || !exists) return std::nullopt;
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) return std::nullopt;
    return content;
  } catch (...) {
    return std::nullopt;
  }
}

bool moveAside(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
  try {
    std::lock_guard lock(appendLock());
    bool exists = false;
    if (!missingOrRegular(from, exists) || !exists) return false;
    std::error_code error;
    fs::rename(from, to, error);
    return !error;
  } catch (...) {
    return false;
  }
}

bool writeAtStart(const std::filesystem::path& file, std::string_view bytes) noexcept {
  try {
    bool exists = false;
    if (!missingOrRegular(file, exists)) return false;
    if (!exists && !writeFile(file, {}, std::ios::app)) return false;
    std::fstream out(file, std::ios::binary | std::ios::in | std::ios::out);
    if (!out) return false;
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    return !out.fail();
  } catch (...) {
    return false;
  }
}

struct RewrittenFile::Handle {};

RewrittenFile::RewrittenFile() : handle_(std::make_unique<Handle>()) {}
RewrittenFile::~RewrittenFile() = default;
void RewrittenFile::close() noexcept {}

// Without descriptors to keep, each rewrite opens the file again.
bool RewrittenFile::writeAtStart(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept {
  return platform::writeAtStart(file, bytes);
}

std::optional<std::uint64_t> regularFileSize(const std::filesystem::path& file) noexcept {
  bool exists = false;
  if (!missingOrRegular(file, exists) || !exists) return std::nullopt;
  std::error_code error;
  const auto size = fs::file_size(file, error);
  if (error) return std::nullopt;
  return static_cast<std::uint64_t>(size);
}

std::optional<std::string> somethingElseAt(const std::filesystem::path& file) noexcept {
  try {
    std::error_code error;
    const fs::file_status status = fs::symlink_status(file, error);
    if (error || !fs::exists(status) || fs::is_regular_file(status)) return std::nullopt;
    if (fs::is_directory(status)) return "a directory";
    if (fs::is_symlink(status)) return "a symbolic link";
    if (fs::is_fifo(status)) return "a FIFO";
    if (fs::is_socket(status)) return "a socket";
    if (fs::is_block_file(status) || fs::is_character_file(status)) return "a device";
    return "no regular file";
  } catch (...) {
    return std::nullopt;
  }
}

bool cutRegularFile(const std::filesystem::path& file, std::uint64_t size) noexcept {
  const auto now = regularFileSize(file);
  if (!now || *now < size) return false;
  std::error_code error;
  fs::resize_file(file, size, error);
  return !error;
}

struct ReadableFile::Handle {
  std::ifstream in;
  std::uint64_t size = 0;
};

ReadableFile::ReadableFile() : handle_(std::make_unique<Handle>()) {}
ReadableFile::~ReadableFile() = default;

bool ReadableFile::open(const std::filesystem::path& file) noexcept {
  try {
    close();
    const auto size = regularFileSize(file);
    if (!size) return false;
    handle_->in.open(file, std::ios::binary);
    handle_->size = *size;
    return handle_->in.is_open();
  } catch (...) {
    return false;
  }
}

void ReadableFile::close() noexcept {
  try {
    if (handle_->in.is_open()) handle_->in.close();
    handle_->in.clear();
  } catch (...) {
  }
}

bool ReadableFile::isOpen() const noexcept {
  return handle_->in.is_open();
}

std::uint64_t ReadableFile::size() const noexcept {
  return handle_->size;
}

std::int64_t ReadableFile::readAt(std::uint64_t offset, char* into, std::size_t count) noexcept {
  try {
    handle_->in.clear();
    handle_->in.seekg(static_cast<std::streamoff>(offset));
    handle_->in.read(into, static_cast<std::streamsize>(count));
    if (handle_->in.bad()) return -1;
    return static_cast<std::int64_t>(handle_->in.gcount());
  } catch (...) {
    return -1;
  }
}

// Without a native layer there is no way to tell other processes apart: every process owns.
struct ProcessLock::Handle {};
ProcessLock::ProcessLock() = default;
ProcessLock::~ProcessLock() = default;
bool ProcessLock::tryLock(const std::filesystem::path&) noexcept {
  return true;
}
void ProcessLock::unlock() noexcept {}

bool removeFile(const std::filesystem::path& file) noexcept {
  std::error_code error;
  fs::remove(file, error);  // removes a link itself, never its target
  return !error;
}

bool writeWholePrivateAtomically(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept {
  try {
    std::random_device random;
    fs::path temporary = file;
    temporary += ".tmp" + std::to_string(random());
    std::error_code error;
    if (fs::exists(fs::symlink_status(temporary, error))) return false;
    if (!writeFile(temporary, {}, std::ios::trunc)) return false;
    fs::permissions(temporary, kPrivatePerms, fs::perm_options::replace, error);
    if (!writeFile(temporary, bytes, std::ios::trunc)) {
      fs::remove(temporary, error);
      return false;
    }
    fs::rename(temporary, file, error);
    if (error) {
      fs::remove(temporary, error);
      return false;
    }
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace zelvanor::platform
