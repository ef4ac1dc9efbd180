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

constexpr const char* kContext =
    R"({"xid":{"cid":"c","did":"d","sid":"s"},)"
    R"("sdk":{"type":"production","version":"0.9.0","common_log_version":"1.2.0"},)";

TEST(BuilderTest, TheLastBlockWinsListsGrowAndEveryBuildStartsAfresh) {
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
  builder.appendBucket(ZBucket{.name = "1"});
  builder.appendBucket(ZBucket{.name = "2"});
  builder.appendBuckets({ZBucket{.name = "3"}, ZBucket{.name = "4"}});
  builder.appendViewImpressionContents({});
  builder.setAction(ZAction(ZAction::ZActionType::viewImpression, "list", "imp"));
  auto record = builder.buildRecord(context());
  ASSERT_TRUE(record);
  // Nothing merged, the lists in order, an empty list still present.
  EXPECT_EQ(
      *encodeJson(*record),
      std::string(kContext) +
          R"("action":{"type":"view_imp","name":"list","kind":"imp"},"ucid":{"id":"c"},)"
          R"("agreement":{"cookie_agree":true},"page":{"id":"2","name":"second","title":"t"},)"
          R"("viewimp_contents":[],"buckets":[{"name":"1"},{"name":"2"},{"name":"3"},)"
          R"({"name":"4"}]})");

  // No action: no record, and the blocks are gone all the same.
  builder.setClick(ZClick{.type = "x"});
  builder.appendBucket(ZBucket{});
  EXPECT_FALSE(builder.buildRecord(context()));
  EXPECT_EQ(builder.state(), ZLogTemplate{});
  builder.setAction(ZAction("a", "b", "c"));
  EXPECT_EQ(*encodeJson(*builder.buildRecord(context())),
            std::string(kContext) + R"("action":{"type":"a","name":"b","kind":"c"},)" +
                R"("ucid":{"id":"c"}})");
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
  EXPECT_EQ(builder.state().click->type, "in-builder");
  EXPECT_EQ(*encodeJson(*record),
            std::string(kContext) +
                R"("action":{"type":"event","name":"e","kind":"k"},"ucid":{"id":"c"},)"
                R"("page":{"id":"1","name":"n","title":"t"},"click":{"type":"in-template"},)"
                R"("viewimp_contents":[{"id":"v"}]})");

  EXPECT_FALSE(
      ZLogRecordBuilder::buildRecordFromTemplate(context(), ZLogTemplate{.page = ZPage{}}));
}

}  // namespace
}  // namespace zelvanor
