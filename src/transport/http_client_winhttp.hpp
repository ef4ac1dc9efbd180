// The SDK's own HTTP client on Windows: the system's WinHTTP, so the system's proxy settings,
// certificate store and TLS stack apply. WinHTTP is called synchronously on a few threads of the
// client's own (started as requests need them), which keeps cancellation and handle lifetimes
// simple; one session handle carries every request, so connections are reused.
#pragma once

#include <memory>

#include "transport/system_http_client.hpp"
#include "zelvanor/http_client.hpp"

namespace zelvanor::network {

class WinHttpClient final : public ZHttpClient {
 public:
  using Options = SystemHttpClientOptions;

  /// Requests exchanged at the same time; more wait for a free thread.
  static constexpr int kMaxThreads = 4;

  explicit WinHttpClient(Options options);
  ~WinHttpClient() override;
  WinHttpClient(const WinHttpClient&) = delete;
  WinHttpClient& operator=(const WinHttpClient&) = delete;

  /// Any thread; `done` runs on one of the client's threads (or at once, when the client has
  /// no session).
  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override;
  /// Closes every request under way and drops the waiting ones; each is answered once with a
  /// failure.
  void cancelAll() override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zelvanor::network
