// The codec's rules case by case: the one-sided members, the keys that differ between types,
// number and string forms, and where errors point. The cases that are pure text, read and written
// back or refused, are in tests/data/codec/cases.tsv; the per-type fixture checks are in
// wire_model_test.cpp.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "model/field_tables.hpp"
#include "support/data_table.hpp"
#include "support/scoped_time_zone.hpp"
#include "support/wire_json.hpp"
#include "support/wire_samples.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor {
namespace {

using testing_support::sameJson;
using Kind = CodecError::Kind;

// Reads `json` as a T and writes it back.
template <class T>
Result<std::string> readAndWrite(std::string_view json) {
  auto value = decodeJson<T>(json);
  if (!value) return value.error();
  return encodeJson(*value);
}

// The collector's answers are only ever read: the codec's own writer shows what was kept.
template <class T>
Result<std::string> readAndWriteAnswer(std::string_view json) {
  auto value = decodeJson<T>(json);
  if (!value) return value.error();
  std::string out;
  detail::JsonWriter writer(out, /*pretty=*/false);
  CodecError error;
  if (!detail::encodeValue(writer, *value, error)) return error;
  return out;
}

const std::map<std::string, Result<std::string> (*)(std::string_view)> kTypes = {
    {"ZAction", readAndWrite<ZAction>},
    {"ZAgreement", readAndWrite<ZAgreement>},
    {"ZClick", readAndWrite<ZClick>},
    {"ZCommon", readAndWrite<ZCommon>},
    {"ZConfiguration", readAndWrite<ZConfiguration>},
    {"ZId", readAndWrite<ZId>},
    {"ZLocation", readAndWrite<ZLocation>},
    {"ZLogRecord", readAndWrite<ZLogRecord>},
    {"ZPurchase", readAndWrite<ZPurchase>},
    {"ZResultEmpty", readAndWriteAnswer<ZHTTPResult<ZHTTPResultEmpty>>},
    {"ZResultXids", readAndWriteAnswer<ZHTTPResult<std::vector<ZXid>>>},
    {"ZSDK", readAndWrite<ZSDK>},
    {"ZSearch", readAndWrite<ZSearch>},
    {"ZStatus", readAndWrite<ZStatus>},
    {"ZUcid", readAndWrite<ZUcid>},
    {"ZUsage", readAndWrite<ZUsage>},
    {"ZVideoMeeting", readAndWrite<ZVideoMeeting>},
    {"ZXid", readAndWrite<ZXid>},
};

TEST(CodecCases, EachTextReadsAndWritesBackOrFailsAsTheTableSays) {
  const auto rows = testing::dataTable("codec/cases.tsv", testing::Escapes::keep);
  ASSERT_GT(rows.size(), 50u);
  for (const auto& row : rows) {
    ASSERT_EQ(row.size(), 3u);
    const std::string &type = row[0], &json = row[1], &expected = row[2];
    SCOPED_TRACE(type + " " + json);
    const auto written = kTypes.at(type)(json);
    if (expected.rfind("error ", 0) != 0) {
      ASSERT_TRUE(written) << written.error().describe();
      EXPECT_EQ(*written, expected == "=" ? json : expected);
      continue;
    }
    ASSERT_FALSE(written) << *written;
    const auto space = expected.rfind(' ');
    const std::string path = expected.substr(space + 1) == "-" ? "" : expected.substr(space + 1);
    EXPECT_EQ(toString(written.error().kind), expected.substr(6, space - 6));
    EXPECT_EQ(written.error().path, path);
    // The text names the kind and the path.
    EXPECT_EQ(written.error().describe().rfind(expected.substr(6, space - 6), 0), 0u);
    EXPECT_NE(written.error().describe().find(path), std::string::npos);
  }
}

// Members the wire never carries cannot be seen in a value written back.
TEST(CodecDecode, MembersThatAreNeverWrittenAreReadOrSkippedAsTheFormatSays) {
  EXPECT_EQ(*decodeJson<ZAgreement>(R"({"third_ad_agree":true})"),
            (ZAgreement{.thirdAdAgree = true}));
  EXPECT_EQ(*decodeJson<ZVideoMeeting>(R"({"speech_request":"raise_hand"})"),
            (ZVideoMeeting{.speechRequest = "raise_hand"}));
  EXPECT_EQ(*decodeJson<ZClick>(R"({"copy":"Buy","type":"button"})"), (ZClick{.type = "button"}));
  EXPECT_EQ(*decodeJson<ZClick>(R"({"copy":42})"), ZClick{}) << "not even type-checked";
  EXPECT_EQ(*decodeJson<ZSearch>(R"({"collections":{"any":[1]},"keyword":"mug"})"),
            (ZSearch{.keyword = "mug"}));
  const auto invalidUtf8 = decodeJson<ZUcid>("{\"id\":\"\xff\"}");
  ASSERT_FALSE(invalidUtf8);
  EXPECT_EQ(invalidUtf8.error().kind, Kind::dataCorrupted);
  EXPECT_EQ(invalidUtf8.error().path, "");

  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("batchSize"), "an unsigned integer");
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("timeout"), "a number");
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("nope"), "");
}

// The well-known action types are constants: a host's ZAction with static storage, in whatever
// file or library, finds them set, and nothing destroys them at exit.
static_assert(ZAction::ZActionType::pageView.text() == "page_view");
static_assert(ZAction::ZActionType::viewImpression.kind() ==
              ZAction::ZActionType::Case::viewImpression);
static_assert(std::is_trivially_destructible_v<ZAction::ZActionType::Known>);
const ZAction kStaticAction(ZAction::ZActionType::viewImpression, "list", "imp");

TEST(CodecEncode, ActionTypesAreUsableDuringStaticInitialization) {
  EXPECT_EQ(kStaticAction.type, "view_imp");
  const ZAction::ZActionType type = ZAction::ZActionType::location;
  EXPECT_EQ(type.kind(), ZAction::ZActionType::Case::location);
  EXPECT_NE(type, ZAction::ZActionType::custom("location")) << "a custom type is never well-known";
}

TEST(CodecEncode, PrettyStyleIndentsByTwoAndKeepsTheSameDocument) {
  EXPECT_EQ(*encodeJson(ZStatus{.code = 1, .message = "m"}, JsonStyle::pretty),
            "{\n  \"code\": 1,\n  \"msg\": \"m\"\n}");
  const auto record = samples::record();
  EXPECT_TRUE(sameJson(*encodeJson(record), *encodeJson(record, JsonStyle::pretty)));
}

// ----- numbers ----------------------------------------------------------------------------

TEST(CodecNumbers, FloatsAndDoublesSurviveARoundTripBitForBit) {
  const float floats[] = {0.1f,     0.3f,         19.99f,
                          1.0f / 3, 16777215.0f,  FLT_MIN,
                          FLT_MAX,  FLT_TRUE_MIN, std::nextafter(1.0f, 2.0f),
                          -1e-7f,   1e10f,        -0.0f};
  for (float value : floats) {
    SCOPED_TRACE(value);
    auto json = encodeJson(ZPurchase{.price = value});
    ASSERT_TRUE(json);
    auto back = decodeJson<ZPurchase>(*json);
    ASSERT_TRUE(back) << back.error().describe();
    ASSERT_TRUE(back->price);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(*back->price), std::bit_cast<std::uint32_t>(value))
        << *json;
  }
  const double doubles[] = {0.1, 1.0 / 3, -122.4194, 37.5665, DBL_MIN, DBL_MAX, 5e-324, 1e21, -0.0};
  for (double value : doubles) {
    SCOPED_TRACE(value);
    auto json = encodeJson(ZLocation{.latitude = value, .logitude = -value});
    ASSERT_TRUE(json);
    auto back = decodeJson<ZLocation>(*json);
    ASSERT_TRUE(back) << back.error().describe();
    EXPECT_EQ(std::bit_cast<std::uint64_t>(*back->latitude), std::bit_cast<std::uint64_t>(value));
    EXPECT_EQ(std::bit_cast<std::uint64_t>(*back->logitude), std::bit_cast<std::uint64_t>(-value));
  }
}

ZLogRecord minimalRecord() {
  return ZLogRecord{
      .xid = {.cid = "c", .did = "d", .sid = "s"},
      .sdk = {.type = DeploymentType::development, .version = "0.9.0", .commonLogVersion = "1.2.0"},
      .action = ZAction("event", "tap", "click")};
}

TEST(CodecEncode, ValuesJsonCannotCarryFailNamingTheKeyPath) {
  auto withPrice = samples::record();
  withPrice.domain->purchase->price = std::numeric_limits<float>::infinity();
  auto withLatitude = minimalRecord();
  withLatitude.location = ZLocation{.latitude = std::nan("")};
  auto withBucket = minimalRecord();
  withBucket.buckets = std::vector<ZBucket>{{}, {.name = "\xc3("}};
  auto withFree = minimalRecord();
  withFree.free = "ok\xf8";

  const auto failsAt = [](const auto& value, const char* path) {
    auto encoded = encodeJson(value);
    ASSERT_FALSE(encoded) << path;
    EXPECT_EQ(encoded.error().kind, Kind::invalidValue);
    EXPECT_EQ(encoded.error().path, path);
  };
  failsAt(ZUsage{.scrollPercent = std::numeric_limits<float>::quiet_NaN()}, "scroll_percent");
  failsAt(withPrice, "domain.purchase.price");
  failsAt(withLatitude, "location.latitude");
  failsAt(withBucket, "buckets[1].name");
  failsAt(withFree, "free");
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

  // A search carrying it still compares and encodes, without the slot.
  const ZSearch search{.keyword = "k", .collections = held};
  EXPECT_EQ(search, (ZSearch{.keyword = "k", .collections = copy}));
  EXPECT_EQ(*encodeJson(search), R"({"keyword":"k"})");

  // Values with == compare by value and type.
  EXPECT_TRUE(ZAnyCodable(std::string("x")) == ZAnyCodable(std::string("x")));
  EXPECT_FALSE(ZAnyCodable(std::string("x")) == ZAnyCodable(std::string("y")));
  EXPECT_FALSE(ZAnyCodable(std::int64_t{1}) == ZAnyCodable(1));
  EXPECT_TRUE(ZAnyCodable() == ZAnyCodable());
  EXPECT_TRUE(ZAnyCodable(samples::xid()) == ZAnyCodable(samples::xid()));
}

// ----- ZCommon construction -------------------------------------------------------------------

ZCommon commonStampedAt(std::optional<std::int64_t> accessTimeStamp) {
  return ZCommon({.serviceName = "s",
                  .deployment = "d",
                  .svcDomain = "x",
                  .accessTimeStamp = accessTimeStamp});
}

TEST(CommonConstruction, AccessTimeIsTheStampInTheDevicesZoneAtThatInstant) {
  ZELVANOR_SKIP_UNLESS_ZONES_FROM_TZ();
  using namespace testing;
  struct Row {
    const char* zone;
    std::int64_t stamp;
    std::string expected;
  };
  const Row rows[] = {
      {kZoneUtc, 0, "1970-01-01T00:00:00Z"},
      {kZoneUtc, -1, "1969-12-31T23:59:59Z"},
      // The offset moves the date across midnight.
      {kZoneSeoul, 1709650799, "2024-03-05T23:59:59+09:00"},
      {kZoneSeoul, 1709650800, "2024-03-06T00:00:00+09:00"},
      {kZoneKolkata, -1, "1970-01-01T05:29:59+05:30"},
      // Negative half-hour offsets, in standard and in daylight time.
      {kZoneStJohns, 1709615229, "2024-03-05T01:37:09-03:30"},
      {kZoneStJohns, 1720000000, "2024-07-03T07:16:40-02:30"},
      {kZoneNewYork, -1, "1969-12-31T18:59:59-05:00"},
      // An offset with seconds keeps them, as ZZZZZ does.
      {"<-002521>0:25:21", 1720000000, "2024-07-03T09:21:19-00:25:21"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.zone) + " @ " + std::to_string(row.stamp));
    ScopedTimeZone zone(row.zone);
    const ZCommon common = commonStampedAt(row.stamp);
    EXPECT_EQ(common.accessTimeStamp, row.stamp);
    EXPECT_EQ(common.accessTime, row.expected);
  }
}

// The rest of the constructor's derivations (no request stamp, no text without a stamp, the
// bundle identifier for an absent domain) are checked where a host's common block is decoded, in
// block_registry_test.cpp.
TEST(CommonConstruction, SvcDomainFallsBackToTheBundleIdentifierOnlyWhenAbsent) {
  setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.shop"});
  EXPECT_EQ(ZCommon({.serviceName = "s", .deployment = "d", .svcDomain = ""}).svcDomain, "")
      << "an explicit empty value still wins";
  // The identifier is read at construction, not when the fields were written.
  const ZCommon::Fields fields{.serviceName = "s", .deployment = "d"};
  setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.other"});
  EXPECT_EQ(ZCommon(fields).svcDomain, "com.example.other");
  setPlatformFacts({});
}

}  // namespace
}  // namespace zelvanor
