// Events that carry their own blocks: what a ZEvent holds, that tracking one leaves the shared
// builder alone, that it waits for the identity triple like any other event, and that many host
// threads tracking at once never mix their events. Run under ThreadSanitizer in CI.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/shared_tracker.hpp"
#include "zelvanor/event.hpp"
#include "zelvanor/json.hpp"
#include "zelvanor/tracker.hpp"

namespace zelvanor {
namespace {

class EventTest : public testing::SharedTrackerTest {
 protected:
  void start() { ZelvanorTracker::setDevelopment(); }
  static std::string bucketNames(const ZLogRecord& r) {
    if (!r.buckets) return "-";
    std::string names;
    for (const auto& bucket : *r.buckets) names += (names.empty() ? "" : ",") + *bucket.name;
    return names;
  }
  // One line per host record: its action and the per-event blocks it carries.
  std::vector<std::string> summaries() const {
    std::vector<std::string> lines;
    for (const auto& r : hostRecords()) {
      lines.push_back(r.action.name + " page=" + (r.page ? r.page->id : "-") +
                      " click=" + (r.click ? r.click->layer1.value_or("?") : "-") +
                      " buckets=" + bucketNames(r) + " " + r.xid.sid + " " +
                      (r.common ? r.common->serviceName : "-"));
    }
    return lines;
  }
};

TEST_F(EventTest, BlocksFollowTheSharedBuildersRules) {
  ZEvent event;
  event.set(ZPage{.id = "first", .name = "p", .title = "t"})
      .set([] { return ZPage{.id = "second", .name = "p", .title = "t"}; })
      .set(ZBucket{.name = "b1"})
      .set(std::vector<ZBucket>{{.name = "b2"}, {.name = "b3"}})
      .set(ZViewImpressionContent{.name = "v1"})
      .set(std::vector<ZViewImpressionContent>{{.name = "v2"}})
      .set(std::string("dropped"));
  // The last page wins, lists grow, text is dropped; an empty list still adds the key.
  EXPECT_EQ(*encodeJson(event.blocks()),
            R"({"page":{"id":"second","name":"p","title":"t"},)"
            R"("buckets":[{"name":"b1"},{"name":"b2"},{"name":"b3"}],)"
            R"("viewImpressionContents":[{"name":"v1"},{"name":"v2"}]})");
  EXPECT_EQ(*encodeJson(ZEvent().set(std::vector<ZBucket>{}).blocks()), R"({"buckets":[]})");
}

TEST_F(EventTest, TrackingAnEventLeavesTheSharedBlocksAlone) {
  becomeReady();
  ZelvanorTracker::set(ZPage{.id = "shared", .name = "p", .title = "t"})
      .set(ZBucket{.name = "shared-bucket"});

  ZEvent event;
  event.set(ZClick{.layer1 = "own-click"}).set(ZAction("event", "own", "tap"));
  ZelvanorTracker::track(event);
  event.track();  // the event keeps its blocks and can be tracked again
  ZEvent().set(ZPage{.id = "no-action", .name = "p", .title = "t"}).track();  // makes nothing
  ZEvent().set(ZAction("event", "dropped", "tap")).track(false, /*disabled=*/true);
  ZelvanorTracker::set(ZAction("event", "shared", "tap")).track(false, false);

  // The shared page and bucket never leak into the event; the shared context does go into it.
  EXPECT_EQ(summaries(),
            (std::vector<std::string>{"own page=- click=own-click buckets=- s svc",
                                      "own page=- click=own-click buckets=- s svc",
                                      "shared page=shared click=- buckets=shared-bucket s svc"}));
}

TEST_F(EventTest, BeforeTheTripleEventsWaitAsTemplatesInTrackingOrder) {
  start();
  ZEvent().set(ZAction("event", "1", "tap")).track();
  ZelvanorTracker::set(ZPage{.id = "shared", .name = "p", .title = "t"})
      .set(ZAction("event", "2", "tap"))
      .track(false, false);
  ZEvent()
      .set(ZPage{.id = "own", .name = "p", .title = "t"})
      .set(ZAction("event", "3", "tap"))
      .track();
  ZEvent().set(ZAction("event", "disabled", "tap")).track(false, /*disabled=*/true);
  EXPECT_EQ(detail::sharedIfRunning()->queue().templateCount(), 3u);
  EXPECT_TRUE(hostRecords().empty());

  setCommon();
  deliverTriple();
  EXPECT_EQ(summaries(), (std::vector<std::string>{"1 page=- click=- buckets=- s svc",
                                                   "2 page=shared click=- buckets=- s svc",
                                                   "3 page=own click=- buckets=- s svc"}));
}

// Eight host threads track their own events while another uses the shared builder: every event
// arrives once, with its own thread's blocks, and each thread's events in the order tracked.
TEST_F(EventTest, ThreadsTrackingEventsAtOnceNeverMixThem) {
  constexpr int kThreads = 8;
  constexpr int kEventsPerThread = 2'000;
  constexpr int kSharedEvents = 500;
  becomeReady();
  ZelvanorTracker::setBatchSize(64);

  std::atomic<int> waiting{kThreads + 1};
  auto startTogether = [&] {
    waiting.fetch_sub(1);
    while (waiting.load() > 0) std::this_thread::yield();
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      startTogether();
      for (int i = 0; i < kEventsPerThread; ++i) {
        const std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
        ZEvent event;
        event.set(ZPage{.id = key, .name = "page", .title = "title"})
            .set(ZClick{.layer1 = key})
            .set(ZBucket{.name = key})
            .set(ZAction("event", key, "tap"));
        ZelvanorTracker::track(std::move(event));
      }
    });
  }
  threads.emplace_back([&] {
    startTogether();
    for (int i = 0; i < kSharedEvents; ++i) {
      const std::string key = "g-" + std::to_string(i);
      ZelvanorTracker::set(ZPage{.id = key, .name = "page", .title = "title"})
          .set(ZAction("event", key, "shared"))
          .track(false, false);
    }
  });
  for (auto& thread : threads) thread.join();
  ZelvanorTracker::flush();

  // Each thread's events, in the order they arrived, against the order it tracked them in.
  std::map<std::string, std::vector<std::string>> arrived;
  for (const auto& line : summaries()) arrived[line.substr(0, line.find('-'))].push_back(line);
  std::map<std::string, std::vector<std::string>> tracked;
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kEventsPerThread; ++i) {
      const std::string key = "t" + std::to_string(t) + "-" + std::to_string(i);
      tracked["t" + std::to_string(t)].push_back(key + " page=" + key + " click=" + key +
                                                 " buckets=" + key + " s svc");
    }
  }
  // One thread alone on the shared builder keeps its events whole.
  for (int i = 0; i < kSharedEvents; ++i) {
    const std::string key = "g-" + std::to_string(i);
    tracked["g"].push_back(key + " page=" + key + " click=- buckets=- s svc");
  }
  EXPECT_TRUE(arrived == tracked);
}

}  // namespace
}  // namespace zelvanor
