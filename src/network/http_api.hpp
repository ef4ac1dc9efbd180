// Turns an intent (send one record, ask for the identity triple) into a ready HTTP request.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "network/endpoints.hpp"
#include "queue/record_transport.hpp"
#include "transport/http_client.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::detail {

/// The process-wide settings a request reads as it is built, taken together.
struct RequestSettings {
  bool sandbox = false;
  double timeoutSeconds = 5.0;
  static RequestSettings current() noexcept;
};

class ZHttpApi {
 public:
  /// POST "/sdk/track" with one record as compact JSON, to the production or sandbox collector.
  static ZHttpApi track(RecordPtr log) { return ZHttpApi(std::move(log)); }
  static ZHttpApi track(ZLogRecord log) {
    return track(std::make_shared<const ZLogRecord>(std::move(log)));
  }
  /// The same request for a record already encoded (a record is encoded once, when it is built:
  /// the same bytes wait in memory or on disk and go out in the request).
  static ZHttpApi trackEncoded(std::shared_ptr<const std::string> json) {
    return ZHttpApi(EncodedRecord{std::move(json)});
  }
  static ZHttpApi trackEncoded(std::string json) {
    return trackEncoded(std::make_shared<const std::string>(std::move(json)));
  }
  /// GET "/sync?v=1" on the identity sync server: no body, no extra header.
  static ZHttpApi idSync() { return ZHttpApi(std::monostate{}); }

  /// The URL text; reads the sandbox switch now. Always usable: the endpoints in force were
  /// joined and checked when they were set.
  std::string endpoint() const { return endpoint(RequestSettings::current()); }
  std::string endpoint(const RequestSettings& settings) const;
  std::string endpoint(const RequestSettings& settings, const RequestUrls& urls) const;
  /// The request with the configured timeout. A record that cannot be encoded logs the console
  /// line and the request goes without a body.
  network::HttpRequest urlRequest() const { return urlRequest(RequestSettings::current()); }
  /// The same with settings taken earlier: delivery takes them when the host hands a record
  /// over, so a sandbox switch or a new timeout applies from the next record tracked, however
  /// long earlier ones wait for a connection.
  network::HttpRequest urlRequest(const RequestSettings& settings) const;

 private:
  struct EncodedRecord {
    std::shared_ptr<const std::string> json;  ///< shared with the request: never copied
  };
  using Intent = std::variant<std::monostate, RecordPtr, EncodedRecord>;
  explicit ZHttpApi(Intent intent) : intent_(std::move(intent)) {}
  Intent intent_;
};

}  // namespace zelvanor::detail
