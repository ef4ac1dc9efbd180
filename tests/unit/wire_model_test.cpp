// Every wire type against hand-written fixtures (tests/data/wire/<Type>.full.json and
// <Type>.empty.json). A full fixture read and written back gives the same text, member order and
// number forms included, and what the wire never carries stays out; an empty value writes only
// the required members. The per-key cases are generated from the fixtures, so a key added to or
// missing from a field table shows up here without the test naming it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "model/field_tables.hpp"
#include "support/wire_samples.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

using namespace testing_support;

// The error's kind and key path, or "ok".
template <class T>
std::string errorOf(const std::string& json) {
  auto decoded = decodeJson<T>(json);
  if (decoded) return "ok";
  return toString(decoded.error().kind) + std::string(" at ") + decoded.error().path;
}

// The round trip cannot see a key bound to the wrong member of the same type: the tables list
// members in declaration order, so such a key shows as a step back in the members' addresses.
template <class T>
bool keysFollowDeclarationOrder(const T& value) {
  std::vector<std::uintptr_t> places;
  const auto place = [&](const auto& field) {
    if constexpr (requires { field.member; }) {
      places.push_back(reinterpret_cast<std::uintptr_t>(&(value.*(field.member))));
    }
  };
  std::apply([&](const auto&... fields) { (place(fields), ...); }, detail::FieldTable<T>::fields);
  return std::adjacent_find(places.begin(), places.end(), std::greater_equal<>()) == places.end();
}

// Keys the empty value writes are the required ones: each fails by name when missing or null;
// every other one reads null as absent. Any member of the wrong type fails by name.
template <class T>
void checkKeys(const std::string& full, const std::string& empty) {
  std::set<std::string> required;
  for (const auto& [key, value] : topLevelMembers(empty)) required.insert(key);
  for (const auto& [key, value] : topLevelMembers(full)) {
    SCOPED_TRACE(key);
    EXPECT_EQ(errorOf<T>(withMember(full, key, wrongTypeFor(value))), "type mismatch at " + key);
    if (required.count(key)) {
      EXPECT_EQ(errorOf<T>(withMember(full, key, std::nullopt)), "key not found at " + key);
      EXPECT_EQ(errorOf<T>(withMember(full, key, "null")), "value not found at " + key);
    } else {
      EXPECT_TRUE(decodeJson<T>(withMember(full, key, "null")).value() ==
                  decodeJson<T>(withMember(full, key, std::nullopt)).value());
    }
  }
}

template <class T>
void checkEncoding(const std::string& name, const T& full) {
  SCOPED_TRACE(name);
  EXPECT_EQ(minified(wireFixture(name + ".full.json")), minified(encodeJson(full).value()));
  EXPECT_EQ(minified(wireFixture(name + ".empty.json")), minified(*encodeJson(T{})));
  EXPECT_TRUE(keysFollowDeclarationOrder(full));
}

// `full`, when given, is what the full fixture must read as; a type that is also written is
// checked by its round trip instead.
template <class T>
void checkReading(const std::string& name, const std::optional<T>& full) {
  SCOPED_TRACE(name);
  const std::string fullText = wireFixture(name + ".full.json");
  const std::string emptyText = wireFixture(name + ".empty.json");
  EXPECT_TRUE(!full || decodeJson<T>(fullText).value() == *full);
  EXPECT_TRUE(decodeJson<T>(emptyText).value() == T{});
  checkKeys<T>(fullText, emptyText);
}

// Each type with its fixtures' name, in the order given.
template <class... T>
void checkCodables(std::istringstream names) {
  std::string name;
  ((names >> name, checkEncoding(name, samples::full<T>(name)), checkReading<T>(name, {})), ...);
}

TEST(Wire, EveryTypeReadsAndWritesItsFixtures) {
  checkCodables<ZSDK, ZCommon, ZAgent, ZId, ZAgreement, ZApp, ZUtm, ZBucket, ZPage, ZClick, ZUsage,
                ZLocation, ZPromotion, ZViewImpressionContent, ZStatus, ZSearch, ZPurchase, ZChat,
                ZVideoMeeting, ZDomain, ZAction, ZXid, ZUcid, ZLogRecord>(std::istringstream(
      "ZSDK ZCommon ZAgent ZId ZAgreement ZApp ZUtm ZBucket ZPage ZClick ZUsage ZLocation "
      "ZPromotion ZViewImpressionContent ZStatus ZSearch ZPurchase ZChat ZVideoMeeting ZDomain "
      "ZAction ZXid ZUcid ZLogRecord"));
  checkEncoding<ZLogTemplate>("ZLogTemplate", samples::logTemplate());
  // Read only: the collector's answers.
  const ZHTTPResponseStatus status{.code = "200", .message = "OK"};
  checkReading<ZHTTPResponseStatus>("ZHTTPResponseStatus", status);
  checkReading<ZHTTPResultEmpty>("ZHTTPResultEmpty", ZHTTPResultEmpty{});
  using Empty = ZHTTPResult<ZHTTPResultEmpty>;
  checkReading<Empty>("ZHTTPResult_Empty",
                      Empty{.version = 1, .status = status, .data = ZHTTPResultEmpty{}});
  using XidList = ZHTTPResult<std::vector<ZXid>>;
  checkReading<XidList>(
      "ZHTTPResult_XidList",
      XidList{.version = 9007199254740993,
              .status = status,
              .data = std::vector<ZXid>{{.cid = "cid-1", .did = "did-2", .sid = "sid-3"}, {}}});
}

}  // namespace
}  // namespace zelvanor
