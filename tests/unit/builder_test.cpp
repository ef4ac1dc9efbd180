// Per-event blocks: last write wins for single blocks, lists grow, every build starts afresh.
#include <gtest/gtest.h>

#include "builder/log_record_builder.hpp"
#include "zelvanor/json.hpp"

namespace zelvanor {
namespace {

using detail::RecordContext;
using detail::ZLogRecordBuilder;

RecordContext context() {
  return RecordContext{.xid = {"c", "d", "s"},
                       .sdk = {DeploymentType::production, "0.9.0", "1.2.0"},
                       .ucid = ZUcid{.id = "c"}};
}

TEST(BuilderTest, OverrideKeepsOnlyTheLastBlockAndComposesAnUnshownWarning) {
  ZLogRecordBuilder builder;
  builder.setPage(ZPage{.id = "1", .name = "first", .title = "t", .tab = "kept?"});
  EXPECT_TRUE(builder.lastOverrideWarning().empty());
  builder.setPage(ZPage{.id = "2", .name = "second", .title = "t"});
  EXPECT_EQ(builder.lastOverrideWarning().rfind("Are you sure overriding ", 0), 0u);
  EXPECT_NE(
      builder.lastOverrideWarning().find(
          " value?. You are already set value. If you don't want excute track() method first."),
      std::string::npos);
  builder.setAgreement(ZAgreement{});
  builder.setAgreement(ZAgreement{.cookieAgree = true});
  EXPECT_NE(builder.lastOverrideWarning().find(" value?.  You are already"), std::string::npos);

  builder.setAction(ZAction("event", "n", "k"));
  auto record = builder.buildRecord(context());
  ASSERT_TRUE(record);
  EXPECT_EQ(record->page, (ZPage{.id = "2", .name = "second", .title = "t"})) << "nothing merged";
  EXPECT_EQ(record->agreement, (ZAgreement{.cookieAgree = true}));
  EXPECT_EQ(record->sdk.type, DeploymentType::production);
}

TEST(BuilderTest, ListsAppendInOrderAcrossSingleAndBulkCalls) {
  ZLogRecordBuilder builder;
  builder.appendBucket(ZBucket{.name = "1"});
  builder.appendBucket(ZBucket{.name = "2"});
  builder.appendBuckets({ZBucket{.name = "3"}, ZBucket{.name = "4"}, ZBucket{.name = "5"}});
  builder.appendViewImpressionContents({});
  builder.setAction(ZAction(ZAction::ZActionType::viewImpression, "list", "imp"));
  auto record = builder.buildRecord(context());
  ASSERT_TRUE(record && record->buckets);
  std::string names;
  for (const auto& b : *record->buckets) names += *b.name;
  EXPECT_EQ(names, "12345");
  ASSERT_TRUE(record->viewImpressionContents);
  EXPECT_TRUE(record->viewImpressionContents->empty()) << "an empty list is still present";
  EXPECT_EQ(record->action.type, "view_imp");
}

TEST(BuilderTest, NoActionMeansNoRecordAndAFreshStart) {
  ZLogRecordBuilder builder;
  builder.setPage(ZPage{.id = "1", .name = "n", .title = "t"});
  builder.setClick(ZClick{.type = "x"});
  builder.appendBucket(ZBucket{});
  EXPECT_FALSE(builder.buildRecord(context()));
  EXPECT_EQ(builder.state(), ZLogTemplate{});
  builder.setAction(ZAction("a", "b", "c"));
  auto record = builder.buildRecord(context());
  ASSERT_TRUE(record);
  EXPECT_FALSE(record->page);
  EXPECT_FALSE(record->click);
  EXPECT_FALSE(record->buckets);
}

TEST(BuilderTest, TemplatesAreValueCopiesAndBuildWithoutTouchingTheBuilder) {
  ZLogRecordBuilder builder;
  EXPECT_EQ(*encodeJson(builder.makeTemplate()), "{}");

  builder.setClick(ZClick{.type = "in-template"});
  builder.setPage(ZPage{.id = "1", .name = "n", .title = "t"});
  builder.setAction(ZAction("event", "e", "k"));
  builder.appendViewImpressionContent(ZViewImpressionContent{.id = "v"});
  ZLogTemplate logTemplate = builder.makeTemplate();
  EXPECT_EQ(builder.state(), ZLogTemplate{});
  EXPECT_EQ(
      *encodeJson(logTemplate),
      R"({"click":{"type":"in-template"},"page":{"id":"1","name":"n","title":"t"},)"
      R"("viewImpressionContents":[{"id":"v"}],"action":{"type":"event","name":"e","kind":"k"}})");

  builder.setClick(ZClick{.type = "in-builder"});
  auto record = ZLogRecordBuilder::buildRecordFromTemplate(context(), logTemplate);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->click->type, "in-template");
  EXPECT_EQ(builder.state().click->type, "in-builder");
  const std::string json = *encodeJson(*record);
  EXPECT_NE(json.find(R"("viewimp_contents":[{"id":"v"}])"), std::string::npos);
  EXPECT_EQ(json.find("viewImpressionContents"), std::string::npos);

  EXPECT_FALSE(
      ZLogRecordBuilder::buildRecordFromTemplate(context(), ZLogTemplate{.page = ZPage{}}));
}

}  // namespace
}  // namespace zelvanor
