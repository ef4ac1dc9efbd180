// The public encode/decode entry points, instantiated for every type the SDK puts on the wire.
#include <new>

#include "model/field_tables.hpp"
#include "model/json_parsers.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {

const char* toString(CodecError::Kind kind) noexcept {
  switch (kind) {
    case CodecError::Kind::keyNotFound:
      return "key not found";
    case CodecError::Kind::valueNotFound:
      return "value not found";
    case CodecError::Kind::typeMismatch:
      return "type mismatch";
    case CodecError::Kind::dataCorrupted:
      return "data corrupted";
    case CodecError::Kind::invalidValue:
      return "invalid value";
  }
  return "unknown";
}

std::string CodecError::describe() const {
  std::string text = toString(kind);
  if (!path.empty()) text += " at " + path;
  if (!detail.empty()) text += ": " + detail;
  return text;
}

template <class T>
Result<std::string> encodeJson(const T& value, JsonStyle style) {
  try {
    std::string out;
    // A typical record is 1.5 to 2 KB; one allocation up front beats three while it grows.
    out.reserve(2048);
    detail::JsonWriter writer(out, style == JsonStyle::pretty);
    CodecError error;
    if (!detail::encodeValue(writer, value, error)) return error;
    return out;
  } catch (const std::bad_alloc&) {
    return CodecError{CodecError::Kind::invalidValue, "", "out of memory"};
  }
}

template <class T>
Result<T> decodeJson(std::string_view json) {
  // Decoded in place and returned through one variable, so the compiler builds it in the
  // caller's Result: anything else moves the whole decoded value at least once.
  Result<T> decoded{T{}};
  try {
    // A borrowed parser keeps its buffers between calls.
    detail::BorrowedParser parser;
    simdjson::dom::element root;
    const auto parsed = parser.get().parse(json.data(), json.size(), true).get(root);
    CodecError error;
    if (parsed != simdjson::SUCCESS) {
      decoded = CodecError{CodecError::Kind::dataCorrupted, "", simdjson::error_message(parsed)};
    } else if (!detail::decodeValue(root, decoded.value(), error)) {
      decoded = std::move(error);
    }
  } catch (const std::bad_alloc&) {
    decoded = CodecError{CodecError::Kind::dataCorrupted, "", "out of memory"};
  }
  return decoded;
}

#define ZELVANOR_INSTANTIATE_ENCODE(T) \
  template ZELVANOR_API Result<std::string> encodeJson<T>(const T&, JsonStyle);
#define ZELVANOR_INSTANTIATE_DECODE(T) \
  template ZELVANOR_API Result<T> decodeJson<T>(std::string_view);
ZELVANOR_CODABLE_TYPES(ZELVANOR_INSTANTIATE_ENCODE)
ZELVANOR_CODABLE_TYPES(ZELVANOR_INSTANTIATE_DECODE)
ZELVANOR_ENCODE_ONLY_TYPES(ZELVANOR_INSTANTIATE_ENCODE)
ZELVANOR_DECODE_ONLY_TYPES(ZELVANOR_INSTANTIATE_DECODE)

}  // namespace zelvanor

namespace zelvanor::detail {

void prependKey(CodecError& error, std::string_view key) {
  if (error.path.empty()) {
    error.path.assign(key);
  } else if (error.path.front() == '[') {
    error.path.insert(0, key);
  } else {
    error.path.insert(0, 1, '.');
    error.path.insert(0, key);
  }
}

void prependIndex(CodecError& error, std::size_t index) {
  std::string prefix = "[";
  prefix.append(std::to_string(index));
  prefix.push_back(']');
  if (!error.path.empty() && error.path.front() != '[') prefix.push_back('.');
  error.path.insert(0, prefix);
}

bool fail(CodecError& error, CodecError::Kind kind, std::string_view detail) {
  error.kind = kind;
  error.detail.assign(detail);
  return false;
}

bool typeMismatch(CodecError& error, std::string_view expected) {
  std::string detail = "expected ";
  detail.append(expected);
  return fail(error, CodecError::Kind::typeMismatch, detail);
}

bool notADeploymentType(CodecError& error, std::string_view text) {
  std::string detail = "\"";
  detail.append(text);
  detail.append("\" is not development or production");
  return fail(error, CodecError::Kind::dataCorrupted, detail);
}

void warmUpCodec() {
  // simdjson picks its implementation in a function-local static on first use; doing that now
  // makes it outlive exit hooks registered after this call.
  static_cast<void>(decodeJson<ZXid>(R"({"cid":"","did":"","sid":""})"));
  static_cast<void>(encodeJson(ZXid{}));
}

}  // namespace zelvanor::detail
