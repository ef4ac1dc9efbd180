// A small HTTP CONNECT proxy on 127.0.0.1 for tests: it opens each tunnel the client asks for and
// relays bytes both ways, and records the CONNECT lines and the credentials it was given, so a
// test can tell that a request really went through it.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zelvanor::testing {

class ConnectProxy {
 public:
  ConnectProxy();
  ~ConnectProxy();
  ConnectProxy(const ConnectProxy&) = delete;
  ConnectProxy& operator=(const ConnectProxy&) = delete;

  int port() const { return port_; }
  struct Tunnel {
    std::string target;         ///< "host:port" of the CONNECT line
    std::string authorization;  ///< the Proxy-Authorization value, empty without one
  };
  std::vector<Tunnel> tunnels() const;

 private:
  void acceptLoop();
  void relay(int client);

  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::vector<Tunnel> tunnels_;
  std::vector<std::thread> relays_;  ///< guarded by mutex_
  std::thread acceptor_;
};

}  // namespace zelvanor::testing
