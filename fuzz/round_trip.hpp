// The properties both fuzzers and the corpus replay test check. Each returns an empty string
// when the input keeps every rule, else a sentence saying which rule broke.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "model/field_tables.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor::fuzzing {

/// What a value looks like once it has been through JSON: members that are read but never
/// written are gone. Only the record's two such members need clearing; other types keep all.
template <class T>
T asWritten(T value) {
  return value;
}
template <>
inline ZLogRecord asWritten(ZLogRecord record) {
  if (record.agreement) record.agreement->thirdAdAgree.reset();
  if (record.domain && record.domain->videoMeeting) {
    record.domain->videoMeeting->speechRequest.reset();
  }
  return record;
}

/// Anything may be rejected; what decodes must encode, read back as the same value (less the
/// members that are never written), and encode to the same text again, compact and pretty.
template <class T>
std::string checkRoundTrip(std::string_view input) {
  auto first = decodeJson<T>(input);
  if (!first) return {};
  const T expected = asWritten(*first);
  for (JsonStyle style : {JsonStyle::compact, JsonStyle::pretty}) {
    auto encoded = encodeJson(*first, style);
    if (!encoded) return "a decoded value did not encode: " + encoded.error().describe();
    auto second = decodeJson<T>(*encoded);
    if (!second) {
      return "the encoder's output did not decode: " + second.error().describe() + "\n" + *encoded;
    }
    if (!(*second == expected)) return "the value changed through a round trip:\n" + *encoded;
    auto again = encodeJson(*second, style);
    if (!again || *again != *encoded) {
      return "re-encoding gave different text:\n" + *encoded + "\n" + (again ? *again : "");
    }
  }
  return {};
}

inline std::string checkRecord(std::string_view input) {
  return checkRoundTrip<ZLogRecord>(input);
}

template <class T>
bool decodesTheSameTwice(std::string_view input) {
  auto first = decodeJson<T>(input);
  auto second = decodeJson<T>(input);
  if (first.ok() != second.ok()) return false;
  if (first) return *first == *second;
  return first.error().kind == second.error().kind && first.error().path == second.error().path;
}

/// The envelope types decode only, so the checks are that decoding is repeatable (the parser is
/// reused between calls) and that a decoded identity triple survives its own round trip.
inline std::string checkEnvelope(std::string_view input) {
  if (!decodesTheSameTwice<ZHTTPResult<std::vector<ZXid>>>(input) ||
      !decodesTheSameTwice<ZHTTPResult<ZHTTPResultEmpty>>(input) ||
      !decodesTheSameTwice<ZHTTPResponseStatus>(input)) {
    return "decoding the same text twice gave different results";
  }
  auto sync = decodeJson<ZHTTPResult<std::vector<ZXid>>>(input);
  if (sync && sync->data) {
    for (const ZXid& xid : *sync->data) {
      auto text = encodeJson(xid);
      if (!text) return "a decoded triple did not encode: " + text.error().describe();
      auto back = decodeJson<ZXid>(*text);
      if (!back || !(*back == xid)) return "a decoded triple changed through a round trip";
    }
  }
  return {};
}

}  // namespace zelvanor::fuzzing
