#include "platform/userfs/WorkQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "platform/foundation/NSError.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

// Holds work until the test lets it go on.
struct Latch {
  NSCondition condition;
  bool isOpen GUARDED_BY(condition) = false;
  size_t arrived GUARDED_BY(condition) = 0;

  void pass() {
    ConditionLock lock(condition);
    ++arrived;
    condition.broadcast();
    while (!isOpen) condition.wait();
  }
  void waitFor(size_t count) {
    ConditionLock lock(condition);
    while (arrived < count) condition.wait();
  }
  void open() {
    ConditionLock lock(condition);
    isOpen = true;
    condition.broadcast();
  }
};

TEST(WorkQueue, WorkThatTakesLongDoesNotHoldUpOther) {
  WorkQueue queue("test", 8);
  Latch latch;
  queue.add([&latch] { latch.pass(); });
  latch.waitFor(1);
  Latch other;
  queue.add([&other] { other.pass(); });
  other.waitFor(1);
  other.open();
  latch.open();
  EXPECT_TRUE(queue.waitUntilIdle());
}

TEST(WorkQueue, NoMoreThanTheMaximumRunsAtOnce) {
  WorkQueue queue("test", 2);
  Latch latch;
  std::atomic<int> running{0};
  std::atomic<int> most{0};
  for (int i = 0; i < 10; ++i) {
    queue.add([&latch, &running, &most] {
      const int now = ++running;
      int seen = most;
      while (now > seen && !most.compare_exchange_weak(seen, now)) {
      }
      latch.pass();
      --running;
    });
  }
  latch.waitFor(2);
  latch.open();
  EXPECT_TRUE(queue.waitUntilIdle());
  EXPECT_EQ(most, 2);
}

TEST(WorkQueue, OneThreadKeepsTheOrder) {
  WorkQueue queue("test", 1);
  std::vector<int> order;
  for (int i = 0; i < 100; ++i) queue.add([&order, i] { order.push_back(i); });
  queue.waitUntilIdle();
  ASSERT_EQ(order.size(), 100u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(WorkQueue, AnExceptionEndsItsWorkAlone) {
  WorkQueue queue("test", 1);
  bool wentOn = false;
  queue.add([] { throw KCException("broken"); });
  queue.add([&wentOn] { wentOn = true; });
  queue.waitUntilIdle();
  EXPECT_TRUE(wentOn);
}

TEST(WorkQueue, WaitingForWorkThatHangsEndsAtTheLimit) {
  ManualClock clock;
  WorkQueue queue("test", 1);
  Latch latch;
  queue.add([&latch] { latch.pass(); });
  latch.waitFor(1);
  std::atomic<bool> isIdle{true};
  std::thread waiter(
      [&queue, &isIdle] { isIdle = queue.waitUntilIdle(NSDate::dateWithTimeIntervalSinceNow(60)); });
  clock.waitForSleepers(1);
  clock.advance(60);
  waiter.join();
  EXPECT_FALSE(isIdle);
  latch.open();
  EXPECT_TRUE(queue.waitUntilIdle());
}

TEST(WorkQueue, AClosedQueueDropsWhatHasNotBegun) {
  WorkQueue queue("test", 1);
  Latch latch;
  std::atomic<int> done{0};
  queue.add([&latch] { latch.pass(); });
  latch.waitFor(1);
  queue.add([&done] { ++done; });
  queue.close();
  queue.add([&done] { ++done; });
  latch.open();
  EXPECT_TRUE(queue.waitUntilIdle());
  EXPECT_EQ(done, 0);
}

}  // namespace
}  // namespace ombra
