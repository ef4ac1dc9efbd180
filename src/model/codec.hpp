// The one generic codec. Each type declares its members once, in a FieldTable (field_tables.hpp);
// these templates write and read every type from that table.
#pragma once

#include <simdjson.h>

#include <array>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/json_writer.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/result.hpp"

namespace zelvanor::detail {

/// How a member meets the wire.
enum class Wire {
  both,        ///< written when present, read when present
  readOnly,    ///< read from JSON, never written
  memoryOnly,  ///< neither written nor read: the key is reserved but the value stays in memory
};

template <class Owner, class Member>
struct Field {
  std::string_view key;
  Member Owner::*member;
  Wire wire;
};

/// A key the type reserves but binds to no member; never written, ignored when read.
struct ReservedKey {
  std::string_view key;
};

template <class O, class M>
constexpr Field<O, M> field(std::string_view key, M O::*member) {
  return {key, member, Wire::both};
}
template <class O, class M>
constexpr Field<O, M> readOnlyField(std::string_view key, M O::*member) {
  return {key, member, Wire::readOnly};
}
template <class O, class M>
constexpr Field<O, M> memoryOnlyField(std::string_view key, M O::*member) {
  return {key, member, Wire::memoryOnly};
}

/// Specialised once per type with `static constexpr auto fields = std::tuple{...}`.
template <class T>
struct FieldTable;

template <class T>
concept HasFieldTable = requires {
  FieldTable<T>::fields;
};

template <class T>
struct IsOptional : std::false_type {};
template <class T>
struct IsOptional<std::optional<T>> : std::true_type {};
template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

template <class F>
struct IsReservedKey : std::is_same<std::remove_cvref_t<F>, ReservedKey> {};

// ----- error paths: built while unwinding, so the success path pays nothing ------------------
// Defined out of line (codec.cpp): failures are rare, and building their text inline would weigh
// on the code of every value that can fail.

void prependKey(CodecError& error, std::string_view key);
void prependIndex(CodecError& error, std::size_t index);
bool fail(CodecError& error, CodecError::Kind kind, std::string_view detail);

// ----- encoding -----------------------------------------------------------------------------

template <class T>
bool encodeValue(JsonWriter& writer, const T& value, CodecError& error);

template <class T, std::size_t I>
inline constexpr auto& kFieldKey = std::get<I>(FieldTable<T>::fields).key;

// The key of field I as written, separator slot and colon included.
template <class T, std::size_t I>
inline constexpr MemberToken<kFieldKey<T, I>.size() + 4> kMemberToken{kFieldKey<T, I>};

// The value a member holds, or null when it is absent: an empty optional, or a null pointer to a
// value someone else owns (a view borrows what it encodes).
template <class M>
auto presentValue(const M& member) {
  if constexpr (std::is_pointer_v<M>) {
    using Pointee = std::remove_cv_t<std::remove_pointer_t<M>>;
    using Result = decltype(presentValue(std::declval<const Pointee&>()));
    return member ? presentValue(*member) : Result{nullptr};
  } else if constexpr (IsOptional<M>::value) {
    return member ? &*member : nullptr;
  } else {
    return &member;
  }
}

template <class T, std::size_t I>
bool encodeField(JsonWriter& writer, const T& object, CodecError& error) {
  constexpr auto& field = std::get<I>(FieldTable<T>::fields);
  using F = std::remove_cvref_t<decltype(field)>;
  // Two branches with one body: a reserved key has no `wire` to ask about.
  if constexpr (IsReservedKey<F>::value) {  // NOLINT(bugprone-branch-clone)
    return true;
  } else if constexpr (field.wire != Wire::both) {
    return true;
  } else {
    const auto* value = presentValue(object.*(field.member));
    if (!value) return true;  // absent members are left out, never written as null
    writer.key(kMemberToken<T, I>);
    if (encodeValue(writer, *value, error)) return true;
    prependKey(error, field.key);
    return false;
  }
}

template <class T>
constexpr std::size_t fieldCount() {
  return std::tuple_size_v<std::remove_cvref_t<decltype(FieldTable<T>::fields)>>;
}

template <class T>
bool encodeValue(JsonWriter& writer, const T& value, CodecError& error) {
  if constexpr (std::is_same_v<T, std::string>) {
    if (writer.string(value)) return true;
    return fail(error, CodecError::Kind::invalidValue, "string is not valid UTF-8");
  } else if constexpr (std::is_same_v<T, bool>) {
    writer.boolean(value);
    return true;
  } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, std::uint64_t>) {
    writer.integer(value);
    return true;
  } else if constexpr (std::is_floating_point_v<T>) {
    if (writer.number(value)) return true;
    return fail(error, CodecError::Kind::invalidValue, "number is not finite");
  } else if constexpr (std::is_same_v<T, DeploymentType>) {
    writer.string(rawValue(value));
    return true;
  } else if constexpr (IsVector<T>::value) {
    writer.beginArray();
    for (std::size_t i = 0; i < value.size(); ++i) {
      writer.element();
      if (!encodeValue(writer, value[i], error)) {
        prependIndex(error, i);
        return false;
      }
    }
    writer.endArray();
    return true;
  } else {
    static_assert(HasFieldTable<T>, "no field table for this type");
    writer.beginObject();
    const bool ok = [&]<std::size_t... I>(std::index_sequence<I...>) {
      return (encodeField<T, I>(writer, value, error) && ...);
    }
    (std::make_index_sequence<fieldCount<T>()>{});
    if (!ok) return false;
    writer.endObject();
    return true;
  }
}

// ----- what a member expects -----------------------------------------------------------------

/// The JSON a member of type T reads, as error texts name it ("a number", "an object").
template <class T>
constexpr std::string_view expectedJson() {
  if constexpr (IsOptional<T>::value) {
    return expectedJson<typename T::value_type>();
  } else if constexpr (std::is_same_v<T, std::string> || std::is_same_v<T, DeploymentType>) {
    return "a string";
  } else if constexpr (std::is_same_v<T, bool>) {
    return "a bool";
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    return "an integer";
  } else if constexpr (std::is_same_v<T, std::uint64_t>) {
    return "an unsigned integer";
  } else if constexpr (std::is_floating_point_v<T>) {
    return "a number";
  } else if constexpr (IsVector<T>::value) {
    return "an array";
  } else {
    return "an object";
  }
}

template <class T, std::size_t I>
constexpr std::string_view expectedOfField() {
  constexpr auto& field = std::get<I>(FieldTable<T>::fields);
  using F = std::remove_cvref_t<decltype(field)>;
  if constexpr (IsReservedKey<F>::value) {
    return {};
  } else {
    return expectedJson<std::remove_cvref_t<decltype(std::declval<T&>().*(field.member))>>();
  }
}

/// What the member of T read under `key` expects; empty when T reads no such key. Lets a caller
/// that words its own messages (the command line) name the expected value from the table.
template <class T>
std::string_view expectedJsonAt(std::string_view key) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    std::string_view found;
    static_cast<void>(((std::get<I>(FieldTable<T>::fields).key == key &&
                        (found = expectedOfField<T, I>(), true)) ||
                       ...));
    return found;
  }
  (std::make_index_sequence<fieldCount<T>()>{});
}

// ----- decoding -----------------------------------------------------------------------------

using simdjson::dom::element;
using simdjson::dom::element_type;

template <class T>
bool readValue(element json, T& out, CodecError& error);

bool typeMismatch(CodecError& error, std::string_view expected);
bool notADeploymentType(CodecError& error, std::string_view text);

// True when field I of T is read from JSON under `key`.
template <class T, std::size_t I>
bool readsKey(std::string_view key) {
  constexpr auto& field = std::get<I>(FieldTable<T>::fields);
  using F = std::remove_cvref_t<decltype(field)>;
  // Two branches with one body: a reserved key has no `wire` to ask about.
  if constexpr (IsReservedKey<F>::value) {  // NOLINT(bugprone-branch-clone)
    return false;
  } else if constexpr (field.wire == Wire::memoryOnly) {
    return false;
  } else {
    // A constant length: a mismatch mostly costs one comparison, and the compiler writes the
    // fixed-size byte compare out in place (string_view's == ends up as a call per key).
    constexpr std::string_view expected = field.key;
    return key.size() == expected.size() &&
           std::memcmp(key.data(), expected.data(), expected.size()) == 0;
  }
}

inline constexpr std::size_t kNoField = static_cast<std::size_t>(-1);

// The field of T read under `key`, or kNoField. Members usually arrive in table order (what this
// SDK wrote, read back), so the field `expected` next is tried first, by itself.
template <class T>
std::size_t findField(std::string_view key, std::size_t expected) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    std::size_t found = kNoField;
    if (((I == expected && readsKey<T, I>(key) && (found = I, true)) || ...)) return found;
    static_cast<void>(((readsKey<T, I>(key) && (found = I, true)) || ...));
    return found;
  }
  (std::make_index_sequence<fieldCount<T>()>{});
}

template <class M>
bool readOptional(element json, std::optional<M>& member, CodecError& error) {
  if constexpr (std::is_same_v<M, std::string>) {
    // Built straight from the text: cheaper than an empty string assigned to.
    std::string_view text;
    if (json.get(text) != simdjson::SUCCESS) return typeMismatch(error, "a string");
    member.emplace(text);
    return true;
  } else {
    member.emplace();
    return readValue<M>(json, *member, error);
  }
}

// Reads `value` into field I of `out`; only called for fields that readsKey found.
template <class T, std::size_t I>
bool readField(element value, T& out, CodecError& error) {
  constexpr auto& field = std::get<I>(FieldTable<T>::fields);
  using F = std::remove_cvref_t<decltype(field)>;
  // Two branches with one body: a reserved key has no `wire` to ask about.
  if constexpr (IsReservedKey<F>::value) {  // NOLINT(bugprone-branch-clone)
    return true;
  } else if constexpr (field.wire == Wire::memoryOnly) {
    return true;
  } else {
    using Member = std::remove_cvref_t<decltype(std::declval<T&>().*(field.member))>;
    auto& member = out.*(field.member);
    bool ok = false;
    if constexpr (IsOptional<Member>::value) {
      if (value.is_null()) {
        member.reset();  // null in an optional member means absent
        return true;
      }
      ok = readOptional<typename Member::value_type>(value, member, error);
    } else {
      if (value.is_null()) {
        ok = fail(error, CodecError::Kind::valueNotFound, "required value is null");
      } else {
        ok = readValue<Member>(value, member, error);
      }
    }
    if (!ok) prependKey(error, field.key);
    return ok;
  }
}

// Reads `value` into field `index`, as findField gave it.
template <class T>
bool readFieldAt(std::size_t index, element value, T& out, CodecError& error) {
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    bool ok = true;
    static_cast<void>(((I == index && (ok = readField<T, I>(value, out, error), true)) || ...));
    return ok;
  }
  (std::make_index_sequence<fieldCount<T>()>{});
}

// findField takes the first field that reads a key; with a key twice in one table, the second
// field would silently never be read.
template <class T>
constexpr bool keysAreUnique() {
  return []<std::size_t... I>(std::index_sequence<I...>) {
    const std::array<std::string_view, sizeof...(I)> keys{
        std::get<I>(FieldTable<T>::fields).key...};
    for (std::size_t i = 0; i < keys.size(); ++i) {
      for (std::size_t j = i + 1; j < keys.size(); ++j) {
        if (keys[i] == keys[j]) return false;
      }
    }
    return true;
  }
  (std::make_index_sequence<fieldCount<T>()>{});
}

template <class T, std::size_t I>
bool checkRequiredSeen(std::uint64_t seen, CodecError& error) {
  constexpr auto& field = std::get<I>(FieldTable<T>::fields);
  using F = std::remove_cvref_t<decltype(field)>;
  if constexpr (IsReservedKey<F>::value) {
    return true;
  } else {
    using Member = std::remove_cvref_t<decltype(std::declval<T&>().*(field.member))>;
    if constexpr (IsOptional<Member>::value || field.wire == Wire::memoryOnly) {
      return true;
    } else {
      if (seen & (std::uint64_t{1} << I)) return true;
      error.path.assign(field.key);
      return fail(error, CodecError::Kind::keyNotFound, "required key is missing");
    }
  }
}

template <class T>
bool readObject(element json, T& out, CodecError& error) {
  simdjson::dom::object object;
  if (json.get(object) != simdjson::SUCCESS) return typeMismatch(error, "an object");
  constexpr std::size_t count = fieldCount<T>();
  static_assert(count <= 64, "seen-mask holds 64 fields");
  static_assert(keysAreUnique<T>(), "a key appears twice in this type's field table");
  std::uint64_t seen = 0;
  std::size_t expected = 0;
  for (auto member : object) {
    const std::size_t index = findField<T>(member.key, expected);
    if (index == kNoField) continue;  // unknown keys are ignored
    expected = index + 1;
    seen |= std::uint64_t{1} << index;
    if (!readFieldAt<T>(index, member.value, out, error)) return false;
  }
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return (checkRequiredSeen<T, I>(seen, error) && ...);
  }
  (std::make_index_sequence<count>{});
}

template <class T>
bool readValue(element json, T& out, CodecError& error) {
  if constexpr (std::is_same_v<T, std::string>) {
    std::string_view text;
    if (json.get(text) != simdjson::SUCCESS) return typeMismatch(error, "a string");
    out.assign(text);
    return true;
  } else if constexpr (std::is_same_v<T, bool>) {
    bool value = false;
    if (json.get(value) != simdjson::SUCCESS) return typeMismatch(error, "a bool");
    out = value;
    return true;
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    switch (json.type()) {
      case element_type::INT64:
        out = json.get_int64().value_unsafe();
        return true;
      case element_type::UINT64:
        return fail(error, CodecError::Kind::dataCorrupted, "number does not fit a 64-bit integer");
      default:
        return typeMismatch(error, "an integer");
    }
  } else if constexpr (std::is_same_v<T, std::uint64_t>) {
    // The parser types every integer that fits int64 as INT64, so only negatives fail here.
    switch (json.type()) {
      case element_type::INT64: {
        const std::int64_t number = json.get_int64().value_unsafe();
        if (number < 0) {
          return fail(error, CodecError::Kind::dataCorrupted, "number must not be negative");
        }
        out = static_cast<std::uint64_t>(number);
        return true;
      }
      case element_type::UINT64:
        out = json.get_uint64().value_unsafe();
        return true;
      default:
        return typeMismatch(error, expectedJson<T>());
    }
  } else if constexpr (std::is_floating_point_v<T>) {
    double number = 0;
    switch (json.type()) {
      case element_type::INT64:
        number = static_cast<double>(json.get_int64().value_unsafe());
        break;
      case element_type::UINT64:
        number = static_cast<double>(json.get_uint64().value_unsafe());
        break;
      case element_type::DOUBLE:
        number = json.get_double().value_unsafe();
        break;
      default:
        return typeMismatch(error, "a number");
    }
    if constexpr (std::is_same_v<T, float>) {
      // The shortest text of FLT_MAX ("3.4028235e+38") reads as a double just above FLT_MAX, so
      // the limit is the point where rounding to float would give infinity, not FLT_MAX itself.
      constexpr double kRoundsToInfinity = 0x1.ffffffp127;  // FLT_MAX + half an ulp
      const double magnitude = std::fabs(number);
      if (magnitude >= kRoundsToInfinity) {
        return fail(error, CodecError::Kind::dataCorrupted, "number does not fit a 32-bit float");
      }
      // Converting a double beyond the float range is undefined, so those clamp first.
      if (magnitude > FLT_MAX) number = std::signbit(number) ? -FLT_MAX : FLT_MAX;
    }
    out = static_cast<T>(number);
    return true;
  } else if constexpr (std::is_same_v<T, DeploymentType>) {
    std::string_view text;
    if (json.get(text) != simdjson::SUCCESS) return typeMismatch(error, "a string");
    auto type = deploymentTypeFromRawValue(text);
    if (!type) return notADeploymentType(error, text);
    out = *type;
    return true;
  } else if constexpr (IsVector<T>::value) {
    using Item = typename T::value_type;
    simdjson::dom::array array;
    if (json.get(array) != simdjson::SUCCESS) return typeMismatch(error, "an array");
    out.clear();
    out.reserve(array.size());
    std::size_t index = 0;
    for (element item : array) {
      auto& slot = out.emplace_back();
      bool ok = false;
      if (item.is_null()) {
        ok = fail(error, CodecError::Kind::valueNotFound, "array element is null");
      } else {
        ok = readValue<Item>(item, slot, error);
      }
      if (!ok) {
        prependIndex(error, index);
        return false;
      }
      ++index;
    }
    return true;
  } else {
    static_assert(HasFieldTable<T>, "no field table for this type");
    return readObject<T>(json, out, error);
  }
}

/// Reads `json` into `out`; false, with `error` naming the key path, when it does not fit T.
template <class T>
bool decodeValue(element json, T& out, CodecError& error) {
  return readValue<T>(json, out, error);
}

}  // namespace zelvanor::detail
