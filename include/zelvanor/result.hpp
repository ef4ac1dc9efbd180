// The error value that encoding and decoding return instead of throwing.
#pragma once

#include <string>
#include <utility>
#include <variant>

#include "zelvanor/export.hpp"

namespace zelvanor {

/// Why a JSON conversion failed, and where.
struct CodecError {
  enum class Kind {
    keyNotFound,    ///< a required key is missing
    valueNotFound,  ///< a required key holds null
    typeMismatch,   ///< a value has the wrong JSON type (or does not fit the member's type)
    dataCorrupted,  ///< the text is not JSON, or a value is not one the type accepts
    invalidValue,   ///< encoding: a value JSON cannot carry (non-finite number, invalid UTF-8)
  };
  Kind kind = Kind::dataCorrupted;
  /// Key path of the offending value, e.g. "domain.purchase.price" or "buckets[2].name";
  /// empty when the problem is the document itself.
  std::string path;
  std::string detail;

  /// One line for people: kind, path and detail.
  ZELVANOR_API std::string describe() const;
};

ZELVANOR_API const char* toString(CodecError::Kind kind) noexcept;

/// Either a value or a CodecError.
template <class T>
class Result {
 public:
  Result(T value)
      : state_(std::in_place_index<0>, std::move(value)) {}  // NOLINT: implicit by design
  Result(CodecError error) : state_(std::in_place_index<1>, std::move(error)) {}  // NOLINT

  bool ok() const noexcept { return state_.index() == 0; }
  explicit operator bool() const noexcept { return ok(); }

  /// Precondition: ok().
  T& value() & { return std::get<0>(state_); }
  const T& value() const& { return std::get<0>(state_); }
  T&& value() && { return std::get<0>(std::move(state_)); }
  T* operator->() { return &value(); }
  const T* operator->() const { return &value(); }
  T& operator*() & { return value(); }
  const T& operator*() const& { return value(); }

  /// Precondition: !ok().
  const CodecError& error() const { return std::get<1>(state_); }

 private:
  std::variant<T, CodecError> state_;
};

}  // namespace zelvanor
