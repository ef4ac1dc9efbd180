// The blocks hosts hand over by name: errors that name the key path whether the block arrives as
// text or as an already parsed value, scopes that match what an event takes, and the common
// block completed as its constructor completes it.
#include <gtest/gtest.h>
#include <simdjson.h>

#include <set>
#include <string>

#include "api/block_registry.hpp"
#include "support/data_table.hpp"
#include "support/scoped_time_zone.hpp"
#include "zelvanor/platform.hpp"

namespace zelvanor::detail {
namespace {

const BlockEntry& entry(std::string_view name) {
  const BlockEntry* found = findBlock(name);
  if (!found) throw std::runtime_error("no block " + std::string(name));
  return *found;
}

TEST(BlockRegistry, ErrorsNameTheKeyPathAlikeFromTextAndFromAParsedValue) {
  for (const auto& row : testing::dataTable("codec/blocks.tsv", testing::Escapes::keep)) {
    const std::string &name = row.at(0), &json = row.at(1);
    SCOPED_TRACE(name + " " + json);
    const auto fromText = decodeBlock(entry(name), std::string_view(json));
    ASSERT_FALSE(fromText);
    EXPECT_EQ(toString(fromText.error().kind), row.at(2)) << fromText.error().describe();
    EXPECT_EQ(fromText.error().path, row.at(3) == "-" ? "" : row[3]);

    simdjson::dom::parser parser;
    simdjson::dom::element parsed;
    if (parser.parse(json).get(parsed) != simdjson::SUCCESS) continue;
    const auto fromValue = decodeBlock(entry(name), parsed);
    ASSERT_FALSE(fromValue);
    EXPECT_EQ(fromValue.error().kind, fromText.error().kind);
    EXPECT_EQ(fromValue.error().path, fromText.error().path);
    EXPECT_EQ(fromValue.error().detail, fromText.error().detail);
  }
}

// Every settable name decodes a value its set overload takes, and the scope it declares is the
// one the types agree with: an event takes exactly the event blocks.
TEST(BlockRegistry, NamesAreUniqueAndScopesMatchWhatAnEventTakes) {
  EXPECT_EQ(findBlock("Page"), nullptr);
  std::set<std::string_view> names;
  for (const auto& e : blockEntries()) {
    EXPECT_TRUE(names.insert(e.name).second) << e.name << " twice";
    EXPECT_EQ(findBlock(e.name), &e);
    EXPECT_NE(blockNames().find(e.name), std::string::npos);
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
    EXPECT_TRUE(taken || event.blocks() == ZLogTemplate{}) << "a refused block leaves the event";
  }
}

TEST(BlockRegistry, ACommonBlockIsCompletedAsItsConstructorCompletesIt) {
  setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.registry"});
  const auto common = [](std::string_view json) {
    return std::get<ZCommon>(decodeBlock(entry("common"), json).value());
  };
  const ZCommon given = common(
      R"({"service_name":"s","deployment":"d","access_timestamp":86400,"access_time":"given",)"
      R"("request_timestamp":5,"t_msg_id":"m"})");
  EXPECT_EQ(given,
            ZCommon(ZCommon::Fields{
                .serviceName = "s", .deployment = "d", .accessTimeStamp = 86400, .tMsgId = "m"}));
  EXPECT_FALSE(given.requestTimeStamp);
  EXPECT_EQ(given.svcDomain, "com.example.registry");
  // The access time is the stamp in the device's zone at that instant, whatever text came with it.
  const std::string stamped = R"({"service_name":"s","deployment":"d","access_time":"given",)";
  for (const auto& row : testing::dataTable("codec/access_time.tsv")) {
    if (!testing::kZonesFromTz) break;  // the zone comes from the system there, not from TZ
    SCOPED_TRACE(row.at(0) + " @ " + row.at(1));
    const testing::ScopedTimeZone zone(row[0].c_str());
    EXPECT_EQ(common(stamped + R"("access_timestamp":)" + row.at(1) + "}").accessTime, row.at(2));
  }

  const ZCommon noStamp =
      common(R"({"service_name":"s","deployment":"d","svcdomain":"x.org","access_time":"given"})");
  EXPECT_FALSE(noStamp.accessTime) << "nothing to derive it from";
  EXPECT_EQ(noStamp.svcDomain, "x.org");
  EXPECT_EQ(common(R"({"service_name":"s","deployment":"d","svcdomain":""})").svcDomain, "")
      << "an explicit empty value still wins";
  // The identifier is read at construction, not when the fields were written.
  const ZCommon::Fields fields{.serviceName = "s", .deployment = "d"};
  setPlatformFacts(ZPlatformFacts{.bundleIdentifier = "com.example.other"});
  EXPECT_EQ(ZCommon(fields).svcDomain, "com.example.other");
  setPlatformFacts({});
}

}  // namespace
}  // namespace zelvanor::detail
