// Helpers for tests that check JSON text: fixture loading, structural comparison that names the
// first difference, and top-level member edits for building near-miss inputs from a fixture.
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

/// The text of tests/data/wire/<name>.
inline std::string wireFixture(std::string_view name) {
  const std::string path = std::string(ZELVANOR_TEST_DATA_DIR) + "/wire/" + std::string(name);
  std::ifstream in(path, std::ios::binary);
  if (!in) ADD_FAILURE() << "missing fixture " << path;
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

namespace detail {

inline std::string describe(simdjson::dom::element e) {
  return simdjson::minify(e);
}

// Members are compared in order: the encoder writes them in a fixed order, and the fixtures are
// written in that order.
inline bool diff(simdjson::dom::element want, simdjson::dom::element got, const std::string& path,
                 std::string& why) {
  using T = simdjson::dom::element_type;
  const auto fail = [&](const std::string& what) {
    why = (path.empty() ? std::string("<root>") : path) + ": " + what;
    return false;
  };
  // Integers are integers; a float must not come out as an integer or the reverse.
  const bool wantInt = want.type() == T::INT64 || want.type() == T::UINT64;
  const bool gotInt = got.type() == T::INT64 || got.type() == T::UINT64;
  if (want.type() != got.type() && !(wantInt && gotInt)) {
    return fail("expected " + describe(want) + ", got " + describe(got));
  }
  switch (want.type()) {
    case T::OBJECT: {
      std::vector<std::pair<std::string_view, simdjson::dom::element>> w, g;
      const simdjson::dom::object wantObject = want.get_object().value_unsafe();
      const simdjson::dom::object gotObject = got.get_object().value_unsafe();
      for (auto m : wantObject) w.emplace_back(m.key, m.value);
      for (auto m : gotObject) g.emplace_back(m.key, m.value);
      for (std::size_t i = 0; i < std::max(w.size(), g.size()); ++i) {
        if (i >= g.size()) return fail("missing member \"" + std::string(w[i].first) + "\"");
        if (i >= w.size()) return fail("unexpected member \"" + std::string(g[i].first) + "\"");
        if (w[i].first != g[i].first) {
          return fail("member " + std::to_string(i) + " is \"" + std::string(g[i].first) +
                      "\", expected \"" + std::string(w[i].first) + "\"");
        }
        const std::string sub =
            path.empty() ? std::string(w[i].first) : path + "." + std::string(w[i].first);
        if (!diff(w[i].second, g[i].second, sub, why)) return false;
      }
      return true;
    }
    case T::ARRAY: {
      auto w = want.get_array().value_unsafe();
      auto g = got.get_array().value_unsafe();
      if (w.size() != g.size()) return fail("array sizes differ");
      for (std::size_t i = 0; i < w.size(); ++i) {
        if (!diff(w.at(i).value_unsafe(), g.at(i).value_unsafe(),
                  path + "[" + std::to_string(i) + "]", why)) {
          return false;
        }
      }
      return true;
    }
    case T::DOUBLE:
      if (want.get_double().value_unsafe() == got.get_double().value_unsafe()) return true;
      return fail("expected " + describe(want) + ", got " + describe(got));
    default:
      if (describe(want) == describe(got)) return true;
      return fail("expected " + describe(want) + ", got " + describe(got));
  }
}

}  // namespace detail

/// Structural equality, member order included; the message names the first difference.
inline ::testing::AssertionResult sameJson(std::string_view expected, std::string_view actual) {
  simdjson::dom::parser p1, p2;
  simdjson::dom::element want, got;
  if (p1.parse(expected.data(), expected.size(), true).get(want) != simdjson::SUCCESS) {
    return ::testing::AssertionFailure() << "expected text is not JSON: " << expected;
  }
  if (p2.parse(actual.data(), actual.size(), true).get(got) != simdjson::SUCCESS) {
    return ::testing::AssertionFailure() << "actual text is not JSON: " << actual;
  }
  std::string why;
  if (detail::diff(want, got, "", why)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << why << "\nactual: " << actual;
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
