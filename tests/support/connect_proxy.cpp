#include "support/connect_proxy.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

namespace zelvanor::testing {

namespace {

bool sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t sent = ::send(fd, data.data(), data.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
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
  sockaddr_in address = loopback(0);
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
  // The acceptor has ended: nothing adds to relays_ any more.
  for (auto& relay : relays_) relay.join();
}

std::vector<ConnectProxy::Tunnel> ConnectProxy::tunnels() const {
  std::lock_guard lock(mutex_);
  return tunnels_;
}

void ConnectProxy::acceptLoop() {
  for (int client;
       !stopping_ && (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    std::lock_guard lock(mutex_);
    relays_.emplace_back([this, client] { relay(client); });
  }
}

void ConnectProxy::relay(int client) {
  std::string head;
  char buffer[16384];
  ssize_t got = 1;
  while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192 &&
         (got = ::recv(client, buffer, sizeof buffer, 0)) > 0) {
    head.append(buffer, static_cast<std::size_t>(got));
  }
  // "CONNECT 127.0.0.1:PORT HTTP/1.1": only loopback targets, so no test ever leaves the machine.
  const std::string prefix = "CONNECT 127.0.0.1:";
  const int target =
      got > 0 && head.rfind(prefix, 0) == 0 ? std::atoi(head.c_str() + prefix.size()) : 0;
  const int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = loopback(target);
  if (target <= 0 ||
      ::connect(upstream, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    sendAll(client, "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
  } else {
    {
      std::lock_guard lock(mutex_);
      tunnels_.push_back(
          Tunnel{"127.0.0.1:" + std::to_string(target), headerValue(head, "Proxy-Authorization")});
    }
    sendAll(client, "HTTP/1.1 200 Connection established\r\n\r\n");
    // Bytes the client sent behind its CONNECT head belong to the tunnel.
    sendAll(upstream, std::string_view(head).substr(head.find("\r\n\r\n") + 4));
    pollfd fds[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
    for (bool open = true; open && !stopping_ && ::poll(fds, 2, 100) >= 0;) {
      for (int i = 0; i < 2 && open; ++i) {
        if (!(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
        got = ::recv(fds[i].fd, buffer, sizeof buffer, 0);
        open = got > 0 &&
               sendAll(fds[1 - i].fd, std::string_view(buffer, static_cast<std::size_t>(got)));
      }
    }
  }
  ::close(upstream);
  ::close(client);
}

}  // namespace zelvanor::testing
