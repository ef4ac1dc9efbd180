#include "support/connect_proxy.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

namespace zelvanor::testing {

namespace {

bool sendAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

std::string headerValue(const std::string& head, const std::string& name) {
  const auto at = head.find("\r\n" + name + ":");
  if (at == std::string::npos) return {};
  auto start = head.find_first_not_of(' ', at + name.size() + 3);
  return head.substr(start, head.find("\r\n", start) - start);
}

}  // namespace

ConnectProxy::ConnectProxy() {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    return;
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ConnectProxy::~ConnectProxy() {
  stopping_ = true;
  ::shutdown(listener_, SHUT_RDWR);
  if (acceptor_.joinable()) acceptor_.join();
  ::close(listener_);
  std::vector<std::thread> relays;
  {
    std::lock_guard lock(mutex_);
    relays.swap(relays_);
  }
  for (auto& relay : relays) relay.join();
}

std::vector<ConnectProxy::Tunnel> ConnectProxy::tunnels() const {
  std::lock_guard lock(mutex_);
  return tunnels_;
}

void ConnectProxy::acceptLoop() {
  while (!stopping_) {
    const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) return;
    std::lock_guard lock(mutex_);
    relays_.emplace_back([this, client] { relay(client); });
  }
}

void ConnectProxy::relay(int client) {
  std::string head;
  char buffer[16384];
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192) {
    const ssize_t got = ::recv(client, buffer, sizeof buffer, 0);
    if (got <= 0) {
      ::close(client);
      return;
    }
    head.append(buffer, static_cast<std::size_t>(got));
  }
  // "CONNECT 127.0.0.1:PORT HTTP/1.1": only loopback targets, so no test ever leaves the machine.
  const std::string prefix = "CONNECT 127.0.0.1:";
  const int target = head.rfind(prefix, 0) == 0 ? std::atoi(head.c_str() + prefix.size()) : 0;
  const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(target));
  if (target <= 0 ||
      ::connect(upstream, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const char refusal[] = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";
    sendAll(client, refusal, sizeof refusal - 1);
    ::close(upstream);
    ::close(client);
    return;
  }
  {
    std::lock_guard lock(mutex_);
    tunnels_.push_back(
        Tunnel{"127.0.0.1:" + std::to_string(target), headerValue(head, "Proxy-Authorization")});
  }
  const char established[] = "HTTP/1.1 200 Connection established\r\n\r\n";
  sendAll(client, established, sizeof established - 1);
  // Bytes the client sent behind its CONNECT head belong to the tunnel.
  const std::size_t tail = head.find("\r\n\r\n") + 4;
  if (tail < head.size()) sendAll(upstream, head.data() + tail, head.size() - tail);
  pollfd fds[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
  while (!stopping_) {
    if (::poll(fds, 2, 100) < 0) break;
    bool closed = false;
    for (int i = 0; i < 2 && !closed; ++i) {
      if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t got = ::recv(fds[i].fd, buffer, sizeof buffer, 0);
      closed = got <= 0 || !sendAll(fds[1 - i].fd, buffer, static_cast<std::size_t>(got));
    }
    if (closed) break;
  }
  ::close(upstream);
  ::close(client);
}

}  // namespace zelvanor::testing
