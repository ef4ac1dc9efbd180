// Another process of the app holding one of the store's files locked, as a process that is still
// starting or shutting down does: a forked child takes a whole-file record lock and keeps it
// until released (or until its time is up).
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

namespace zelvanor::testing {

class LockHeldByChild {
 public:
  /// Holds `file`'s lock for at most `longest` (the child ends by itself: a test that fails part
  /// way leaves nothing behind).
  explicit LockHeldByChild(const std::filesystem::path& file,
                           std::chrono::milliseconds longest = std::chrono::seconds(30)) {
    // Built before the fork: the child only makes async-signal-safe calls.
    const std::string path = file.string();
    const int timeout = static_cast<int>(longest.count());
    int ready[2];
    int release[2];
    if (::pipe(ready) != 0) return;
    if (::pipe(release) != 0) {
      ::close(ready[0]);
      ::close(ready[1]);
      return;
    }
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(ready[0]);
      ::close(release[1]);
      const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
      struct flock whole {};
      whole.l_type = F_WRLCK;
      whole.l_whence = SEEK_SET;
      const char held = fd >= 0 && ::fcntl(fd, F_SETLK, &whole) == 0 ? 1 : 0;
      (void)!::write(ready[1], &held, 1);
      pollfd until{release[0], POLLIN, 0};
      (void)::poll(&until, 1, timeout);  // the parent's close, or the time is up
      ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    char held = 0;
    held_ = pid_ > 0 && ::read(ready[0], &held, 1) == 1 && held == 1;
    ::close(ready[0]);
    releaseFd_ = release[1];
  }
  ~LockHeldByChild() { release(); }
  LockHeldByChild(const LockHeldByChild&) = delete;
  LockHeldByChild& operator=(const LockHeldByChild&) = delete;

  bool held() const { return held_; }
  /// Lets go of the lock: the child ends, and with it the lock.
  void release() {
    if (releaseFd_ >= 0) ::close(releaseFd_);
    releaseFd_ = -1;
    if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int releaseFd_ = -1;
  bool held_ = false;
};

}  // namespace zelvanor::testing
