// The blocks hosts hand over by name: errors that name the key path whether the block arrives as
// text or as an already parsed value, scopes that match what an event takes, and the common
// block completed as its constructor completes it.
#include <gtest/gtest.h>
#include <simdjson.h>

#include <set>
#include <string>
#include <vector>

#include "api/block_registry.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor::detail {
namespace {

const BlockEntry& entry(std::string_view name) {
  const BlockEntry* found = findBlock(name);
  if (!found) throw std::runtime_error("no block " + std::string(name));
  return *found;
}

TEST(BlockRegistry, ErrorsNameTheKeyPathAlikeFromTextAndFromAParsedValue) {
  struct Case {
    std::string name;
    std::string json;
    CodecError::Kind kind;
    std::string path;
  };
  using K = CodecError::Kind;
  const std::vector<Case> cases = {
      {"page", R"({"id":"p","name":"n"})", K::keyNotFound, "title"},
      {"page", R"({"id":"p","name":"n","title":null})", K::valueNotFound, "title"},
      {"page", "[]", K::typeMismatch, ""},
      {"common", R"({"service_name":"s","deployment":7})", K::typeMismatch, "deployment"},
      {"common", R"({"service_name":"s"})", K::keyNotFound, "deployment"},
      {"id", R"({"webid_enabled":"yes"})", K::typeMismatch, "webid_enabled"},
      {"domain", R"({"purchase":{"price":"cheap"}})", K::typeMismatch, "purchase.price"},
      {"domain", R"({"videoMeeting":{"utterances":["x",1]}})", K::typeMismatch,
       "videoMeeting.utterances[1]"},
      {"buckets", R"([{"name":"a"},{"name":5}])", K::typeMismatch, "[1].name"},
      {"buckets", R"([{"name":"a"},null])", K::valueNotFound, "[1]"},
      {"viewImpressionContents", R"({"not":"a list"})", K::typeMismatch, ""},
      {"action", R"({"type":"page_view","name":"x"})", K::keyNotFound, "kind"},
      {"free", "42", K::typeMismatch, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name + " " + c.json);
    const auto fromText = decodeBlock(entry(c.name), std::string_view(c.json));
    ASSERT_FALSE(fromText);
    EXPECT_EQ(fromText.error().kind, c.kind) << fromText.error().describe();
    EXPECT_EQ(fromText.error().path, c.path);

    simdjson::dom::parser parser;
    const simdjson::dom::element parsed = parser.parse(c.json).value();
    const auto fromValue = decodeBlock(entry(c.name), parsed);
    ASSERT_FALSE(fromValue);
    EXPECT_EQ(fromValue.error().kind, fromText.error().kind);
    EXPECT_EQ(fromValue.error().path, fromText.error().path);
    EXPECT_EQ(fromValue.error().detail, fromText.error().detail);
  }
  const auto notJson = decodeBlock(entry("agent"), std::string_view(R"({"carrier":)"));
  ASSERT_FALSE(notJson);
  EXPECT_EQ(notJson.error().kind, CodecError::Kind::dataCorrupted);
  EXPECT_EQ(notJson.error().path, "");
}

// Every settable name decodes a value its set overload takes, and the scope it declares is the
// one the types agree with: an event takes exactly the event blocks.
TEST(BlockRegistry, NamesAreUniqueAndScopesMatchWhatAnEventTakes) {
  std::set<std::string_view> names;
  for (const auto& e : blockEntries()) {
    EXPECT_TRUE(names.insert(e.name).second) << e.name << " twice";
    EXPECT_EQ(findBlock(e.name), &e);
    EXPECT_NE(blockNames().find(e.name), std::string::npos);
  }
  EXPECT_EQ(findBlock("Page"), nullptr);
  EXPECT_EQ(findBlock(""), nullptr);
  EXPECT_EQ(entry("app").scope, BlockScope::sdkOnly);
  EXPECT_EQ(entry("app").decode, nullptr);

  for (const auto& e : blockEntries()) {
    if (e.scope == BlockScope::sdkOnly) continue;
    SCOPED_TRACE(e.name);
    std::string json = "{}";
    if (e.shape == BlockShape::list) json = "[{}]";
    if (e.shape == BlockShape::text) json = R"("text")";
    if (e.name == "common") json = R"({"service_name":"s","deployment":"d"})";
    if (e.name == "page") json = R"({"id":"p","name":"n","title":"t"})";
    if (e.name == "action") json = R"({"type":"event","name":"n","kind":"k"})";
    auto decoded = decodeBlock(e, std::string_view(json));
    ASSERT_TRUE(decoded) << decoded.error().describe();
    ZEvent event;
    const bool taken = setOnEvent(event, std::move(decoded).value());
    EXPECT_EQ(taken, e.scope == BlockScope::event);
    if (!taken) {
      EXPECT_EQ(event.blocks(), ZLogTemplate{}) << "a refused block leaves the event";
    }
  }
}

TEST(BlockRegistry, ACommonBlockIsCompletedAsItsConstructorCompletesIt) {
  setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.registry"});
  const auto common = [](std::string_view json) {
    auto decoded = decodeBlock(entry("common"), json);
    if (!decoded) throw std::runtime_error(decoded.error().describe());
    return std::get<ZCommon>(std::move(decoded).value());
  };
  const ZCommon given = common(
      R"({"service_name":"s","deployment":"d","access_timestamp":86400,"access_time":"given",)"
      R"("request_timestamp":5,"t_msg_id":"m"})");
  EXPECT_EQ(given,
            ZCommon(ZCommon::Fields{
                .serviceName = "s", .deployment = "d", .accessTimeStamp = 86400, .tMsgId = "m"}));
  EXPECT_NE(given.accessTime, "given");
  EXPECT_FALSE(given.requestTimeStamp);
  EXPECT_EQ(given.svcDomain, "com.example.registry");

  const ZCommon noStamp =
      common(R"({"service_name":"s","deployment":"d","svcdomain":"x.org","access_time":"given"})");
  EXPECT_FALSE(noStamp.accessTime) << "nothing to derive it from";
  EXPECT_EQ(noStamp.svcDomain, "x.org");
  setPlatformFacts({});
}

}  // namespace
}  // namespace zelvanor::detail
