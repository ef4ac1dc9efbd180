#include "network/http_api.hpp"

#include "api/console_log.hpp"
#include "api/settings.hpp"
#include "network/endpoints.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

std::optional<std::string> ZHttpApi::endpoint() const {
  const ZEndpoints endpoints = currentEndpoints();
  if (!std::holds_alternative<std::monostate>(intent_)) {
    const bool sandbox = settings().usingSandbox.load();
    return joinHttpsUrl(sandbox ? endpoints.sandbox : endpoints.production, "/sdk/track");
  }
  return joinHttpsUrl(endpoints.identitySync, "/sync?v=1");
}

std::optional<network::HttpRequest> ZHttpApi::urlRequest() const {
  auto url = endpoint();
  if (!url) return std::nullopt;
  network::HttpRequest request;
  request.url = std::move(*url);
  request.timeoutSeconds = settings().requestTimeout.load();
  if (const auto* log = std::get_if<RecordPtr>(&intent_)) {
    request.method = "POST";
    request.headers.emplace_back("Content-Type", "application/json");
    auto body = encodeJson(**log);
    if (body) {
      request.body = std::move(body).value();
    } else {
      // The source name and line are what developers search the console for; keep them stable.
      logError("Fail to encode logRecord", "Shared/Network/ZHttpApi", "urlRequest", 59);
    }
  } else if (const auto* encoded = std::get_if<EncodedRecord>(&intent_)) {
    request.method = "POST";
    request.headers.emplace_back("Content-Type", "application/json");
    request.body = encoded->json;
  } else {
    request.method = "GET";
  }
  return request;
}

}  // namespace zelvanor::detail
