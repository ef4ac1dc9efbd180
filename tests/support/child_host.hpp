// A host program run as a child process: its standard output is read for the words it says once
// it got somewhere, so that a kill lands while it works and not while a sanitizer runtime or a
// slow machine is still starting it; then it is killed with SIGKILL, or awaited.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace zelvanor::testing {

class ChildHost {
 public:
  explicit ChildHost(std::vector<std::string> argv) : argv_(std::move(argv)) {
    // Built before the fork: the child of a threaded process may only make async-signal-safe
    // calls until exec, and an allocation or a lock another thread held at the fork hangs it.
    std::vector<char*> args;
    for (auto& arg : argv_) args.push_back(arg.data());
    args.push_back(nullptr);
    int out[2];
    if (::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::close(out[0]);
      ::close(out[1]);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(out[1]);
    out_ = out[0];
  }
  ~ChildHost() {
    if (pid_ > 0) kill();
  }
  ChildHost(const ChildHost&) = delete;
  ChildHost& operator=(const ChildHost&) = delete;

  /// Waits up to 30 s for the host to print `word`.
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
  /// Waits for the host to end; its wait status (-1 when it could not be reaped).
  int wait() {
    int status = 0;
    const bool reaped = pid_ > 0 && ::waitpid(pid_, &status, 0) == pid_;
    pid_ = -1;
    // Open until now, so that nothing the host prints can end it with SIGPIPE instead.
    if (out_ >= 0) ::close(out_);
    out_ = -1;
    return reaped ? status : -1;
  }

 private:
  std::vector<std::string> argv_;
  pid_t pid_ = -1;
  int out_ = -1;
  std::string heard_;
};

}  // namespace zelvanor::testing
