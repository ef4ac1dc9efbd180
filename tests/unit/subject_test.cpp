// Publish/subscribe ordering: what a subscriber sees must be the order in which values were sent,
// whichever threads send and subscribe.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "support/subject.hpp"

namespace zelvanor::support {
namespace {

using namespace std::chrono_literals;

TEST(CurrentValueSubjectTest, TheCurrentValueNeverArrivesAfterANewerOne) {
  // The manager subscribes to the network state while the first report may be sent. If the
  // state current at subscription reached the subscriber after the newer one, the SDK would
  // believe the stale state until the network changed again.
  CurrentValueSubject<int> subject(0);
  std::promise<void> handingOverCurrent;
  std::thread sender([&] {
    handingOverCurrent.get_future().wait();
    subject.send(1);
  });
  std::mutex mutex;
  std::vector<int> seen;
  subject.subscribe([&](const int& value) {
    if (value == 0) {
      handingOverCurrent.set_value();
      // Give a racing send every chance to overtake this delivery; a correct subject holds it
      // back until this returns.
      std::this_thread::sleep_for(300ms);
    }
    std::lock_guard lock(mutex);
    seen.push_back(value);
  });
  sender.join();
  EXPECT_EQ(seen, (std::vector<int>{0, 1}));
  EXPECT_EQ(subject.value(), 1);
}

TEST(CurrentValueSubjectTest, ASubscriberMaySendAndSubscribeOnTheSameSubject) {
  CurrentValueSubject<int> subject(0);
  std::vector<int> seen;
  subject.subscribe([&](const int& value) {
    seen.push_back(value);
    if (value == 1) subject.send(2);
    if (value == 2) subject.subscribe([&](const int& current) { seen.push_back(-current); });
  });
  subject.send(1);
  EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, -2}));
}

TEST(CurrentValueSubjectTest, ConcurrentSendersLeaveEverySubscriberWithTheLastValueSent) {
  CurrentValueSubject<int> subject(0);
  std::mutex mutex;
  int lastSeen = 0;
  subject.subscribe([&](const int& value) {
    std::lock_guard lock(mutex);
    lastSeen = value;
  });
  std::vector<std::thread> senders;
  for (int t = 1; t <= 4; ++t) {
    senders.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) subject.send(t * 1000 + i);
    });
  }
  for (auto& sender : senders) sender.join();
  std::lock_guard lock(mutex);
  EXPECT_EQ(lastSeen, subject.value());
}

}  // namespace
}  // namespace zelvanor::support
