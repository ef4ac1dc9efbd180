// Events that carry their own blocks: what a ZEvent holds, that tracking one leaves the shared
// builder alone, that it waits for the identity triple like any other event, and that many host
// threads tracking while the triple arrives never lose, repeat or mix their events. Run under
// ThreadSanitizer in CI. Then the shared builder itself: last write wins for single blocks, lists
// grow, every build starts afresh.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "builder/log_record_builder.hpp"
#include "support/data_table.hpp"
#include "support/shared_tracker.hpp"
#include "zelvanor/event.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

// The lines tests/data/event/expected.txt gives under `name`, in order.
std::vector<std::string> expected(const std::string& name) {
  std::vector<std::string> lines;
  for (const auto& row : testing::dataTable("event/expected.txt", testing::Escapes::keep))
    if (row.at(0) == name) lines.push_back(row.at(1));
  return lines;
}

class EventTest : public testing::SharedTrackerTest {
 protected:
  // One line per host record: its action and the per-event blocks it carries.
  std::vector<std::string> summaries() const {
    std::vector<std::string> lines;
    for (const auto& r : hostRecords()) {
      std::string buckets = r.buckets ? "" : "-";
      for (const auto& bucket : r.buckets.value_or(std::vector<ZBucket>{}))
        buckets += (buckets.empty() ? "" : ",") + *bucket.name;
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
  EXPECT_EQ(expected("event blocks"), std::vector{*encodeJson(event.blocks())});
  EXPECT_EQ(expected("empty list"),
            std::vector{*encodeJson(ZEvent().set(std::vector<ZBucket>{}).blocks())});

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
  EXPECT_EQ(summaries(), expected("tracked"));
}

// Eight host threads track their own events while another uses the shared builder, and the
// identity triple arrives halfway through, with agent changes and flushes from the threads
// meanwhile: every event arrives exactly once, with its own thread's blocks (held as a template
// or built at once), and each thread's events in the order tracked.
TEST_F(EventTest, ThreadsTrackingEventsAtOnceNeverMixThemWhileTheTripleArrives) {
  constexpr int kThreads = 8;  // and one more on the shared builder
  constexpr int kEvents = 2'000;
  ZelvanorTracker::setDevelopment().setBatchSize(64);
  setCommon();
  std::atomic<int> waiting{kThreads + 1};
  std::atomic<int> tracked{0};
  std::map<std::string, std::vector<std::string>> want;  // each thread's, in tracking order
  std::vector<std::thread> threads;
  for (int t = 0; t <= kThreads; ++t) {
    const std::string name = "t" + std::to_string(t);
    for (int i = 0; i < kEvents; ++i) {
      const std::string key = name + "-" + std::to_string(i);
      const std::string own = t < kThreads ? key : "-";
      want[name].push_back(key + " page=" + key + " click=" + own + " buckets=" + own + " s svc");
    }
    threads.emplace_back([&, t, name] {
      waiting.fetch_sub(1);
      while (waiting.load() > 0) std::this_thread::yield();
      for (int i = 0; i < kEvents; ++i, tracked.fetch_add(1)) {
        const std::string key = name + "-" + std::to_string(i);
        const ZPage page{.id = key, .name = "page", .title = "title"};
        if (i % 100 == 0) ZelvanorTracker::set(ZAgent{.carrier = name}).flush();
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
  threads.emplace_back([&] {
    while (tracked.load() < (kThreads + 1) * kEvents / 2) std::this_thread::yield();
    fakes.identity->deliver(ZXid{"c", "d", "s"});
  });
  for (auto& thread : threads) thread.join();
  detail::sharedIfRunning()->waitForIdentityWork();
  ZelvanorTracker::flush();
  std::map<std::string, std::vector<std::string>> arrived;
  for (const auto& line : summaries()) arrived[line.substr(0, line.find('-'))].push_back(line);
  EXPECT_TRUE(arrived == want);
}

// ----- the shared builder underneath the facade ------------------------------------------

using detail::RecordContext;
using detail::ZLogRecordBuilder;

RecordContext context() {
  return RecordContext{.xid = {"c", "d", "s"},
                       .sdk = {DeploymentType::production, "0.9.0", "1.2.0"},
                       .ucid = ZUcid{.id = "c"}};
}

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
  EXPECT_EQ(expected("built"), std::vector{*encodeJson(builder.buildRecord(context()).value())});

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
  EXPECT_EQ(expected("from template"),
            std::vector{*encodeJson(
                ZLogRecordBuilder::buildRecordFromTemplate(context(), logTemplate).value())});
  EXPECT_EQ(builder.state().click->type, "in-builder");
  EXPECT_FALSE(
      ZLogRecordBuilder::buildRecordFromTemplate(context(), ZLogTemplate{.page = ZPage{}}));
}

}  // namespace
}  // namespace zelvanor
