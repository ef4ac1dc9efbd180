// The batch threshold slides: with batch size n, n-1 records always wait until a flush.
#include <gtest/gtest.h>

#include "queue/log_record_queue.hpp"
#include "support/fake_sources.hpp"

namespace zelvanor {
namespace {

using detail::ZLogRecordQueue;
using Names = std::vector<std::string>;

ZLogRecord numberedRecord(int n) {
  return ZLogRecord{.xid = {"c", "d", "s"}, .action = {"event", std::to_string(n), "tap"}};
}

/// "from" to "to", as names.
Names range(int from, int to) {
  Names names;
  for (int i = from; i <= to; ++i) names.push_back(std::to_string(i));
  return names;
}

struct QueueTest : ::testing::Test {
  void enqueue(int from, int to, ZLogRecordQueue* into = nullptr) {
    for (int i = from; i <= to; ++i)
      (into ? *into : queue).enqueue(encodeJson(numberedRecord(i)).value());
  }
  /// Names sent so far, each with "-" when it went out with the network gate closed.
  Names sent() const {
    Names names;
    for (const auto& s : transport->sent())
      names.push_back(s.record.action.name + (s.networkAvailable ? "" : "-"));
    return names;
  }
  std::shared_ptr<testing::RecordingTransport> transport =
      std::make_shared<testing::RecordingTransport>();
  ZLogRecordQueue queue{transport};
};

TEST_F(QueueTest, TheThresholdSlidesADrainTakesItsOwnLiterallyAndAfterShutdownNothingWaits) {
  queue.setAvailableNetworking(true);
  enqueue(1, 4);
  EXPECT_EQ(sent(), Names{});
  enqueue(5, 5);
  EXPECT_EQ(sent(), range(1, 1)) << "one record per enqueue from the fifth";
  enqueue(6, 6);
  EXPECT_EQ(sent(), range(1, 2));
  EXPECT_EQ(queue.recordCount(), 4u);
  queue.flush();
  queue.flush();  // nothing left: nothing happens
  EXPECT_EQ(sent(), range(1, 6));

  queue.setBatchSize(1);
  enqueue(7, 8);
  EXPECT_EQ(sent(), range(1, 8)) << "each record at once";
  queue.setBatchSize(3);
  enqueue(9, 10);
  queue.setBatchSize(0);  // lowering sends nothing by itself
  EXPECT_EQ(queue.recordCount(), 2u);
  enqueue(11, 11);
  EXPECT_EQ(sent(), range(1, 11)) << "zero sends everything";

  // A drain's threshold is taken literally, except the all-ones one, which means zero.
  queue.setBatchSize(10);
  enqueue(12, 15);
  queue.drain(3);  // 4 >= 3: send one, 3 >= 3: send another, 2 < 3: stop
  EXPECT_EQ(sent(), range(1, 13));
  queue.drain(ZLogRecordQueue::kNoThreshold);
  EXPECT_EQ(sent(), range(1, 15));

  // After shutdown takes the table, a host thread still tracking: with batch size 10 this record
  // would wait in a table that nobody drains any more, and be lost. It is not sent either:
  // delivery is shutting down.
  enqueue(16, 17);
  ASSERT_EQ(queue.takeRecords().size(), 2u);
  enqueue(18, 18);
  EXPECT_EQ(transport->keptLate(), std::vector{numberedRecord(18)});
  EXPECT_EQ(sent(), range(1, 15));
  EXPECT_EQ(queue.recordCount(), 0u);
  const std::vector<ZLogTemplate> templates{{.free = "a"}, {.free = "b"}};
  for (const auto& t : templates) queue.appendTemplate(t);
  EXPECT_EQ(queue.takeTemplates(), templates);
  EXPECT_TRUE(queue.takeTemplates().empty()) << "handed over once";
}

TEST_F(QueueTest, RestoredAndSpilledRecordsWaitOnDiskAndLeaveOldestFirstWithTheGateState) {
  ZLogRecordQueue small(transport, /*maxRecordsInMemory=*/3);
  transport->setPending({numberedRecord(100), numberedRecord(101)});
  small.restorePendingRecords();
  EXPECT_EQ(small.recordCount(), 2u);
  small.setBatchSize(1000);
  small.setAvailableNetworking(false);
  enqueue(1, 10, &small);
  EXPECT_EQ(sent(), Names{}) << "restored records wait for the next threshold";
  EXPECT_LE(small.recordsInMemory(), 3u);
  EXPECT_GT(transport->spills(), 0);
  EXPECT_EQ(small.recordCount(), 12u) << "records on disk still count toward the threshold";
  transport->dropOldestOnDisk(1);  // for space, as the store does: the queue is not told
  EXPECT_EQ(small.recordCount(), 11u);
  small.drain(10);  // 11 >= 10: two leave, the oldest two
  EXPECT_EQ(sent(), (Names{"101-", "1-"}));
  small.setAvailableNetworking(true);
  small.setBatchSize(1);
  enqueue(11, 11, &small);
  Names expected = range(2, 11);
  expected.insert(expected.begin(), {"101-", "1-"});
  EXPECT_EQ(sent(), expected);
  EXPECT_EQ(transport->waitingOnDisk(), 0u);
}

}  // namespace
}  // namespace zelvanor
