#include "network/http_api.hpp"

#include "network/endpoints.hpp"
#include "support/console_log.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

RequestSettings RequestSettings::current() noexcept {
  return RequestSettings{settings().usingSandbox.load(), settings().requestTimeout.load()};
}

std::optional<std::string> ZHttpApi::endpoint(const RequestSettings& taken) const {
  const ZEndpoints endpoints = currentEndpoints();
  if (!std::holds_alternative<std::monostate>(intent_)) {
    return joinHttpsUrl(taken.sandbox ? endpoints.sandbox : endpoints.production, "/sdk/track");
  }
  return joinHttpsUrl(endpoints.identitySync, "/sync?v=1");
}

std::optional<network::HttpRequest> ZHttpApi::urlRequest(const RequestSettings& taken) const {
  auto url = endpoint(taken);
  if (!url) return std::nullopt;
  network::HttpRequest request;
  request.url = std::move(*url);
  request.timeoutSeconds = taken.timeoutSeconds;
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
