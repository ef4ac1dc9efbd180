// Every wire type against hand-written fixtures (tests/data/wire/<Type>.full.json and
// <Type>.empty.json): the exact members written, and how strictly each member is read. The
// per-key cases are generated from the fixtures, so a key added to or missing from a field
// table shows up here without the test naming it.
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

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

// One wire type, with its sample values, behind a type-erased interface. Encoding the sample
// gives the full fixture and the full fixture reads as the sample (less what is never sent), so
// a full round trip needs no test of its own; the exact text and the errors of malformed input
// are in codec_test.cpp.
struct WireType {
  std::string name;  // fixture stem and test name
  // Encoding side; empty for decode-only types.
  std::function<Result<std::string>()> encodeFull{};
  std::function<Result<std::string>()> encodeEmpty{};
  // Decoding side; empty for encode-only types. On success, compares with the sample value.
  std::function<::testing::AssertionResult(std::string_view)> decodesToFull{};
  std::function<::testing::AssertionResult(std::string_view)> decodesToEmpty{};
  // Both texts decode, to equal values (expectSame) or to different ones (!expectSame).
  std::function<::testing::AssertionResult(std::string_view, std::string_view, bool)> compare{};
  std::function<std::optional<CodecError>(std::string_view)> decodeError{};

  std::string full() const { return wireFixture(name + ".full.json"); }
  std::string empty() const { return wireFixture(name + ".empty.json"); }
};

template <class T>
::testing::AssertionResult decodesTo(std::string_view json, const T& expected) {
  auto decoded = decodeJson<T>(json);
  if (!decoded) return ::testing::AssertionFailure() << decoded.error().describe();
  if (*decoded == expected) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "decoded value differs from the sample";
}

template <class T>
void addDecoding(WireType& w, T fullAsRead) {
  w.decodesToFull = [fullAsRead](std::string_view json) { return decodesTo(json, fullAsRead); };
  w.decodesToEmpty = [](std::string_view json) { return decodesTo(json, T{}); };
  w.compare = [](std::string_view a, std::string_view b, bool expectSame) {
    auto x = decodeJson<T>(a);
    auto y = decodeJson<T>(b);
    if (!x) return ::testing::AssertionFailure() << x.error().describe() << " in " << a;
    if (!y) return ::testing::AssertionFailure() << y.error().describe() << " in " << b;
    if ((*x == *y) == expectSame) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure()
           << (expectSame ? "decoded values differ" : "decoded values are equal");
  };
  w.decodeError = [](std::string_view json) -> std::optional<CodecError> {
    auto decoded = decodeJson<T>(json);
    if (decoded) return std::nullopt;
    return decoded.error();
  };
}

template <class T>
void addEncoding(WireType& w, T full) {
  w.encodeFull = [full] { return encodeJson(full); };
  w.encodeEmpty = [] { return encodeJson(T{}); };
}

template <class T>
WireType codable(std::string name, T full, T fullAsRead) {
  WireType w{.name = std::move(name)};
  addEncoding(w, std::move(full));
  addDecoding(w, std::move(fullAsRead));
  return w;
}
template <class T>
WireType codable(std::string name, T full) {
  T copy = full;
  return codable(std::move(name), std::move(full), std::move(copy));
}
template <class T>
WireType encodeOnly(std::string name, T full) {
  WireType w{.name = std::move(name)};
  addEncoding(w, std::move(full));
  return w;
}
template <class T>
WireType decodeOnly(std::string name, T full) {
  WireType w{.name = std::move(name)};
  addDecoding(w, std::move(full));
  return w;
}

std::vector<WireType> codableTypes() {
  using namespace samples;
  return {
      codable("ZSDK", sdk()),
      codable("ZCommon", common()),
      codable("ZAgent", agent()),
      codable("ZId", id()),
      codable("ZAgreement", agreement(), agreementAsRead()),
      codable("ZApp", app()),
      codable("ZUtm", utm()),
      codable("ZBucket", bucket()),
      codable("ZPage", page()),
      codable("ZClick", click(), clickAsRead()),
      codable("ZUsage", usage()),
      codable("ZLocation", location()),
      codable("ZPromotion", promotion()),
      codable("ZViewImpressionContent", viewImpression()),
      codable("ZStatus", status()),
      codable("ZSearch", search(), searchAsRead()),
      codable("ZPurchase", purchase()),
      codable("ZChat", chat()),
      codable("ZVideoMeeting", videoMeeting(), videoMeetingAsRead()),
      codable("ZDomain", domain(), domainAsRead()),
      codable("ZAction", action()),
      codable("ZXid", xid()),
      codable("ZUcid", ucid()),
      codable("ZLogRecord", record(), recordAsRead()),
  };
}

std::vector<WireType> encodedTypes() {
  auto types = codableTypes();
  types.push_back(encodeOnly("ZLogTemplate", samples::logTemplate()));
  return types;
}

std::vector<WireType> decodedTypes() {
  auto types = codableTypes();
  types.push_back(decodeOnly("ZHTTPResponseStatus", samples::responseStatus()));
  types.push_back(decodeOnly("ZHTTPResultEmpty", ZHTTPResultEmpty{}));
  types.push_back(decodeOnly(
      "ZHTTPResult_Empty",
      ZHTTPResult<ZHTTPResultEmpty>{
          .version = 1, .status = samples::responseStatus(), .data = ZHTTPResultEmpty{}}));
  types.push_back(decodeOnly(
      "ZHTTPResult_XidList",
      ZHTTPResult<std::vector<ZXid>>{.version = 9007199254740993,
                                     .status = samples::responseStatus(),
                                     .data = std::vector<ZXid>{samples::xid(), ZXid{}}}));
  return types;
}

std::string testName(const ::testing::TestParamInfo<WireType>& info) {
  return info.param.name;
}

// Keys the empty value writes are the required ones: optional members of an empty value are
// absent, and absent members are never written.
std::set<std::string> keysOf(const std::string& json) {
  std::set<std::string> keys;
  for (const auto& [key, value] : topLevelMembers(json)) keys.insert(key);
  return keys;
}

// ----- encoding -------------------------------------------------------------------------------

class Encoding : public ::testing::TestWithParam<WireType> {};

TEST_P(Encoding, FullValueWritesExactlyTheFixture) {
  auto json = GetParam().encodeFull();
  ASSERT_TRUE(json) << json.error().describe();
  EXPECT_TRUE(sameJson(GetParam().full(), *json));
}

TEST_P(Encoding, EmptyValueWritesOnlyRequiredMembers) {
  auto json = GetParam().encodeEmpty();
  ASSERT_TRUE(json) << json.error().describe();
  EXPECT_TRUE(sameJson(GetParam().empty(), *json));
}

INSTANTIATE_TEST_SUITE_P(Wire, Encoding, ::testing::ValuesIn(encodedTypes()), testName);

// ----- decoding -------------------------------------------------------------------------------

class Decoding : public ::testing::TestWithParam<WireType> {};

TEST_P(Decoding, FullFixtureReadsAsTheSample) {
  EXPECT_TRUE(GetParam().decodesToFull(GetParam().full()));
}

TEST_P(Decoding, EmptyFixtureReadsAsADefaultValue) {
  EXPECT_TRUE(GetParam().decodesToEmpty(GetParam().empty()));
}

TEST_P(Decoding, MissingOrNullRequiredMemberFailsNamingTheKey) {
  const auto& type = GetParam();
  const std::string full = type.full();
  for (const auto& key : keysOf(type.empty())) {
    SCOPED_TRACE(key);
    auto missing = type.decodeError(withMember(full, key, std::nullopt));
    ASSERT_TRUE(missing.has_value());
    EXPECT_EQ(missing->kind, CodecError::Kind::keyNotFound);
    EXPECT_EQ(missing->path, key);

    auto null = type.decodeError(withMember(full, key, "null"));
    ASSERT_TRUE(null.has_value());
    EXPECT_EQ(null->kind, CodecError::Kind::valueNotFound);
    EXPECT_EQ(null->path, key);
  }
}

TEST_P(Decoding, NullOptionalMemberReadsAsAbsent) {
  const auto& type = GetParam();
  const std::string full = type.full();
  const auto required = keysOf(type.empty());
  for (const auto& [key, value] : topLevelMembers(full)) {
    if (required.count(key)) continue;
    SCOPED_TRACE(key);
    const std::string withoutKey = withMember(full, key, std::nullopt);
    EXPECT_TRUE(type.compare(withMember(full, key, "null"), withoutKey, true));
    // ... and the member was read at all: leaving it out changes the value.
    EXPECT_TRUE(type.compare(full, withoutKey, false));
  }
}

TEST_P(Decoding, EveryMemberOfTheWrongTypeFailsNamingTheKey) {
  const auto& type = GetParam();
  const std::string full = type.full();
  for (const auto& [key, value] : topLevelMembers(full)) {
    SCOPED_TRACE(key + " = " + wrongTypeFor(value));
    auto error = type.decodeError(withMember(full, key, wrongTypeFor(value)));
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->kind, CodecError::Kind::typeMismatch);
    EXPECT_EQ(error->path, key);
  }
}

INSTANTIATE_TEST_SUITE_P(Wire, Decoding, ::testing::ValuesIn(decodedTypes()), testName);

}  // namespace
}  // namespace zelvanor
