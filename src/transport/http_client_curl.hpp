// The SDK's own HTTP client: libcurl's multi interface, driven by the SDK's worker while it has
// nothing else to do (it is the worker's idle wait), so requests, answers and the rest of the
// SDK's work share one thread. Requests run concurrently and reuse connections.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "support/serial_queue.hpp"
#include "transport/system_http_client.hpp"
#include "zelvanor/http_client.hpp"

namespace zelvanor::network {

class CurlHttpClient final : public ZHttpClient, public support::IdleWait {
 public:
  /// The proxy a request takes: absent, the environment's settings apply; empty, no proxy at
  /// all; else the proxy's URL (http, https, socks5, socks5h), used for every host.
  using ProxyChoice = SystemHttpClientOptions::ProxyChoice;
  using Options = SystemHttpClientOptions;

  /// Connections kept to one host; requests beyond them wait for a free one.
  static constexpr long kMaxConnectionsPerHost = 8;

  /// A client that runs on `loop`'s worker: it becomes the loop's idle wait.
  static std::shared_ptr<CurlHttpClient> startOn(support::SerialQueue& loop, Options options);

  explicit CurlHttpClient(Options options);
  ~CurlHttpClient() override;
  CurlHttpClient(const CurlHttpClient&) = delete;
  CurlHttpClient& operator=(const CurlHttpClient&) = delete;

  /// Any thread; the transfer starts on the loop's worker, where `done` runs too (or at once on
  /// the caller's thread once the loop has ended).
  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override;
  void cancelAll() override;

  void waitUntil(std::optional<std::chrono::steady_clock::time_point> deadline) override;
  void wake() noexcept override;
  void ended() noexcept override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zelvanor::network
