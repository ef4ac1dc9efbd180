// Helpers for tests of the wire types: fixture loading, structural comparison of JSON texts,
// top-level member edits for building near-miss inputs from a fixture, and fully populated values
// of every wire type, read from tests/data/wire/<Type>.full.json (written by hand from the record
// format). The members a host may set but the wire never carries are set on top, so that the
// tests can check they stay out; the *AsRead values are the files as decoding gives them back.
#pragma once

#include <gtest/gtest.h>
#include <simdjson.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/data_table.hpp"
#include "zelvanor/configuration.hpp"
#include "zelvanor/http_result.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/record.hpp"

namespace zelvanor::testing_support {

/// The text of tests/data/wire/<name>.
inline std::string wireFixture(std::string_view name) {
  return testing::dataText("wire/" + std::string(name));
}

/// The JSON text written back compactly by simdjson: equal for two texts that hold the same
/// document, member order included (the encoder writes members in a fixed order and the fixtures
/// follow it). A float never equals an integer, as their compact forms differ.
inline std::string minified(std::string_view text) {
  simdjson::dom::parser parser;
  simdjson::dom::element element;
  if (parser.parse(text.data(), text.size(), true).get(element) != simdjson::SUCCESS) {
    ADD_FAILURE() << "not JSON: " << text;
    return "";
  }
  return simdjson::minify(element);
}

/// The top-level members of a JSON object: key and value as compact text.
inline std::vector<std::pair<std::string, std::string>> topLevelMembers(std::string_view json) {
  simdjson::dom::parser parser;
  simdjson::dom::object object;
  std::vector<std::pair<std::string, std::string>> members;
  if (parser.parse(json.data(), json.size(), true).get(object) != simdjson::SUCCESS) {
    ADD_FAILURE() << "not a JSON object: " << json;
    return members;
  }
  for (auto m : object) members.emplace_back(std::string(m.key), simdjson::minify(m.value));
  return members;
}

/// The object with its member `key` set to the raw JSON `value`, or removed when it is absent.
inline std::string withMember(std::string_view json, std::string_view key,
                              std::optional<std::string_view> value) {
  std::string out;
  for (const auto& [k, v] : topLevelMembers(json)) {
    if (k == key && !value) continue;
    out += (out.empty() ? "{\"" : ",\"") + k + "\":" + std::string(k == key ? *value : v);
  }
  return out.empty() ? "{}" : out + "}";
}

/// A JSON value of a different type from `value` (a compact JSON text), to provoke a mismatch.
inline std::string wrongTypeFor(std::string_view value) {
  return value.front() == '"' ? "12" : "\"12\"";
}

}  // namespace zelvanor::testing_support

namespace zelvanor::samples {

/// tests/data/wire/<name>.full.json, decoded.
template <class T>
T fromFixture(std::string_view name) {
  return decodeJson<T>(testing_support::wireFixture(std::string(name) + ".full.json")).value();
}

// The members that are neither written nor read.
template <class T>
void addUnwritten(T& v) {
  if constexpr (requires { v.thirdAdAgree; }) v.thirdAdAgree = true;
  if constexpr (requires { v.copy; }) v.copy = "Add to cart";
  if constexpr (requires { v.collections; }) v.collections = ZAnyCodable(std::string("in memory"));
  if constexpr (requires { v.speechRequest; }) v.speechRequest = "raise_hand";
  if constexpr (requires { v.videoMeeting; }) {
    addUnwritten(*v.search);
    addUnwritten(*v.videoMeeting);
  }
  if constexpr (requires { v.agreement; }) {
    addUnwritten(*v.agreement);
    addUnwritten(*v.click);
    addUnwritten(*v.domain);
  }
}

/// The full fixture of `name` with the members the wire never carries added.
template <class T>
T full(std::string_view name) {
  T value = fromFixture<T>(name);
  addUnwritten(value);
  return value;
}

inline ZId id() {
  return fromFixture<ZId>("ZId");
}
inline ZLogRecord recordAsRead() {
  return fromFixture<ZLogRecord>("ZLogRecord");
}
inline ZLogRecord record() {
  return full<ZLogRecord>("ZLogRecord");
}
/// The record's event blocks, with a text of its own.
inline ZLogTemplate logTemplate() {
  const ZLogRecord r = record();
  return ZLogTemplate{r.agreement, r.app,     r.click,     r.domain,
                      r.location,  r.page,    r.promotion, r.status,
                      r.usage,     r.utm,     r.buckets,   r.viewImpressionContents,
                      r.action,    "template"};
}

}  // namespace zelvanor::samples
