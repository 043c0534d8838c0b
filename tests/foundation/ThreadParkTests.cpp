#include "platform/foundation/ThreadPark.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "platform/foundation/NSThread.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

void justRun(std::function<void()> body) { body(); }

// Its threads outlive the test.
template <size_t seats>
ThreadPark& parkWith() {
  static NeverDestroyed<ThreadPark> sPark(seats, &justRun);
  return *sPark;
}

void waitUntilParked(const ThreadPark& park, size_t count) {
  while (park.parked() != count) std::this_thread::yield();
}

pid_t threadOfNextBody(ThreadPark& park) {
  std::promise<pid_t> thread;
  park.run([&thread] { thread.set_value(gettid()); });
  return thread.get_future().get();
}

// Tells when the thread that it lives on has ended.
struct EndOfThread {
  std::promise<void>* told = nullptr;
  ~EndOfThread() {
    if (told != nullptr) told->set_value();
  }
};
thread_local EndOfThread tEnd;

TEST(ThreadPark, TheThreadOfABodyThatHasEndedRunsTheNext) {
  ThreadPark& park = parkWith<1>();
  const pid_t first = threadOfNextBody(park);
  waitUntilParked(park, 1);
  EXPECT_EQ(threadOfNextBody(park), first);
  EXPECT_NE(first, gettid());
}

TEST(ThreadPark, ABodyNeverWaitsForAnotherOnesEnd) {
  ThreadPark& park = parkWith<2>();
  std::promise<void> goOn;
  const std::shared_future<void> gate = goOn.get_future().share();
  std::array<std::promise<pid_t>, 5> threads;
  for (auto& thread : threads) {
    park.run([&thread, gate] {
      thread.set_value(gettid());
      gate.wait();
    });
  }
  std::set<pid_t> distinct;
  for (auto& thread : threads) distinct.insert(thread.get_future().get());
  EXPECT_EQ(distinct.size(), threads.size());
  goOn.set_value();
  waitUntilParked(park, 2);
}

TEST(ThreadPark, AThreadThatFindsAllSeatsTakenEnds) {
  ThreadPark& park = parkWith<3>();
  std::promise<void> goOn;
  const std::shared_future<void> gate = goOn.get_future().share();
  std::promise<void> ended;
  std::promise<void> oneMore;
  const std::shared_future<void> last = oneMore.get_future().share();
  std::promise<void> hasBegun;
  park.run([&hasBegun, &ended, last] {
    tEnd.told = &ended;
    hasBegun.set_value();
    last.wait();
  });
  hasBegun.get_future().wait();
  for (int i = 0; i < 3; ++i) park.run([gate] { gate.wait(); });
  goOn.set_value();
  waitUntilParked(park, 3);
  oneMore.set_value();
  ended.get_future().wait();
  EXPECT_EQ(park.parked(), 3U);
}

TEST(ThreadPark, EveryBodyRunsOnceHoweverTheyComeAndGo) {
  ThreadPark& park = parkWith<4>();
  constexpr int kBodies = 500;
  std::atomic<int> left{4 * kBodies};
  std::promise<void> done;
  std::vector<std::jthread> starters;
  for (int starter = 0; starter < 4; ++starter) {
    starters.emplace_back([&park, &left, &done] {
      for (int i = 0; i < kBodies; ++i) {
        park.run([&left, &done] {
          if (--left == 0) done.set_value();
        });
      }
    });
  }
  done.get_future().wait();
  EXPECT_EQ(left, 0);
}

TEST(Thread, ABodyFindsNothingOfTheOneThatHadItsThreadBefore) {
  std::set<pid_t> seen;
  bool isAgain = false;
  while (!isAgain) {
    std::promise<void> over;
    std::string name = "?";
    std::array<char, 16> shown{};
    bool isEmpty = false;
    ASSERT_TRUE(NSThread::detachNewThread([&seen, &isAgain, &over, &name, &shown, &isEmpty] {
      isAgain = !seen.insert(gettid()).second;
      name = NSThread::name();
      pthread_getname_np(pthread_self(), shown.data(), shown.size());
      isEmpty = !NSThread::threadDictionary("left").has_value();
      NSThread::setName("leaving a name");
      std::promise<void>* told = &over;
      NSThread::threadDictionary("left") =
          std::shared_ptr<void>(nullptr, [told](std::nullptr_t) { told->set_value(); });
    }));
    // Told by the end of the dictionary.
    over.get_future().wait();
    ASSERT_EQ(name, "");
    ASSERT_STRNE(shown.data(), "leaving a name");
    ASSERT_TRUE(isEmpty);
  }
}

}  // namespace
}  // namespace ombra
