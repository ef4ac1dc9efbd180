// POSIX file operations: no symlink is ever followed at the final path component, files are
// created 0600, and descriptors never leak into child processes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>

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

/// Appends and read-then-remove take turns: threads of this process through this mutex, other
/// processes through a record lock on the file.
std::mutex& turnsInProcess() {
  static std::mutex turns;
  return turns;
}

/// Waits for the other processes' turns. A record lock, unlike flock, is never inherited by a
/// forked child, so a child that keeps a copy of the descriptor cannot hold the parent up. On a
/// filesystem that has no locks this goes on without: a record kept unlocked beats one dropped.
void lockAgainstOtherProcesses(int fd) noexcept {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  while (::fcntl(fd, F_SETLKW, &whole) != 0 && errno == EINTR) {
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

/// How often an open finds the file just removed by a reader before giving up: each time means
/// another process read the pending file within those microseconds.
constexpr int kOpenAttempts = 8;

}  // namespace

bool appendPrivate(const std::filesystem::path& file, std::string_view bytes) noexcept {
  try {
    std::lock_guard turn(turnsInProcess());
    // A reader that removed the file between our open and our lock leaves us holding a file
    // nobody will read again: open the path afresh, which then creates the next one.
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      Descriptor fd(openNoFollow(file, O_WRONLY | O_APPEND | O_CREAT, kPrivateMode));
      if (!fd) return false;
      struct stat info {};
      if (!isRegular(fd.get(), info)) return false;
      lockAgainstOtherProcesses(fd.get());
      if (!isRegular(fd.get(), info)) return false;
      if (info.st_nlink == 0) continue;
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

bool consumeWhole(const std::filesystem::path& file,
                  const std::function<bool(std::string&& content)>& use) noexcept {
  try {
    std::lock_guard turn(turnsInProcess());
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
      // A write lock needs a descriptor open for writing; a file we may only read is still read.
      Descriptor fd(openNoFollow(file, O_RDWR));
      if (!fd && errno == EACCES) fd.reset(openNoFollow(file, O_RDONLY));
      if (!fd) return false;
      struct stat info {};
      if (!isRegular(fd.get(), info)) return false;
      lockAgainstOtherProcesses(fd.get());
      if (!isRegular(fd.get(), info)) return false;
      if (info.st_nlink == 0) continue;  // another process took it meanwhile; look again
      std::optional<std::string> content = readAll(fd.get(), info);
      if (!content) return false;
      // Still under the lock: nothing can be appended between the read and the removal.
      if (!use(std::move(*content))) return false;
      return removeFile(file);
    }
    return false;
  } catch (...) {
    return false;
  }
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
