// The codec's rules case by case: the one-sided members, the keys that differ between types,
// number and string forms, and where errors point. The per-type fixture checks are in
// wire_model_test.cpp.
#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "model/field_tables.hpp"
#include "support/scoped_time_zone.hpp"
#include "support/wire_json.hpp"
#include "support/wire_samples.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor {
namespace {

using testing_support::sameJson;
using Kind = CodecError::Kind;

template <class T>
std::function<Result<std::string>()> encoding(T value) {
  return [value] { return encodeJson(value); };
}

// Decodes `json` as a T and compares with `expected`.
template <class T>
std::function<::testing::AssertionResult()> decoding(std::string json, T expected) {
  return [json, expected]() -> ::testing::AssertionResult {
    auto decoded = decodeJson<T>(json);
    if (!decoded) return ::testing::AssertionFailure() << decoded.error().describe();
    if (*decoded == expected) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "decoded value differs";
  };
}

template <class T>
std::function<std::optional<CodecError>()> decodeFailure(std::string json) {
  return [json]() -> std::optional<CodecError> {
    auto decoded = decodeJson<T>(json);
    if (decoded) return std::nullopt;
    return decoded.error();
  };
}

template <class T>
std::function<std::optional<CodecError>()> encodeFailure(T value) {
  return [value]() -> std::optional<CodecError> {
    auto encoded = encodeJson(value);
    if (encoded) return std::nullopt;
    return encoded.error();
  };
}

ZLogRecord minimalRecord() {
  return ZLogRecord{
      .xid = {.cid = "c", .did = "d", .sid = "s"},
      .sdk = {.type = DeploymentType::development, .version = "0.9.0", .commonLogVersion = "1.2.0"},
      .action = ZAction("event", "tap", "click")};
}

constexpr const char* kMinimalRecord =
    R"({"xid":{"cid":"c","did":"d","sid":"s"},)"
    R"("sdk":{"type":"development","version":"0.9.0","common_log_version":"1.2.0"},)"
    R"("action":{"type":"event","name":"tap","kind":"click"})";

std::string minimalRecordWith(const std::string& members) {
  return std::string(kMinimalRecord) + (members.empty() ? "" : ",") + members + "}";
}

// ----- exact output ---------------------------------------------------------------------------

struct EncodeRow {
  const char* label;
  std::function<Result<std::string>()> encode;
  std::string expected;
};

// Which members each type writes and under which keys is checked against the fixtures in
// wire_model_test.cpp; these are the forms the fixtures do not show.
TEST(CodecEncode, WritesEmptyListsAndEscapedText) {
  ZLogRecord withLists = minimalRecord();
  withLists.viewImpressionContents = std::vector<ZViewImpressionContent>{{.id = "a"}};
  withLists.buckets = std::vector<ZBucket>{};
  const EncodeRow rows[] = {
      {"record lists", encoding(withLists),
       minimalRecordWith(R"("viewimp_contents":[{"id":"a"}],"buckets":[])")},
      {"empty array", encoding(ZSearch{.tabOrder = std::vector<std::string>{}}),
       R"({"tab_order":[]})"},
      {"escapes quotes, backslashes and controls but not slashes",
       encoding(ZAction("a/b", "q\"\\", std::string("\n\t\x01\x1f", 4))),
       R"({"type":"a/b","name":"q\"\\","kind":"\n\t\u0001\u001f"})"},
      {"non-ASCII text passes through as UTF-8", encoding(ZUcid{.id = "\xed\x95\x9c \xe2\x9c\x93"}),
       "{\"id\":\"\xed\x95\x9c \xe2\x9c\x93\"}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    auto json = row.encode();
    ASSERT_TRUE(json) << json.error().describe();
    EXPECT_EQ(*json, row.expected);
  }
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

// ----- numbers --------------------------------------------------------------------------------

TEST(CodecNumbers, FloatsAreWrittenAsTheShortestTextThatReadsBack) {
  const std::pair<float, const char*> rows[] = {
      {0.1f, "0.1"},   {0.5f, "0.5"},   {19.99f, "19.99"},          {1.0f / 3, "0.33333334"},
      {100.0f, "100"}, {-2.5f, "-2.5"}, {FLT_MAX, "3.4028235e+38"}, {-0.0f, "-0.0"},
  };
  for (const auto& [value, text] : rows) {
    EXPECT_EQ(*encodeJson(ZUsage{.scrollPercent = value}),
              std::string(R"({"scroll_percent":)") + text + "}");
  }
}

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

TEST(CodecNumbers, SixtyFourBitIntegersAreExact) {
  const std::pair<std::int64_t, const char*> rows[] = {
      {std::numeric_limits<std::int64_t>::max(), "9223372036854775807"},
      {std::numeric_limits<std::int64_t>::min(), "-9223372036854775808"},
      {9007199254740993, "9007199254740993"},  // 2^53 + 1: a double would lose it
      {0, "0"},
      {-1, "-1"},
  };
  for (const auto& [value, text] : rows) {
    const std::string json = std::string(R"({"code":)") + text + "}";
    EXPECT_EQ(*encodeJson(ZStatus{.code = value}), json);
    EXPECT_TRUE(decoding(json, ZStatus{.code = value})());
  }
}

// The host's configuration text: member names as keys, all required, and an unsigned batch size
// over its whole range, which the blocks' signed integers never need.
TEST(CodecNumbers, TheConfigurationsBatchSizeIsUnsignedOverItsWholeRange) {
  EXPECT_TRUE(decoding(R"({"timeout":2,"batchSize":18446744073709551615,)"
                       R"("usingSandboxEnvironment":true,"op":"x"})",
                       ZConfiguration{2.0, std::numeric_limits<std::uint64_t>::max(), true})());
  EXPECT_TRUE(decoding(R"({"usingSandboxEnvironment":false,"batchSize":0,"timeout":0.25})",
                       ZConfiguration{0.25, 0, false})());
  const ZConfiguration large{1.5, std::numeric_limits<std::uint64_t>::max(), false};
  EXPECT_EQ(*decodeJson<ZConfiguration>(*encodeJson(large)), large);

  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("batchSize"), "an unsigned integer");
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("timeout"), "a number");
  EXPECT_EQ(detail::expectedJsonAt<ZConfiguration>("nope"), "");
}

// ----- what decoding reads --------------------------------------------------------------------

TEST(CodecDecode, ReadsOnlyWhatTheFormatSaysInAnyOrder) {
  ZLogRecord withoutList = minimalRecord();
  ZCommon common;
  common.serviceName = "s";
  common.deployment = "p";
  common.url = "u";
  struct Row {
    const char* label;
    std::function<::testing::AssertionResult()> check;
  };
  const Row rows[] = {
      {"third_ad_agree is read",
       decoding(R"({"third_ad_agree":true})", ZAgreement{.thirdAdAgree = true})},
      {"speech_request is read", decoding(R"({"speech_request":"raise_hand"})",
                                          ZVideoMeeting{.speechRequest = "raise_hand"})},
      {"copy is not read", decoding(R"({"copy":"Buy","type":"button"})", ZClick{.type = "button"})},
      {"copy is not even type-checked", decoding(R"({"copy":42})", ZClick{})},
      {"collections is not read",
       decoding(R"({"collections":{"any":[1]},"keyword":"mug"})", ZSearch{.keyword = "mug"})},
      {"lower-case utterance_type is unknown",
       decoding(R"({"utterance_type":"x"})", ZVideoMeeting{})},
      {"longitude is unknown",
       decoding(R"({"longitude":127.0,"latitude":37.5})", ZLocation{.latitude = 37.5})},
      {"message is unknown for a status", decoding(R"({"message":"x"})", ZStatus{})},
      {"webid_enabled false is kept",
       decoding(R"({"webid_enabled":false})", ZId{.webIdEnabled = false})},
      {"specific is ignored, whatever it holds",
       decoding(minimalRecordWith(R"("specific":{"x":[1,2]})"), minimalRecord())},
      {"specific of a scalar type is ignored too",
       decoding(minimalRecordWith(R"("specific":7)"), minimalRecord())},
      {"a record reads its list only under viewimp_contents",
       decoding(minimalRecordWith(R"("viewImpressionContents":[{"id":"a"}])"), withoutList)},
      {"_code and _message are never read",
       decoding(
           R"({"version":2,"status":{"code":"0","msg":"ok"},"_code":5,"_message":[true]})",
           ZHTTPResult<ZHTTPResultEmpty>{.version = 2, .status = {.code = "0", .message = "ok"}})},
      {"null data is no data",
       decoding(
           R"({"version":1,"status":{"code":"0","msg":"ok"},"data":null})",
           ZHTTPResult<std::vector<ZXid>>{.version = 1, .status = {.code = "0", .message = "ok"}})},
      {"empty payload accepts any object",
       decoding(R"({"version":1,"status":{"code":"0","msg":"ok"},"data":{"x":1}})",
                ZHTTPResult<ZHTTPResultEmpty>{.version = 1,
                                              .status = {.code = "0", .message = "ok"},
                                              .data = ZHTTPResultEmpty{}})},
      {"integer text for a float",
       decoding(R"({"scroll_percent":2})", ZUsage{.scrollPercent = 2.0f})},
      {"integer text for a double", decoding(R"({"latitude":-90})", ZLocation{.latitude = -90.0})},
      // FLT_MAX's own shortest text is slightly above FLT_MAX when read exactly.
      {"FLT_MAX", decoding(R"({"price":3.4028235e+38})", ZPurchase{.price = FLT_MAX})},
      {"-FLT_MAX", decoding(R"({"price":-3.4028235e38})", ZPurchase{.price = -FLT_MAX})},
      {"escapes are decoded",
       decoding(R"({"cid":"a\/b","did":"\u00e9\n","sid":"\ud83d\ude00"})",
                ZXid{.cid = "a/b", .did = "\xc3\xa9\n", .sid = "\xf0\x9f\x98\x80"})},
      // Members are looked for in table order first; every other order, gaps and repeats must
      // read the same as before.
      {"reversed", decoding(R"({"sid":"s","did":"d","cid":"c"})", ZXid{"c", "d", "s"})},
      {"a repeated key keeps its last value",
       decoding(R"({"cid":"a","did":"d","sid":"s","cid":"b"})", ZXid{"b", "d", "s"})},
      {"a later null empties an optional member",
       decoding(R"({"type":"button","layer1":"x","type":null})", ZClick{.layer1 = "x"})},
      {"gaps, unknown keys and a step back",
       decoding(R"({"deployment":"p","x":1,"service_name":"s","zzz":null,"url":"u"})", common)},
      {"keys one byte off or cut short are unknown",
       decoding(R"({"cid":"c","did":"d","sie":"x","si":"y","sidd":"z","sid":"s"})",
                ZXid{"c", "d", "s"})},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_TRUE(row.check());
  }
}

TEST(CodecDecode, ErrorsNameTheKindAndTheKeyPath) {
  const auto config = [](std::string batchSize) {
    return "{" + batchSize + R"("timeout":1,"usingSandboxEnvironment":false})";
  };
  struct Row {
    const char* label;
    std::function<std::optional<CodecError>()> decode;
    Kind kind;
    const char* path;
  };
  const Row rows[] = {
      {"deployment text is case-sensitive",
       decodeFailure<ZSDK>(R"({"type":"Development","version":"","common_log_version":""})"),
       Kind::dataCorrupted, "type"},
      {"deployment text is exact",
       decodeFailure<ZLogRecord>(
           R"({"xid":{"cid":"","did":"","sid":""},"action":{"type":"","name":"","kind":""},)"
           R"("sdk":{"type":"prod","version":"","common_log_version":""}})"),
       Kind::dataCorrupted, "sdk.type"},
      {"missing key in a nested block",
       decodeFailure<ZLogRecord>(R"({"xid":{"cid":"c","did":"d"},"sdk":{},"action":{}})"),
       Kind::keyNotFound, "xid.sid"},
      {"null required block", decodeFailure<ZLogRecord>(R"({"xid":null})"), Kind::valueNotFound,
       "xid"},
      {"wrong type inside a list",
       decodeFailure<ZLogRecord>(minimalRecordWith(R"("buckets":[{},{"name":5}])")),
       Kind::typeMismatch, "buckets[1].name"},
      {"null list element",
       decodeFailure<ZLogRecord>(minimalRecordWith(R"("viewimp_contents":[null])")),
       Kind::valueNotFound, "viewimp_contents[0]"},
      {"null string in a nested list",
       decodeFailure<ZLogRecord>(
           minimalRecordWith(R"("domain":{"videoMeeting":{"utterances":["a",null]}})")),
       Kind::valueNotFound, "domain.videoMeeting.utterances[1]"},
      {"wrong element type in a string list",
       decodeFailure<ZLogRecord>(minimalRecordWith(R"("domain":{"search":{"tab_order":[1]}})")),
       Kind::typeMismatch, "domain.search.tab_order[0]"},
      {"wrong type deep in a domain block",
       decodeFailure<ZLogRecord>(minimalRecordWith(R"("domain":{"purchase":{"price":"9.99"}})")),
       Kind::typeMismatch, "domain.purchase.price"},
      {"read-only members are type-checked",
       decodeFailure<ZAgreement>(R"({"third_ad_agree":"yes"})"), Kind::typeMismatch,
       "third_ad_agree"},
      {"read-only speech_request is type-checked",
       decodeFailure<ZVideoMeeting>(R"({"speech_request":1})"), Kind::typeMismatch,
       "speech_request"},
      {"status message must be under msg",
       decodeFailure<ZHTTPResult<ZHTTPResultEmpty>>(
           R"({"version":1,"status":{"code":"0","message":"ok"}})"),
       Kind::keyNotFound, "status.msg"},
      {"envelope needs status",
       decodeFailure<ZHTTPResult<ZHTTPResultEmpty>>(R"({"version":1,"data":{}})"),
       Kind::keyNotFound, "status"},
      {"envelope needs version",
       decodeFailure<ZHTTPResult<ZHTTPResultEmpty>>(R"({"status":{"code":"0","msg":"ok"}})"),
       Kind::keyNotFound, "version"},
      {"sync payload needs the whole triple",
       decodeFailure<ZHTTPResult<std::vector<ZXid>>>(
           R"({"version":1,"status":{"code":"0","msg":"ok"},"data":[{"cid":"a","did":"b"}]})"),
       Kind::keyNotFound, "data[0].sid"},
      {"invalid UTF-8 in the text", decodeFailure<ZUcid>("{\"id\":\"\xff\"}"), Kind::dataCorrupted,
       ""},
      // Numbers of the wrong kind or out of range.
      {"int64 overflow", decodeFailure<ZStatus>(R"({"code":9223372036854775808})"),
       Kind::dataCorrupted, "code"},
      {"fraction for an integer", decodeFailure<ZStatus>(R"({"code":1.5})"), Kind::typeMismatch,
       "code"},
      {"text for an integer", decodeFailure<ZStatus>(R"({"code":"12"})"), Kind::typeMismatch,
       "code"},
      {"bool for an integer", decodeFailure<ZStatus>(R"({"code":true})"), Kind::typeMismatch,
       "code"},
      {"float overflow", decodeFailure<ZUsage>(R"({"scroll_percent":1e39})"), Kind::dataCorrupted,
       "scroll_percent"},
      {"rounds to infinity", decodeFailure<ZPurchase>(R"({"price":3.4028236e38})"),
       Kind::dataCorrupted, "price"},
      {"text for a float", decodeFailure<ZUsage>(R"({"scroll_percent":"0.5"})"), Kind::typeMismatch,
       "scroll_percent"},
      {"number for a bool", decodeFailure<ZId>(R"({"webid_enabled":0})"), Kind::typeMismatch,
       "webid_enabled"},
      {"text for a bool", decodeFailure<ZId>(R"({"webid_enabled":"false"})"), Kind::typeMismatch,
       "webid_enabled"},
      // The configuration's batch size is unsigned, and every member is required.
      {"negative batch size", decodeFailure<ZConfiguration>(config(R"("batchSize":-1,)")),
       Kind::dataCorrupted, "batchSize"},
      {"fractional batch size", decodeFailure<ZConfiguration>(config(R"("batchSize":2.5,)")),
       Kind::typeMismatch, "batchSize"},
      {"batch size as text", decodeFailure<ZConfiguration>(config(R"("batchSize":"3",)")),
       Kind::typeMismatch, "batchSize"},
      {"null batch size", decodeFailure<ZConfiguration>(config(R"("batchSize":null,)")),
       Kind::valueNotFound, "batchSize"},
      {"no batch size", decodeFailure<ZConfiguration>(config("")), Kind::keyNotFound, "batchSize"},
      // Not JSON, or not an object: the error is at the root.
      {"no text", decodeFailure<ZXid>(""), Kind::dataCorrupted, ""},
      {"cut short", decodeFailure<ZXid>(R"({"cid":"c","did)"), Kind::dataCorrupted, ""},
      {"trailing text", decodeFailure<ZXid>(R"({"cid":"c","did":"d","sid":"s"} {})"),
       Kind::dataCorrupted, ""},
      {"missing value", decodeFailure<ZXid>(R"({"a":})"), Kind::dataCorrupted, ""},
      {"an array", decodeFailure<ZXid>(R"([{"cid":"c","did":"d","sid":"s"}])"), Kind::typeMismatch,
       ""},
      {"a string", decodeFailure<ZXid>(R"("text")"), Kind::typeMismatch, ""},
      {"null", decodeFailure<ZXid>("null"), Kind::typeMismatch, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    auto error = row.decode();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, row.kind) << error->describe();
    EXPECT_EQ(error->path, row.path) << error->describe();
    // The text names the kind and the path.
    EXPECT_NE(error->describe().find(toString(row.kind)), std::string::npos) << error->describe();
    EXPECT_NE(error->describe().find(row.path), std::string::npos) << error->describe();
  }
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

  struct Row {
    std::function<std::optional<CodecError>()> encode;
    const char* path;
  };
  const Row rows[] = {
      {encodeFailure(ZUsage{.scrollPercent = std::numeric_limits<float>::quiet_NaN()}),
       "scroll_percent"},
      {encodeFailure(withPrice), "domain.purchase.price"},
      {encodeFailure(withLatitude), "location.latitude"},
      {encodeFailure(withBucket), "buckets[1].name"},
      {encodeFailure(withFree), "free"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.path);
    auto error = row.encode();
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, Kind::invalidValue);
    EXPECT_EQ(error->path, row.path);
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
