// The envelope the identity sync server answers in.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zelvanor {

struct ZHTTPResponseStatus {
  std::string code{};
  std::string message{};  ///< travels under "msg"

  friend bool operator==(const ZHTTPResponseStatus&, const ZHTTPResponseStatus&) = default;
};

/// {"version": Int, "status": {...}, "data": T}; "data" may be absent or null.
template <class T>
struct ZHTTPResult {
  std::int64_t version = 0;
  ZHTTPResponseStatus status{};
  std::optional<T> data{};

  friend bool operator==(const ZHTTPResult&, const ZHTTPResult&) = default;
};

/// Payload type for an envelope whose data carries nothing of interest.
struct ZHTTPResultEmpty {
  friend bool operator==(const ZHTTPResultEmpty&, const ZHTTPResultEmpty&) = default;
};

}  // namespace zelvanor
