// POSIX file operations: no symlink is ever followed at the final path component, files are
// created 0600, and descriptors never leak into child processes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <utility>

#include "platform/file_ops.hpp"

namespace zelvanor::platform {
namespace {

constexpr mode_t kPrivateMode = S_IRUSR | S_IWUSR;

class Descriptor {
 public:
  explicit Descriptor(int fd) noexcept : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const noexcept { return fd_; }
  void reset(int fd) noexcept {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }
  int release() noexcept { return std::exchange(fd_, -1); }
  explicit operator bool() const noexcept { return fd_ >= 0; }
  /// Closes now and reports the result, which for a written file is the last chance to see an
  /// I/O error.
  bool close() noexcept {
    const int fd = fd_;
    fd_ = -1;
    return fd < 0 || ::close(fd) == 0;
  }

 private:
  int fd_;
};

int openNoFollow(const std::filesystem::path& file, int flags, mode_t mode = 0) noexcept {
  int fd;
  do {
    // O_NONBLOCK keeps a FIFO planted at the path from blocking the open; it has no effect on
    // regular files, which are all we go on to use.
    fd = ::open(file.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

bool isRegular(int fd, struct stat& info) noexcept {
  return ::fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
}

/// Writes everything, continuing after a short write or an interrupted call.
bool writeAll(int fd, std::string_view bytes) noexcept {
  const char* data = bytes.data();
  std::size_t left = bytes.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, data, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    if (written == 0) return false;
    data += written;
    left -= static_cast<std::size_t>(written);
  }
  return true;
}

/// Appends and moves aside take turns: threads of this process through this mutex, other
/// processes through a record lock on the file.
std::mutex& turnsInProcess() {
  static std::mutex turns;
  return turns;
}

/// How long an append or a move waits for another process's turn. Appends are one write, so
/// a longer wait means that process was stopped mid-append; the caller tries again later rather
/// than stall the SDK's worker behind it.
constexpr std::chrono::milliseconds kTurnWait{100};

/// Waits a short while for the other processes' turns. A record lock, unlike flock, is never
/// inherited by a forked child, so a child that keeps a copy of the descriptor cannot hold the
/// parent up. On a filesystem that has no locks this goes on without: a record kept unlocked
/// beats one dropped.
bool lockAgainstOtherProcesses(int fd) noexcept {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  const auto deadline = std::chrono::steady_clock::now() + kTurnWait;
  auto pause = std::chrono::microseconds(50);
  for (;;) {
    if (::fcntl(fd, F_SETLK, &whole) == 0) return true;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EACCES) return true;  // no locks here: go on without
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(pause);
    pause = std::min<std::chrono::microseconds>(pause * 2, std::chrono::milliseconds(5));
  }
}

/// The rest of an open file, from where it stands to its end.
std::optional<std::string> readAll(int fd, const struct stat& info) {
  std::string content;
  // The size is a hint only: the file may still grow, so read until end of file.
  content.resize(static_cast<std::size_t>(info.st_size) + 1);
  std::size_t used = 0;
  for (;;) {
    if (used == content.size()) content.resize(content.size() * 2);
    const ssize_t got = ::read(fd, content.data() + used, content.size() - used);
    if (got < 0) {
      if (errno == EINTR) continue;
      return std::nullopt;
    }
    if (got == 0) break;
    used += static_cast<std::size_t>(got);
  }
  content.resize(used);
  return content;
}

/// Whether `file` still names the file `info` describes. A start that moved it aside (renamed,
/// so it keeps its link) between our open and our lock has already counted its records: bytes
/// appended there now would be removed with it, unsent.
bool stillAt(const std::filesystem::path& file, const struct stat& info) noexcept {
  struct stat atPath {};
  return ::lstat(file.c_str(), &atPath) == 0 && atPath.st_dev == info.st_dev &&
         atPath.st_ino == info.st_ino;
}

/// How often an open finds the file just removed or moved before giving up.
constexpr int kOpenAttempts = 8;

}  // namespace

bool appendPrivate(const std::filesystem::path& file, std::string_view bytes) noexcept {
  try {
    std::lock_guard turn(turnsInProcess());
    // A file removed or moved aside between our open and our lock would take the bytes with it:
    // open the path afresh, which then creates the next one.
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      Descriptor fd(openNoFollow(file, O_WRONLY | O_APPEND | O_CREAT, kPrivateMode));
      if (!fd) return false;
      struct stat info {};
      if (!isRegular(fd.get(), info)) return false;
      if (!lockAgainstOtherProcesses(fd.get())) return false;
      if (!isRegular(fd.get(), info)) return false;
      if (info.st_nlink == 0 || !stillAt(file, info)) continue;
      // A file someone else loosened (or created before us with a wider umask) is tightened.
      if ((info.st_mode & 07777) != kPrivateMode) (void)::fchmod(fd.get(), kPrivateMode);
      const off_t oldSize = info.st_size;
      if (!writeAll(fd.get(), bytes)) {
        // A half-written frame in the middle of the file would make every later frame
        // unreadable; cutting back to the old length keeps the file a sequence of whole frames.
        // The lock keeps other appenders' frames out of what is cut.
        (void)::ftruncate(fd.get(), oldSize);
        return false;
      }
      return fd.close();  // closing releases the lock
    }
    return false;
  } catch (...) {
    return false;  // the mutex could not be taken
  }
}

namespace {

/// Opens the existing regular file and runs `use(fd, info)` once its turn has come (appends of
/// this process and of others wait meanwhile). False when the file is missing, not a regular
/// file, or its turn did not come in time.
template <class Use>
bool withTurnOnExisting(const std::filesystem::path& file, Use&& use) {
  std::lock_guard turn(turnsInProcess());
  for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
    // A write lock needs a descriptor open for writing; a file we may only read is still read.
    Descriptor fd(openNoFollow(file, O_RDWR));
    if (!fd && errno == EACCES) fd.reset(openNoFollow(file, O_RDONLY));
    if (!fd) return false;
    struct stat info {};
    if (!isRegular(fd.get(), info)) return false;
    if (!lockAgainstOtherProcesses(fd.get())) return false;
    if (!isRegular(fd.get(), info)) return false;
    if (info.st_nlink == 0) continue;  // removed meanwhile; look again
    return use(fd.get(), info);
  }
  return false;
}

}  // namespace

bool moveAside(const std::filesystem::path& from, const std::filesystem::path& to) noexcept {
  try {
    // Under the lock: an append under way has finished, and later ones find the name free.
    return withTurnOnExisting(
        from, [&](int, const struct stat&) { return ::rename(from.c_str(), to.c_str()) == 0; });
  } catch (...) {
    return false;
  }
}

bool writeAtStart(const std::filesystem::path& file, std::string_view bytes) noexcept {
  Descriptor fd(openNoFollow(file, O_WRONLY | O_CREAT, kPrivateMode));
  if (!fd) return false;
  struct stat info {};
  if (!isRegular(fd.get(), info)) return false;
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::pwrite(fd.get(), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return fd.close();
}

struct RewrittenFile::Handle {
  int fd = -1;
};

RewrittenFile::RewrittenFile() : handle_(std::make_unique<Handle>()) {}
RewrittenFile::~RewrittenFile() {
  close();
}

void RewrittenFile::close() noexcept {
  if (handle_->fd >= 0) ::close(handle_->fd);
  handle_->fd = -1;
}

bool RewrittenFile::writeAtStart(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept {
  if (handle_->fd < 0) {
    Descriptor fd(openNoFollow(file, O_WRONLY | O_CREAT, kPrivateMode));
    struct stat info {};
    if (!fd || !isRegular(fd.get(), info)) return false;
    handle_->fd = fd.release();
  }
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n =
        ::pwrite(handle_->fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      close();  // opened afresh next time
      return false;
    }
    done += static_cast<std::size_t>(n);
  }
  return true;
}

std::optional<std::uint64_t> regularFileSize(const std::filesystem::path& file) noexcept {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return static_cast<std::uint64_t>(info.st_size);
}

std::optional<std::string> somethingElseAt(const std::filesystem::path& file) noexcept {
  struct stat info {};
  if (::lstat(file.c_str(), &info) != 0 || S_ISREG(info.st_mode)) return std::nullopt;
  try {
    if (S_ISDIR(info.st_mode)) return "a directory";
    if (S_ISLNK(info.st_mode)) return "a symbolic link";
    if (S_ISFIFO(info.st_mode)) return "a FIFO";
    if (S_ISSOCK(info.st_mode)) return "a socket";
    if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) return "a device";
    return "no regular file";
  } catch (...) {
    return std::nullopt;
  }
}

bool cutRegularFile(const std::filesystem::path& file, std::uint64_t size) noexcept {
  Descriptor fd(openNoFollow(file, O_WRONLY));
  struct stat info {};
  if (!fd || !isRegular(fd.get(), info) || static_cast<std::uint64_t>(info.st_size) < size) {
    return false;
  }
  return ::ftruncate(fd.get(), static_cast<off_t>(size)) == 0;
}

struct ReadableFile::Handle {
  int fd = -1;
  std::uint64_t size = 0;
};

ReadableFile::ReadableFile() : handle_(std::make_unique<Handle>()) {}
ReadableFile::~ReadableFile() {
  close();
}

bool ReadableFile::open(const std::filesystem::path& file) noexcept {
  close();
  const int fd = openNoFollow(file, O_RDONLY);
  if (fd < 0) return false;
  struct stat info {};
  if (!isRegular(fd, info)) {
    ::close(fd);
    return false;
  }
  handle_->fd = fd;
  handle_->size = static_cast<std::uint64_t>(info.st_size);
  return true;
}

void ReadableFile::close() noexcept {
  if (handle_ && handle_->fd >= 0) ::close(handle_->fd);
  if (handle_) handle_->fd = -1;
}

bool ReadableFile::isOpen() const noexcept {
  return handle_->fd >= 0;
}

std::uint64_t ReadableFile::size() const noexcept {
  return handle_->size;
}

std::int64_t ReadableFile::readAt(std::uint64_t offset, char* into, std::size_t count) noexcept {
  for (;;) {
    const ssize_t n = ::pread(handle_->fd, into, count, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    return n;
  }
}

struct ProcessLock::Handle {
  int fd = -1;
};

ProcessLock::ProcessLock() : handle_(std::make_unique<Handle>()) {}
ProcessLock::~ProcessLock() {
  unlock();
}

void ProcessLock::unlock() noexcept {
  if (handle_->fd >= 0) ::close(handle_->fd);  // closing releases the lock
  handle_->fd = -1;
}

bool ProcessLock::tryLock(const std::filesystem::path& file) noexcept {
  if (handle_->fd >= 0) return true;
  Descriptor fd(openNoFollow(file, O_RDWR | O_CREAT, kPrivateMode));
  struct stat info {};
  if (!fd || !isRegular(fd.get(), info)) return false;
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  for (;;) {
    if (::fcntl(fd.get(), F_SETLK, &whole) == 0) break;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EACCES) return false;  // another process owns it
    break;  // a filesystem without locks: this process goes on as the owner
  }
  handle_->fd = fd.release();
  return true;
}

std::optional<std::string> readWhole(const std::filesystem::path& file) noexcept {
  try {
    Descriptor fd(openNoFollow(file, O_RDONLY));
    if (!fd) return std::nullopt;
    struct stat info {};
    if (!isRegular(fd.get(), info)) return std::nullopt;
    return readAll(fd.get(), info);
  } catch (...) {
    return std::nullopt;
  }
}

bool removeFile(const std::filesystem::path& file) noexcept {
  return ::unlink(file.c_str()) == 0 || errno == ENOENT;
}

bool writeWholePrivateAtomically(const std::filesystem::path& file,
                                 std::string_view bytes) noexcept {
  try {
    std::string temporary = file.string() + ".XXXXXX";
    // mkostemp creates the file exclusively with mode 0600.
    Descriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd) return false;
    const bool written = writeAll(fd.get(), bytes) && ::fsync(fd.get()) == 0 && fd.close();
    if (!written || ::rename(temporary.c_str(), file.c_str()) != 0) {
      ::unlink(temporary.c_str());
      return false;
    }
    // The rename itself only survives a power cut once the directory is on disk too.
    std::filesystem::path directory = file.parent_path();
    if (directory.empty()) directory = ".";
    Descriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir) (void)::fsync(dir.get());
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace zelvanor::platform
