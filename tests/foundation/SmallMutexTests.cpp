#include "platform/foundation/SmallMutex.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace ombra {
namespace {

TEST(SmallMutex, TakesFourBytes) { EXPECT_EQ(sizeof(SmallMutex), 4u); }

struct Counted {
  SmallMutex lock;
  int count GUARDED_BY(lock) = 0;

  void add() {
    const SmallMutexLock held(lock);
    ++count;
  }
  int value() {
    const SmallMutexLock held(lock);
    return count;
  }
};

TEST(SmallMutex, LetsOneInAtATime) {
  constexpr int kThreads = 8, kTimes = 5000;
  Counted counted;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&counted] {
      for (int time = 0; time < kTimes; ++time) counted.add();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counted.value(), kThreads * kTimes);
}

// The others come to wait while it is held; one that is not woken would never end.
TEST(SmallMutex, WakesWhoeverWaits) {
  Counted counted;
  std::vector<std::thread> threads;
  {
    const SmallMutexLock held(counted.lock);
    for (int i = 0; i < 8; ++i) threads.emplace_back([&counted] { counted.add(); });
    for (int i = 0; i < 20; ++i) std::this_thread::yield();
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(counted.value(), 8);
}

}  // namespace
}  // namespace ombra
