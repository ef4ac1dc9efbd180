#include "queue/record_transport.hpp"

#include "zelvanor/json.hpp"

namespace zelvanor::detail {

OutgoingRecord OutgoingRecord::restored(std::string json) {
  OutgoingRecord outgoing(RecordPtr{});
  outgoing.json_ = std::make_shared<const std::string>(std::move(json));
  return outgoing;
}

Result<std::string> OutgoingRecord::json() const {
  if (json_) return *json_;
  if (!record_) return CodecError{CodecError::Kind::invalidValue, "", "no record"};
  return encodeJson(*record_);
}

std::optional<ZLogRecord> OutgoingRecord::decoded() const {
  if (record_) return *record_;
  if (!json_) return std::nullopt;
  auto decoded = decodeJson<ZLogRecord>(*json_);
  if (!decoded) return std::nullopt;
  return std::move(decoded).value();
}

}  // namespace zelvanor::detail
