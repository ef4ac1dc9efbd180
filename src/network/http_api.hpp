// Turns an intent (send one record, ask for the identity triple) into a ready HTTP request.
#pragma once

#include <optional>
#include <string>
#include <variant>

#include "network/http_client.hpp"
#include "queue/record_transport.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

class ZHttpApi {
 public:
  /// POST "/sdk/track" with one record as compact JSON, to the production or sandbox collector.
  static ZHttpApi track(RecordPtr log) { return ZHttpApi(std::move(log)); }
  static ZHttpApi track(ZLogRecord log) {
    return track(std::make_shared<const ZLogRecord>(std::move(log)));
  }
  /// GET "/sync?v=1" on the identity sync server: no body, no extra header.
  static ZHttpApi idSync() { return ZHttpApi(std::monostate{}); }

  /// The URL text; reads the sandbox switch now. Absent when it does not parse.
  std::optional<std::string> endpoint() const;
  /// The request with the configured timeout; absent only when the endpoint does not parse.
  /// A record that cannot be encoded logs the console line and the request goes without a body.
  std::optional<network::HttpRequest> urlRequest() const;

 private:
  explicit ZHttpApi(std::variant<std::monostate, RecordPtr> intent) : intent_(std::move(intent)) {}
  std::variant<std::monostate, RecordPtr> intent_;
};

}  // namespace zelvanor::detail
