// What the SDK's delivery and identity sync send through: the HTTP client in use (the SDK's own
// libcurl client, or one the host supplies) with the SDK's cookie store, Retry-After reading and
// bookkeeping around it. Whatever the client does, every request gets exactly one outcome,
// handed over on the SDK's worker.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "support/serial_queue.hpp"
#include "transport/cookie_jar.hpp"
#include "zelvanor/http_client.hpp"

namespace zelvanor::network {

/// A request's body, shared with whoever else holds the same bytes (delivery keeps a record's
/// bytes for the pending file until it is answered), so handing it over copies nothing.
class RequestBody {
 public:
  RequestBody() = default;
  RequestBody(std::nullopt_t) {}  // NOLINT(google-explicit-constructor): reads as optional
  RequestBody(std::string text)   // NOLINT(google-explicit-constructor)
      : text_(std::make_shared<const std::string>(std::move(text))) {}
  RequestBody(std::optional<std::string> text) {  // NOLINT(google-explicit-constructor)
    if (text) text_ = std::make_shared<const std::string>(std::move(*text));
  }
  RequestBody(std::shared_ptr<const std::string> text)  // NOLINT(google-explicit-constructor)
      : text_(std::move(text)) {}

  explicit operator bool() const noexcept { return text_ != nullptr; }
  const std::string& operator*() const noexcept { return *text_; }
  const std::string* operator->() const noexcept { return text_.get(); }
  const std::shared_ptr<const std::string>& shared() const noexcept { return text_; }
  friend bool operator==(const RequestBody& body, std::string_view text) noexcept {
    return body.text_ && *body.text_ == text;
  }

 private:
  std::shared_ptr<const std::string> text_;
};

struct HttpRequest {
  std::string method;  ///< "GET" or "POST"
  std::string url;     ///< https only
  std::vector<std::pair<std::string, std::string>> headers;
  RequestBody body;
  double timeoutSeconds = 5.0;  ///< zero, negative or not finite: 60 s
};

struct HttpResponse {
  long status = 0;
  std::string body;
  std::optional<std::chrono::seconds> retryAfter;  ///< the answer's Retry-After, when it has one
  std::string redirectTo;  ///< where a redirect points (never followed); empty for other answers
};

struct TransportError {
  std::string description;
  bool tls = false;  ///< the TLS handshake or the certificate check failed
};

using HttpOutcome = std::variant<HttpResponse, TransportError>;

class HttpClient {
 public:
  /// The proxy a request takes: absent, the environment's settings apply; empty, no proxy at
  /// all; else the proxy's URL (http, https, socks5, socks5h), used for every host. Read as each
  /// request starts; the SDK's reads the endpoints in force.
  using ProxyChoice = std::function<std::optional<std::string>()>;

  struct Options {
    std::filesystem::path cookieJar;      ///< empty: cookies live in memory only
    std::optional<std::string> caBundle;  ///< extra trusted roots (PEM file)
  };

  /// Connections the SDK's own client keeps to one host; requests beyond them wait for one.
  static constexpr long kMaxConnectionsPerHost = 8;

  /// `transport` carries the requests; answers are handed over on `loop`'s worker.
  HttpClient(std::shared_ptr<ZHttpClient> transport, std::filesystem::path cookieJar,
             std::shared_ptr<support::SerialQueue> loop);
  /// The SDK's own client (libcurl or WinHTTP) on a worker of its own (tools and tests).
  explicit HttpClient(Options options, ProxyChoice proxy = {});
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  /// Starts a request. `done` runs exactly once: on the loop's worker (never from within this
  /// call), or at once on the caller's thread after shutdown.
  void send(HttpRequest request, std::function<void(HttpOutcome)> done);
  /// The cookies the store would send to `url` (domain, path, secure and expiry matched), in
  /// store order. Any thread.
  std::vector<Cookie> cookiesFor(const std::string& url);
  /// Forgets every cookie, in memory and in the jar file. Any thread.
  void clearCookies();
  /// Every request not answered yet gets a TransportError ("cancelled") on this thread before
  /// this returns, in the order they were sent; later answers are ignored. The cookie jar is
  /// saved. Idempotent.
  void shutdown();
  std::size_t inFlight() const;

 private:
  struct Core;
  std::shared_ptr<Core> core_;
  /// The worker of the SDK's own client when it runs apart from the SDK (tools and tests).
  std::shared_ptr<support::SerialQueue> ownLoop_;
};

}  // namespace zelvanor::network
