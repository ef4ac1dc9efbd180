#include "network/http_api.hpp"

#include "network/endpoints.hpp"
#include "support/console_log.hpp"
#include "support/settings.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::detail {

RequestSettings RequestSettings::current() noexcept {
  return RequestSettings{settings().usingSandbox.load(), settings().requestTimeout.load()};
}

std::string ZHttpApi::endpoint(const RequestSettings& taken) const {
  return endpoint(taken, *currentRequestUrls());
}

std::string ZHttpApi::endpoint(const RequestSettings& taken, const RequestUrls& urls) const {
  if (!std::holds_alternative<std::monostate>(intent_)) {
    return taken.sandbox ? urls.sandboxTrack : urls.track;
  }
  return urls.identitySync;
}

network::HttpRequest ZHttpApi::urlRequest(const RequestSettings& taken) const {
  const auto urls = currentRequestUrls();
  network::HttpRequest request;
  request.url = endpoint(taken, *urls);
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
  // The host's own headers go after the SDK's, which they can never replace (checked when set).
  request.headers.insert(request.headers.end(), urls->headers.begin(), urls->headers.end());
  return request;
}

}  // namespace zelvanor::detail
