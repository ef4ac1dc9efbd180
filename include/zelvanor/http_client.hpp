// The HTTP client the SDK sends through. The SDK brings its own (libcurl on Linux); a host whose
// platform has its own HTTP stack (a console, a TV, an app that already ships one) hands its own
// client to ZelvanorTracker::setHttpClient before the SDK starts.
//
// Whatever the client does, the SDK keeps its promises: a record stays on disk until a request
// for it is answered, a failure is tried again after a back-off, and "come back later" answers
// are honoured. The SDK itself keeps the cookies (it sends a Cookie header and reads every
// Set-Cookie of an answer) and reads Retry-After; the client only carries bytes.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "zelvanor/export.hpp"

namespace zelvanor {

using ZHttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct ZHttpRequest {
  std::string method;  ///< "GET" or "POST"
  std::string url;     ///< always https
  ZHttpHeaders headers;
  /// The body of a POST, shared with the SDK (never null; empty for a GET). Not to be changed.
  std::shared_ptr<const std::string> body;
  double timeoutSeconds = 60;  ///< the whole exchange, connecting included
};

struct ZHttpResponse {
  int status = 0;
  /// The answer's headers, at least every Set-Cookie (one entry each), Retry-After and Location.
  /// Names compare without regard to case.
  ZHttpHeaders headers;
  std::string body;
};

/// No answer came: no connection, a timeout, a reset, a TLS failure, or a cancellation.
struct ZHttpFailure {
  std::string description;
  bool tls = false;  ///< the certificate check or the TLS handshake failed
};

using ZHttpResult = std::variant<ZHttpResponse, ZHttpFailure>;

class ZELVANOR_API ZHttpClient {
 public:
  virtual ~ZHttpClient();
  /// Starts one request and returns without waiting for it. `done` is to be called once, from any
  /// thread (also from within send), with the answer or the failure. Redirects must not be
  /// followed: a 3xx is an answer like any other. Several requests may be under way at once.
  virtual void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) = 0;
  /// The SDK is shutting down: requests under way may be abandoned. The SDK counts any request
  /// not answered by now as cancelled (it is kept for the next start) and ignores a later answer,
  /// so a client may also do nothing here.
  virtual void cancelAll() {}
};

}  // namespace zelvanor
