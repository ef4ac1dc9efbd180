// The codec's rules case by case: the one-sided members, the keys that differ between types,
// number and string forms, and where errors point. The cases that are pure text, read and written
// back or refused, are in tests/data/codec/cases.tsv; the per-type fixture checks are in
// wire_model_test.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "model/field_tables.hpp"
#include "support/data_table.hpp"
#include "support/wire_samples.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

// Reads `json` as a T and writes it back with the codec's own writer (the collector's answers
// are only ever read, so encodeJson does not take them).
template <class T>
Result<std::string> readAndWrite(std::string_view json) {
  auto value = decodeJson<T>(json);
  if (!value) return value.error();
  std::string out;
  detail::JsonWriter writer(out, /*pretty=*/false);
  CodecError error;
  if (!detail::encodeValue(writer, *value, error)) return error;
  return out;
}

using Reader = Result<std::string> (*)(std::string_view);

// Each type under its name in the table, the names in the order of the types.
template <class... T>
std::map<std::string, Reader> readers(std::istringstream names) {
  std::map<std::string, Reader> map;
  std::string name;
  ((names >> name, map[name] = readAndWrite<T>), ...);
  return map;
}

const auto kTypes =
    readers<ZAction, ZAgreement, ZClick, ZCommon, ZConfiguration, ZId, ZLocation, ZLogRecord,
            ZPurchase, ZHTTPResult<ZHTTPResultEmpty>, ZHTTPResult<std::vector<ZXid>>, ZSDK, ZSearch,
            ZStatus, ZUcid, ZUsage, ZVideoMeeting, ZXid>(std::istringstream(
        "ZAction ZAgreement ZClick ZCommon ZConfiguration ZId ZLocation ZLogRecord ZPurchase "
        "ZResultEmpty ZResultXids ZSDK ZSearch ZStatus ZUcid ZUsage ZVideoMeeting ZXid"));

TEST(CodecCases, EachTextReadsAndWritesBackOrFailsAsTheTableSays) {
  for (const auto& row : testing::dataTable("codec/cases.tsv", testing::Escapes::keep)) {
    ASSERT_EQ(row.size(), 3u);
    const std::string &type = row[0], &json = row[1], &expected = row[2];
    SCOPED_TRACE(type + " " + json);
    const auto written = kTypes.at(type)(json);
    if (written) {
      EXPECT_EQ(*written, expected == "=" ? json : expected);
      continue;
    }
    const CodecError& error = written.error();
    EXPECT_EQ("error " + std::string(toString(error.kind)) + " " +
                  (error.path.empty() ? "-" : error.path),
              expected);
    // The text names the kind and the path.
    EXPECT_EQ(error.describe().rfind(toString(error.kind), 0), 0u);
    EXPECT_NE(error.describe().find(error.path), std::string::npos);
  }
}

TEST(CodecDecode, MembersThatAreNeverWrittenAreReadOrSkippedAsTheFormatSays) {
  EXPECT_EQ(*decodeJson<ZAgreement>(R"({"third_ad_agree":true})"),
            (ZAgreement{.thirdAdAgree = true}));
  EXPECT_EQ(*decodeJson<ZVideoMeeting>(R"({"speech_request":"raise_hand"})"),
            (ZVideoMeeting{.speechRequest = "raise_hand"}));
  EXPECT_EQ(*decodeJson<ZClick>(R"({"copy":"Buy","type":"button"})"), (ZClick{.type = "button"}));
  EXPECT_EQ(*decodeJson<ZClick>(R"({"copy":42})"), ZClick{}) << "not even type-checked";
  EXPECT_EQ(*decodeJson<ZSearch>(R"({"collections":{"any":[1]},"keyword":"mug"})"),
            (ZSearch{.keyword = "mug"}));
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("batchSize"), "an unsigned integer");
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("timeout"), "a number");
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("nope"), "");
}

// The well-known action types are constants: a host's ZAction with static storage, in whatever
// file or library, finds them set, and nothing destroys them at exit.
static_assert(ZAction::ZActionType::pageView.text() == "page_view");
static_assert(std::is_trivially_destructible_v<ZAction::ZActionType::Known>);
const ZAction kStaticAction(ZAction::ZActionType::viewImpression, "list", "imp");

TEST(CodecEncode, ActionTypesAreUsableDuringStaticInitialization) {
  EXPECT_EQ(kStaticAction.type, "view_imp");
  EXPECT_NE(ZAction::ZActionType(ZAction::ZActionType::location),
            ZAction::ZActionType::custom("location"))
      << "a custom type is never well-known";
}

TEST(CodecEncode, PrettyStyleKeepsTheSameDocument) {
  EXPECT_EQ(*encodeJson(ZStatus{.code = 1}, JsonStyle::pretty), "{\n  \"code\": 1\n}");
  const auto record = samples::record();
  EXPECT_EQ(testing_support::minified(*encodeJson(record, JsonStyle::pretty)), *encodeJson(record));
}

TEST(CodecEncode, ValuesJsonCannotCarryFailNamingTheKeyPath) {
  const std::pair<const char*, void (*)(ZLogRecord&)> cases[] = {
      {"domain.purchase.price",
       [](ZLogRecord& r) { r.domain->purchase->price = std::numeric_limits<float>::infinity(); }},
      {"location.latitude", [](ZLogRecord& r) { r.location->latitude = std::nan(""); }},
      {"buckets[1].name", [](ZLogRecord& r) { (*r.buckets)[1].name = "\xc3("; }},
      {"free", [](ZLogRecord& r) { r.free = "ok\xf8"; }},
  };
  for (const auto& [path, spoil] : cases) {
    auto record = samples::record();
    spoil(record);
    const auto encoded = encodeJson(record);
    ASSERT_FALSE(encoded) << path;
    EXPECT_EQ(encoded.error().kind, CodecError::Kind::invalidValue);
    EXPECT_EQ(encoded.error().path, path);
  }
}

// ----- the search's collections slot ----------------------------------------------------------

// A host's own value type without operator==.
struct HostCollection {
  std::vector<std::string> items;
};
static_assert(!std::equality_comparable<HostCollection>);

TEST(AnyCodableSlot, ComparesValuesWithoutEqualityAsCopiesAndOthersByValue) {
  const ZAnyCodable held(HostCollection{{"a", "b"}});
  ASSERT_NE(held.get<HostCollection>(), nullptr);
  EXPECT_EQ(held.get<HostCollection>()->items, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(held.get<std::string>(), nullptr);

  const ZAnyCodable copy = held;
  EXPECT_TRUE(copy == held);
  EXPECT_FALSE(ZAnyCodable(HostCollection{{"a", "b"}}) == held) << "no == to compare values by";
  EXPECT_FALSE(ZAnyCodable() == held);

  // A search carrying it still compares (it is never written: see the fixtures).
  const ZSearch search{.keyword = "k", .collections = held};
  EXPECT_EQ(search, (ZSearch{.keyword = "k", .collections = copy}));

  // Values with == compare by value and type.
  EXPECT_TRUE(ZAnyCodable(std::string("x")) == ZAnyCodable(std::string("x")));
  EXPECT_FALSE(ZAnyCodable(std::string("x")) == ZAnyCodable(std::string("y")));
  EXPECT_FALSE(ZAnyCodable(std::int64_t{1}) == ZAnyCodable(1));
  EXPECT_TRUE(ZAnyCodable() == ZAnyCodable());
}

}  // namespace
}  // namespace zelvanor
