// Every wire type against hand-written fixtures (tests/data/wire/<Type>.full.json and
// <Type>.empty.json). A full fixture read and written back gives the same text, member order and
// number forms included, and what the wire never carries stays out; an empty value writes only
// the required members. The per-key cases are generated from the fixtures, so a key added to or
// missing from a field table shows up here without the test naming it.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "model/field_tables.hpp"
#include "support/wire_json.hpp"
#include "support/wire_samples.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

using testing_support::sameJson;
using testing_support::topLevelMembers;
using testing_support::wireFixture;
using testing_support::withMember;
using testing_support::wrongTypeFor;
using Kind = CodecError::Kind;

template <class T>
::testing::AssertionResult decodesTo(std::string_view json, const T& expected) {
  auto decoded = decodeJson<T>(json);
  if (!decoded) return ::testing::AssertionFailure() << decoded.error().describe();
  if (*decoded == expected) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "decoded value differs in " << json;
}

template <class T>
void expectError(const std::string& json, Kind kind, const std::string& path) {
  auto decoded = decodeJson<T>(json);
  ASSERT_FALSE(decoded) << json;
  EXPECT_EQ(decoded.error().kind, kind) << decoded.error().describe();
  EXPECT_EQ(decoded.error().path, path) << decoded.error().describe();
}

// The round trip cannot see a key bound to the wrong member of the same type: the tables list
// members in declaration order, so such a key shows as a step back in the members' addresses.
template <class T>
::testing::AssertionResult keysFollowDeclarationOrder(const T& value) {
  std::vector<std::uintptr_t> places;
  const auto place = [&](const auto& field) {
    if constexpr (requires { field.member; }) {
      places.push_back(reinterpret_cast<std::uintptr_t>(&(value.*(field.member))));
    }
  };
  std::apply([&](const auto&... fields) { (place(fields), ...); }, detail::FieldTable<T>::fields);
  for (std::size_t i = 1; i < places.size(); ++i) {
    if (places[i] <= places[i - 1]) return ::testing::AssertionFailure() << "key " << i;
  }
  return ::testing::AssertionSuccess();
}

// Keys the empty value writes are the required ones: each fails by name when missing or null;
// every other one reads null as absent. Any member of the wrong type fails by name.
template <class T>
void checkKeys(const std::string& full, const std::string& empty) {
  std::set<std::string> required;
  for (const auto& [key, value] : topLevelMembers(empty)) required.insert(key);
  for (const auto& [key, value] : topLevelMembers(full)) {
    SCOPED_TRACE(key);
    expectError<T>(withMember(full, key, wrongTypeFor(value)), Kind::typeMismatch, key);
    if (required.count(key)) {
      expectError<T>(withMember(full, key, std::nullopt), Kind::keyNotFound, key);
      expectError<T>(withMember(full, key, "null"), Kind::valueNotFound, key);
    } else {
      EXPECT_TRUE(decodesTo(withMember(full, key, "null"),
                            *decodeJson<T>(withMember(full, key, std::nullopt))));
    }
  }
}

template <class T>
void checkEncoding(const std::string& name, const T& full) {
  SCOPED_TRACE(name);
  auto json = encodeJson(full);
  ASSERT_TRUE(json) << json.error().describe();
  EXPECT_TRUE(sameJson(wireFixture(name + ".full.json"), *json));
  EXPECT_TRUE(sameJson(wireFixture(name + ".empty.json"), *encodeJson(T{})));
  EXPECT_TRUE(keysFollowDeclarationOrder(full));
}

// `full`, when given, is what the full fixture must read as; a type that is also written is
// checked by its round trip instead.
template <class T>
void checkReading(const std::string& name, const std::optional<T>& full) {
  SCOPED_TRACE(name);
  const std::string fullText = wireFixture(name + ".full.json");
  const std::string emptyText = wireFixture(name + ".empty.json");
  if (full) {
    EXPECT_TRUE(decodesTo(fullText, *full));
  }
  EXPECT_TRUE(decodesTo(emptyText, T{}));
  checkKeys<T>(fullText, emptyText);
}

template <class T>
void checkCodable(const std::string& name) {
  checkEncoding(name, samples::full<T>(name));
  checkReading<T>(name, std::nullopt);
}

TEST(Wire, EveryTypeReadsAndWritesItsFixtures) {
  checkCodable<ZSDK>("ZSDK");
  checkCodable<ZCommon>("ZCommon");
  checkCodable<ZAgent>("ZAgent");
  checkCodable<ZId>("ZId");
  checkCodable<ZAgreement>("ZAgreement");
  checkCodable<ZApp>("ZApp");
  checkCodable<ZUtm>("ZUtm");
  checkCodable<ZBucket>("ZBucket");
  checkCodable<ZPage>("ZPage");
  checkCodable<ZClick>("ZClick");
  checkCodable<ZUsage>("ZUsage");
  checkCodable<ZLocation>("ZLocation");
  checkCodable<ZPromotion>("ZPromotion");
  checkCodable<ZViewImpressionContent>("ZViewImpressionContent");
  checkCodable<ZStatus>("ZStatus");
  checkCodable<ZSearch>("ZSearch");
  checkCodable<ZPurchase>("ZPurchase");
  checkCodable<ZChat>("ZChat");
  checkCodable<ZVideoMeeting>("ZVideoMeeting");
  checkCodable<ZDomain>("ZDomain");
  checkCodable<ZAction>("ZAction");
  checkCodable<ZXid>("ZXid");
  checkCodable<ZUcid>("ZUcid");
  checkCodable<ZLogRecord>("ZLogRecord");
  checkEncoding<ZLogTemplate>("ZLogTemplate", samples::logTemplate());
  // Read only: the collector's answers.
  const auto status = samples::responseStatus();
  checkReading<ZHTTPResponseStatus>("ZHTTPResponseStatus", status);
  checkReading<ZHTTPResultEmpty>("ZHTTPResultEmpty", ZHTTPResultEmpty{});
  using Empty = ZHTTPResult<ZHTTPResultEmpty>;
  checkReading<Empty>("ZHTTPResult_Empty",
                      Empty{.version = 1, .status = status, .data = ZHTTPResultEmpty{}});
  using XidList = ZHTTPResult<std::vector<ZXid>>;
  checkReading<XidList>("ZHTTPResult_XidList",
                        XidList{.version = 9007199254740993,
                                .status = status,
                                .data = std::vector<ZXid>{samples::xid(), ZXid{}}});
}

}  // namespace
}  // namespace zelvanor
