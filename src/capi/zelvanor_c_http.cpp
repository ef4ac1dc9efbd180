// The C form of a host's own HTTP client: each request becomes an exchange the host answers
// once, from any thread.
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zelvanor/tracker.hpp"
#include "zelvanor/zelvanor.h"

struct zelvanor_http_exchange {
  zelvanor::ZHttpRequest request;
  std::vector<std::string> headerLines;
  std::vector<const char*> headerPointers;
  zelvanor_http_request view{};
  std::function<void(zelvanor::ZHttpResult)> done;
};

namespace {

using namespace zelvanor;

class CHttpClient final : public ZHttpClient {
 public:
  CHttpClient(zelvanor_http_send send, void* userData) : send_(send), userData_(userData) {}

  void send(ZHttpRequest request, std::function<void(ZHttpResult)> done) override {
    auto exchange = std::make_unique<zelvanor_http_exchange>();
    exchange->request = std::move(request);
    exchange->done = std::move(done);
    for (const auto& [name, value] : exchange->request.headers) {
      std::string line = name;
      line.append(": ").append(value);
      exchange->headerLines.push_back(std::move(line));
    }
    for (const auto& line : exchange->headerLines) exchange->headerPointers.push_back(line.c_str());
    const ZHttpRequest& held = exchange->request;
    exchange->view = zelvanor_http_request{held.method.c_str(),
                                           held.url.c_str(),
                                           exchange->headerPointers.data(),
                                           exchange->headerPointers.size(),
                                           held.body->data(),
                                           held.body->size(),
                                           held.timeoutSeconds};
    // From here the host owns the exchange; answering it frees it.
    zelvanor_http_exchange* raw = exchange.release();
    send_(&raw->view, raw, userData_);
  }

 private:
  zelvanor_http_send send_;
  void* userData_;
};

/// Ends an exchange with its outcome; a throwing callback is the SDK's own and is contained.
void finish(zelvanor_http_exchange* exchange, ZHttpResult result) noexcept {
  if (exchange == nullptr) return;
  const std::unique_ptr<zelvanor_http_exchange> owned(exchange);
  try {
    owned->done(std::move(result));
  } catch (...) {
  }
}

}  // namespace

extern "C" {

void zelvanor_set_http_client(zelvanor_http_send send, void* user_data) {
  try {
    ZelvanorTracker::setHttpClient(send ? std::make_shared<CHttpClient>(send, user_data)
                                        : std::shared_ptr<ZHttpClient>());
  } catch (...) {
  }
}

void zelvanor_http_answer(zelvanor_http_exchange* exchange, int status, const char* const* headers,
                          size_t header_count, const char* body, size_t body_length) {
  try {
    ZHttpResponse response;
    response.status = status;
    for (size_t i = 0; headers != nullptr && i < header_count; ++i) {
      if (headers[i] == nullptr) continue;
      const std::string_view line(headers[i]);
      const auto colon = line.find(':');
      if (colon == std::string_view::npos) continue;
      std::string_view value = line.substr(colon + 1);
      while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) {
        value.remove_prefix(1);
      }
      response.headers.emplace_back(std::string(line.substr(0, colon)), std::string(value));
    }
    if (body != nullptr) response.body.assign(body, body_length);
    finish(exchange, std::move(response));
  } catch (...) {
    finish(exchange, ZHttpFailure{"the answer could not be read"});
  }
}

void zelvanor_http_fail(zelvanor_http_exchange* exchange, const char* description, int tls) {
  try {
    finish(exchange, ZHttpFailure{description ? description : "failed", tls != 0});
  } catch (...) {
    finish(exchange, ZHttpFailure{"failed"});
  }
}

}  // extern "C"
