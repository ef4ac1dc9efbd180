// The batch threshold slides: with batch size n, n-1 records always wait until a flush.
#include <gtest/gtest.h>

#include "queue/log_record_queue.hpp"
#include "support/fake_sources.hpp"

namespace zelvanor {
namespace {

using detail::ZLogRecordQueue;

ZLogRecord numberedRecord(int n) {
  return ZLogRecord{.xid = {"c", "d", "s"}, .action = {"event", std::to_string(n), "tap"}};
}

std::string numbered(int n) {
  return encodeJson(numberedRecord(n)).value();
}

struct QueueTest : ::testing::Test {
  std::vector<std::string> sentNames() const {
    std::vector<std::string> names;
    for (const auto& s : transport->sent()) names.push_back(s.record.action.name);
    return names;
  }
  std::shared_ptr<testing::RecordingTransport> transport =
      std::make_shared<testing::RecordingTransport>();
  ZLogRecordQueue queue{transport};
};

TEST_F(QueueTest, InitialBatchSizeFiveSendsOneRecordPerEnqueueFromTheFifth) {
  ASSERT_EQ(queue.batchSize(), 5u);
  for (int i = 1; i <= 4; ++i) queue.enqueue(numbered(i));
  EXPECT_TRUE(transport->sent().empty());
  queue.enqueue(numbered(5));
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"1"}));
  queue.enqueue(numbered(6));
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"1", "2"}));
  EXPECT_EQ(queue.recordCount(), 4u);
  queue.flush();
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"1", "2", "3", "4", "5", "6"}));
  queue.flush();  // nothing left: nothing happens
  EXPECT_EQ(transport->sent().size(), 6u);
}

TEST_F(QueueTest, BatchSizeOneSendsEachRecordAndZeroSendsEverything) {
  queue.setBatchSize(1);
  queue.enqueue(numbered(1));
  queue.enqueue(numbered(2));
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"1", "2"}));

  queue.setBatchSize(3);
  queue.enqueue(numbered(3));
  queue.enqueue(numbered(4));
  queue.setBatchSize(0);  // lowering sends nothing by itself
  EXPECT_EQ(queue.recordCount(), 2u);
  queue.enqueue(numbered(5));
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"1", "2", "3", "4", "5"}));
  EXPECT_EQ(queue.recordCount(), 0u);

  // A drain's threshold is taken literally, except the all-ones one, which means zero.
  queue.setBatchSize(10);
  for (int i = 6; i <= 9; ++i) queue.enqueue(numbered(i));
  queue.drain(3);  // 4 >= 3: send one, 3 >= 3: send another, 2 < 3: stop
  EXPECT_EQ(transport->sent().size(), 7u);
  queue.drain(ZLogRecordQueue::kNoThreshold);
  EXPECT_EQ(queue.recordCount(), 0u);
}

TEST_F(QueueTest, GateStateTravelsWithEachRecordAndRestoredRecordsWait) {
  transport->setPending({numberedRecord(100), numberedRecord(101)});
  queue.restorePendingRecords();
  EXPECT_EQ(queue.recordCount(), 2u);
  EXPECT_TRUE(transport->sent().empty()) << "restored records wait for the next threshold";
  queue.setBatchSize(1);
  queue.setAvailableNetworking(false);
  queue.enqueue(numbered(1));
  queue.setAvailableNetworking(true);
  queue.enqueue(numbered(2));
  const auto sent = transport->sent();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[0].record.action.name, "100");
  EXPECT_FALSE(sent[0].networkAvailable);
  EXPECT_FALSE(sent[2].networkAvailable);
  EXPECT_TRUE(sent[3].networkAvailable);
}

TEST_F(QueueTest, BeyondTheMemoryLimitRecordsWaitOnDiskAndStillLeaveOldestFirst) {
  ZLogRecordQueue small(transport, /*maxRecordsInMemory=*/3);
  transport->setPending({numberedRecord(100), numberedRecord(101)});
  small.restorePendingRecords();
  small.setBatchSize(1000);
  small.setAvailableNetworking(true);
  for (int i = 1; i <= 10; ++i) small.enqueue(numbered(i));
  EXPECT_LE(small.recordsInMemory(), 3u);
  EXPECT_GT(transport->spills(), 0);
  EXPECT_EQ(small.recordCount(), 12u) << "records on disk still count toward the threshold";
  small.drain(11);  // 12 >= 11: two leave, the oldest two (restored)
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"100", "101"}));
  small.flush();
  EXPECT_EQ(sentNames(), (std::vector<std::string>{"100", "101", "1", "2", "3", "4", "5", "6", "7",
                                                   "8", "9", "10"}));
  EXPECT_EQ(transport->waitingOnDisk(), 0u);
}

TEST_F(QueueTest, AfterShutdownTakesTheTableLateRecordsAndTemplatesAreHandedOverOnce) {
  queue.enqueue(numbered(1));
  queue.enqueue(numbered(2));
  const auto taken = queue.takeRecords();
  ASSERT_EQ(taken.size(), 2u);
  // A host thread still tracking: with batch size 5 this record would wait in a table that
  // nobody drains any more, and be lost. It is not sent either: delivery is shutting down.
  queue.enqueue(numbered(3));
  const auto late = transport->keptLate();
  ASSERT_EQ(late.size(), 1u);
  EXPECT_EQ(late[0].action.name, "3");
  EXPECT_TRUE(sentNames().empty());
  EXPECT_EQ(queue.recordCount(), 0u);

  queue.appendTemplate(ZLogTemplate{.free = "a"});
  queue.appendTemplate(ZLogTemplate{.free = "b"});
  auto templates = queue.takeTemplates();
  ASSERT_EQ(templates.size(), 2u);
  EXPECT_EQ(templates[0].free, "a");
  EXPECT_EQ(templates[1].free, "b");
  EXPECT_TRUE(queue.takeTemplates().empty()) << "handed over once";
}

}  // namespace
}  // namespace zelvanor
