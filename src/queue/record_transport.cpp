#include "queue/record_transport.hpp"

#include "zelvanor/json.hpp"

namespace zelvanor::detail {

OutgoingRecord OutgoingRecord::restored(std::string json) {
  auto storage = std::make_shared<const std::string>(std::move(json));
  const std::string_view text = *storage;
  return restored(std::move(storage), text);
}

OutgoingRecord OutgoingRecord::restored(std::shared_ptr<const std::string> storage,
                                        std::string_view json) {
  OutgoingRecord outgoing(RecordPtr{});
  outgoing.storage_ = std::move(storage);
  outgoing.json_ = json;
  return outgoing;
}

Result<std::string> OutgoingRecord::json() const {
  if (storage_) return std::string(json_);
  if (!record_) return CodecError{CodecError::Kind::invalidValue, "", "no record"};
  return encodeJson(*record_);
}

std::optional<ZLogRecord> OutgoingRecord::decoded() const {
  if (record_) return *record_;
  if (!storage_) return std::nullopt;
  auto decoded = decodeJson<ZLogRecord>(json_);
  if (!decoded) return std::nullopt;
  return std::move(decoded).value();
}

}  // namespace zelvanor::detail
