// Helpers for tests that check JSON text: fixture loading, structural comparison, and top-level
// member edits for building near-miss inputs from a fixture.
#pragma once

#include <gtest/gtest.h>
#include <simdjson.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zelvanor::testing_support {

/// The text of tests/data/<path>.
inline std::string dataFile(std::string_view relative) {
  const std::string path = std::string(ZELVANOR_TEST_DATA_DIR) + "/" + std::string(relative);
  std::ifstream in(path, std::ios::binary);
  if (!in) ADD_FAILURE() << "missing fixture " << path;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

/// The text of tests/data/wire/<name>.
inline std::string wireFixture(std::string_view name) {
  return dataFile("wire/" + std::string(name));
}

/// Structural equality, member order included (the encoder writes members in a fixed order and
/// the fixtures follow it): both texts parsed and written back compactly. A float never equals
/// an integer, as their compact forms differ.
inline ::testing::AssertionResult sameJson(std::string_view expected, std::string_view actual) {
  simdjson::dom::parser p1, p2;
  simdjson::dom::element want, got;
  if (p1.parse(expected.data(), expected.size(), true).get(want) != simdjson::SUCCESS) {
    return ::testing::AssertionFailure() << "expected text is not JSON: " << expected;
  }
  if (p2.parse(actual.data(), actual.size(), true).get(got) != simdjson::SUCCESS) {
    return ::testing::AssertionFailure() << "actual text is not JSON: " << actual;
  }
  if (simdjson::minify(want) == simdjson::minify(got)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "\nexpected: " << simdjson::minify(want) << "\n  actual: " << simdjson::minify(got);
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

/// The object with member `key` set to the raw JSON `value` (replaced in place, or appended), or
/// removed when `value` is absent.
inline std::string withMember(std::string_view json, std::string_view key,
                              std::optional<std::string_view> value) {
  std::string out = "{";
  bool found = false;
  const auto emit = [&](std::string_view k, std::string_view v) {
    if (out.size() > 1) out.push_back(',');
    out.append("\"").append(k).append("\":").append(v);
  };
  for (const auto& [k, v] : topLevelMembers(json)) {
    if (k != key) {
      emit(k, v);
    } else {
      found = true;
      if (value) emit(k, *value);
    }
  }
  if (!found && value) emit(key, *value);
  out.push_back('}');
  return out;
}

/// A JSON value of a different type from `value` (a compact JSON text), to provoke a mismatch.
inline std::string wrongTypeFor(std::string_view value) {
  switch (value.front()) {
    case '"':
      return "12";
    case '{':
      return "[]";
    case '[':
      return "{}";
    case 't':
    case 'f':
      return "\"true\"";
    default:  // a number
      return "\"12\"";
  }
}

}  // namespace zelvanor::testing_support
