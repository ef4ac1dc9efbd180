// A child process whose standard output is read for the words it says once it got somewhere, so
// that a kill lands while it works and not while a sanitizer runtime or a slow machine is still
// starting it; then it is killed with SIGKILL, or awaited. The child is a host program, or a
// function run in a fork, such as another process of the app holding one of the store's files
// locked.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace zelvanor::testing {

class ChildHost {
 public:
  /// Runs `body` in a fork; it may only make async-signal-safe calls (the test may have threads,
  /// and an allocation or a lock another thread held at the fork hangs it).
  template <typename Body>
  explicit ChildHost(Body body) {
    int out[2];
    if (::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::close(out[0]);
      ::close(out[1]);
      body();
      ::_exit(127);
    }
    ::close(out[1]);
    out_ = out[0];
  }
  /// Runs the program `argv[0]`; the arguments are built before the fork.
  explicit ChildHost(std::vector<std::string> argv)
      : ChildHost([args = pointers(argv)] { ::execv(args[0], args.data()); }) {}
  ~ChildHost() {
    if (pid_ > 0) kill();
  }
  ChildHost(const ChildHost&) = delete;
  ChildHost& operator=(const ChildHost&) = delete;

  /// Waits up to 30 s for the child to print `word`.
  bool said(const std::string& word) {
    while (heard_.find(word) == std::string::npos) {
      pollfd readiness{.fd = out_, .events = POLLIN, .revents = 0};
      char buffer[64];
      if (::poll(&readiness, 1, 30000) != 1) return false;
      const ssize_t got = ::read(out_, buffer, sizeof buffer);
      if (got <= 0) return false;
      heard_.append(buffer, static_cast<std::size_t>(got));
    }
    return true;
  }
  /// kill -9; true when that is what ended it.
  bool kill() {
    ::kill(pid_, SIGKILL);
    const int status = wait();
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  }
  /// Waits for the child to end; its wait status (-1 when it could not be reaped).
  int wait() {
    int status = 0;
    const bool reaped = pid_ > 0 && ::waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    // Open until now, so that nothing the child prints can end it with SIGPIPE instead.
    if (out_ >= 0) ::close(out_);
    out_ = -1;
    return reaped ? status : -1;
  }

 private:
  static std::vector<char*> pointers(std::vector<std::string>& argv) {
    std::vector<char*> args;
    for (auto& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    return args;
  }
  pid_t pid_ = -1;
  int out_ = -1;
  std::string heard_;
};

/// Another process of the app holding `file` locked (a whole-file record lock), as a process that
/// is still starting or shutting down does, until killed or for 30 s at most; it says "held".
inline ChildHost lockHeldByChild(const std::filesystem::path& file) {
  return ChildHost([path = file.string()] {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0600);
    // lockf is an fcntl record lock from the offset (0) to the end and beyond: the whole file.
    if (fd < 0 || ::lockf(fd, F_TLOCK, 0) != 0) return;
    (void)!::write(STDOUT_FILENO, "held\n", 5);
    ::sleep(30);
  });
}

}  // namespace zelvanor::testing
