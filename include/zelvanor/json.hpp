// JSON text for every block, record and envelope. Nothing here throws: failures come back as a
// CodecError naming the key path.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "zelvanor/blocks.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/export.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/record.hpp"
#include "zelvanor/result.hpp"

namespace zelvanor {

enum class JsonStyle {
  compact,  ///< no white space: what goes on the wire and into the pending file
  pretty,   ///< two-space indentation, for people
};

/// Encodes a value. Fails (invalidValue) only for a non-finite number or a string that is not
/// valid UTF-8.
template <class T>
ZELVANOR_API Result<std::string> encodeJson(const T& value, JsonStyle style = JsonStyle::compact);

/// Decodes a value: required keys must be present and non-null, every present value must have
/// the member's JSON type, null in an optional member means absent, unknown keys are ignored.
template <class T>
ZELVANOR_API Result<T> decodeJson(std::string_view json);

// The types these two serve. Blocks and records use the collector's keys; ZConfiguration uses its
// member names ("timeout", "batchSize", "usingSandboxEnvironment"), all three required.
// Laid out by hand: clang-format gives this list a new layout on every run.
// clang-format off
#define ZELVANOR_CODABLE_TYPES(X)                                                           \
  X(ZConfiguration) X(ZSDK) X(ZCommon) X(ZAgent) X(ZId) X(ZAgreement) X(ZApp) X(ZUtm)       \
  X(ZBucket) X(ZPage) X(ZClick) X(ZUsage) X(ZLocation) X(ZPromotion)                        \
  X(ZViewImpressionContent) X(ZStatus) X(ZSearch) X(ZPurchase) X(ZChat) X(ZVideoMeeting)    \
  X(ZDomain) X(ZAction) X(ZXid) X(ZUcid) X(ZLogRecord) X(ZLogTemplate)
// clang-format on
#define ZELVANOR_ENCODE_ONLY_TYPES(X)
#define ZELVANOR_DECODE_ONLY_TYPES(X) \
  X(ZHTTPResponseStatus)              \
  X(ZHTTPResultEmpty) X(ZHTTPResult<ZHTTPResultEmpty>) X(ZHTTPResult<std::vector<ZXid>>)

#define ZELVANOR_DECLARE_ENCODE(T) \
  extern template ZELVANOR_API Result<std::string> encodeJson<T>(const T&, JsonStyle);
#define ZELVANOR_DECLARE_DECODE(T) \
  extern template ZELVANOR_API Result<T> decodeJson<T>(std::string_view);
ZELVANOR_CODABLE_TYPES(ZELVANOR_DECLARE_ENCODE)
ZELVANOR_CODABLE_TYPES(ZELVANOR_DECLARE_DECODE)
ZELVANOR_ENCODE_ONLY_TYPES(ZELVANOR_DECLARE_ENCODE)
ZELVANOR_DECODE_ONLY_TYPES(ZELVANOR_DECLARE_DECODE)
#undef ZELVANOR_DECLARE_ENCODE
#undef ZELVANOR_DECLARE_DECODE

}  // namespace zelvanor
