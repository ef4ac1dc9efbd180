// Events that carry their own blocks: what a ZEvent holds, that tracking one leaves the shared
// builder alone, that it waits for the identity triple like any other event, and that many host
// threads tracking at once never mix their events. Run under ThreadSanitizer in CI. Then the
// shared builder itself: last write wins for single blocks, lists grow, every build starts afresh.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "builder/log_record_builder.hpp"
#include "support/shared_tracker.hpp"
#include "zelvanor/event.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

class EventTest : public testing::SharedTrackerTest {
 protected:
  // One line per host record: its action and the per-event blocks it carries.
  std::vector<std::string> summaries() const {
    std::vector<std::string> lines;
    for (const auto& r : hostRecords()) {
      std::string buckets = r.buckets ? "" : "-";
      for (const auto& bucket : r.buckets.value_or(std::vector<ZBucket>{})) {
        buckets += (buckets.empty() ? "" : ",") + *bucket.name;
      }
      lines.push_back(r.action.name + " page=" + (r.page ? r.page->id : "-") + " click=" +
                      (r.click ? r.click->layer1.value_or("?") : "-") + " buckets=" + buckets +
                      " " + r.xid.sid + " " + (r.common ? r.common->serviceName : "-"));
    }
    return lines;
  }
};

// An event follows the shared builder's rules: the last single block wins, lists grow, text is
// dropped, and an empty list still adds the key. Before the triple, events wait as templates in
// tracking order; after it, they are built at once. Either way an event keeps its blocks, and the
// shared builder's blocks stay out of it and survive its tracking.
TEST_F(EventTest, EventsKeepTheirBlocksAndLeaveTheSharedOnesAloneBeforeAndAfterTheTriple) {
  ZEvent event;
  event.set(ZClick{.layer1 = "own-click"})
      .set(ZBucket{.name = "b1"})
      .set(std::vector<ZBucket>{{.name = "b2"}, {.name = "b3"}})
      .set(ZViewImpressionContent{.name = "v1"})
      .set(std::vector<ZViewImpressionContent>{{.name = "v2"}})
      .set(std::string("dropped"))
      .set(ZAction("event", "own", "tap"));
  EXPECT_EQ(*encodeJson(event.blocks()),
            R"({"click":{"layer1":"own-click"},"buckets":[{"name":"b1"},{"name":"b2"},)"
            R"({"name":"b3"}],"viewImpressionContents":[{"name":"v1"},{"name":"v2"}],)"
            R"("action":{"type":"event","name":"own","kind":"tap"}})");
  EXPECT_EQ(*encodeJson(ZEvent().set(std::vector<ZBucket>{}).blocks()), R"({"buckets":[]})");

  ZelvanorTracker::setDevelopment();
  ZelvanorTracker::set(ZPage{.id = "shared", .name = "p", .title = "t"})
      .set(ZBucket{.name = "shared-bucket"});
  ZelvanorTracker::track(event);
  ZEvent()
      .set(ZPage{.id = "first", .name = "p", .title = "t"})
      .set([] { return ZPage{.id = "own", .name = "p", .title = "t"}; })
      .set(ZAction("event", "3", "tap"))
      .track();
  ZEvent().set(ZAction("event", "dropped", "tap")).track(false, /*disabled=*/true);
  ZelvanorTracker::set(ZAction("event", "2", "tap")).track(false, false);
  EXPECT_EQ(detail::sharedIfRunning()->queue().templateCount(), 3u);

  setCommon();
  deliverTriple();
  ZelvanorTracker::set(ZPage{.id = "again", .name = "p", .title = "t"});
  event.track();  // the event keeps its blocks and can be tracked again
  ZEvent().set(ZPage{.id = "no-action", .name = "p", .title = "t"}).track();  // makes nothing
  ZEvent().set(ZAction("event", "dropped", "tap")).track(false, /*disabled=*/true);
  ZelvanorTracker::set(ZAction("event", "shared", "tap")).track(false, false);
  EXPECT_EQ(summaries(),
            (std::vector<std::string>{"own page=- click=own-click buckets=b1,b2,b3 s svc",
                                      "3 page=own click=- buckets=- s svc",
                                      "2 page=shared click=- buckets=shared-bucket s svc",
                                      "own page=- click=own-click buckets=b1,b2,b3 s svc",
                                      "shared page=again click=- buckets=- s svc"}));
}

// Eight host threads track their own events while another uses the shared builder: every event
// arrives once, with its own thread's blocks, and each thread's events in the order tracked.
TEST_F(EventTest, ThreadsTrackingEventsAtOnceNeverMixThem) {
  constexpr int kThreads = 8;  // and one more on the shared builder
  constexpr int kEvents = 2'000;
  becomeReady();
  ZelvanorTracker::setBatchSize(64);
  std::atomic<int> waiting{kThreads + 1};
  std::map<std::string, std::vector<std::string>> tracked;  // each thread's, in tracking order
  std::vector<std::thread> threads;
  for (int t = 0; t <= kThreads; ++t) {
    const std::string name = "t" + std::to_string(t);
    for (int i = 0; i < kEvents; ++i) {
      const std::string key = name + "-" + std::to_string(i);
      const std::string own = t < kThreads ? key : "-";
      tracked[name].push_back(key + " page=" + key + " click=" + own + " buckets=" + own +
                              " s svc");
    }
    threads.emplace_back([&, t, name] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      for (int i = 0; i < kEvents; ++i) {
        const std::string key = name + "-" + std::to_string(i);
        const ZPage page{.id = key, .name = "page", .title = "title"};
        if (t == kThreads) {
          ZelvanorTracker::set(page).set(ZAction("event", key, "shared")).track(false, false);
          continue;
        }
        ZEvent event;
        event.set(page)
            .set(ZClick{.layer1 = key})
            .set(ZBucket{.name = key})
            .set(ZAction("event", key, "tap"));
        ZelvanorTracker::track(std::move(event));
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ZelvanorTracker::flush();
  std::map<std::string, std::vector<std::string>> arrived;
  for (const auto& line : summaries()) arrived[line.substr(0, line.find('-'))].push_back(line);
  EXPECT_TRUE(arrived == tracked);
}

// ----- the shared builder underneath the facade ------------------------------------------

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

TEST(BuilderTest, TheLastBlockWinsListsGrowEveryBuildStartsAfreshAndTemplatesAreCopies) {
  ZLogRecordBuilder builder;
  builder.setPage(ZPage{.id = "1", .name = "first", .title = "t", .tab = "kept?"});
  builder.setPage(ZPage{.id = "2", .name = "second", .title = "t"});
  builder.setAgreement(ZAgreement{});
  builder.setAgreement(ZAgreement{.cookieAgree = true});
  builder.appendBucket(ZBucket{.name = "1"});
  builder.appendBucket(ZBucket{.name = "2"});
  builder.appendBuckets({ZBucket{.name = "3"}, ZBucket{.name = "4"}});
  builder.appendViewImpressionContents({});
  builder.setAction(ZAction(ZAction::ZActionType::viewImpression, "list", "imp"));
  // Nothing merged, the lists in order, an empty list still present.
  EXPECT_EQ(
      *encodeJson(builder.buildRecord(context()).value()),
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

  // Templates are value copies; building from one leaves the builder alone.
  builder.setClick(ZClick{.type = "in-template"});
  builder.setPage(ZPage{.id = "1", .name = "n", .title = "t"});
  builder.setAction(ZAction("event", "e", "k"));
  builder.appendViewImpressionContent(ZViewImpressionContent{.id = "v"});
  ZLogTemplate logTemplate = builder.makeTemplate();
  EXPECT_EQ(builder.state(), ZLogTemplate{});
  builder.setClick(ZClick{.type = "in-builder"});
  EXPECT_EQ(*encodeJson(ZLogRecordBuilder::buildRecordFromTemplate(context(), logTemplate).value()),
            std::string(kContext) +
                R"("action":{"type":"event","name":"e","kind":"k"},"ucid":{"id":"c"},)"
                R"("page":{"id":"1","name":"n","title":"t"},"click":{"type":"in-template"},)"
                R"("viewimp_contents":[{"id":"v"}]})");
  EXPECT_EQ(builder.state().click->type, "in-builder");
  EXPECT_FALSE(
      ZLogRecordBuilder::buildRecordFromTemplate(context(), ZLogTemplate{.page = ZPage{}}));
}

}  // namespace
}  // namespace zelvanor
