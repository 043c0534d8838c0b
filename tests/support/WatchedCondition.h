// A lock and condition in real time, for waits of tests: a hang becomes a failed test with a message.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "platform/foundation/ThreadAnnotations.h"

namespace ombra {

// Independent of the clock in force, so that it works beside a ManualClock.
class CAPABILITY("condition") WatchedCondition {
 public:
  static constexpr std::chrono::seconds kWatchdog{30};

  void lock() ACQUIRE() { iMutex.lock(); }
  void unlock() RELEASE() { iMutex.unlock(); }
  void broadcast() { iCondition.notify_all(); }

  // Without limit, for the side that the test holds.
  void wait() REQUIRES(this) {
    std::unique_lock<std::mutex> adopted(iMutex, std::adopt_lock);
    iCondition.wait(adopted);
    (void)adopted.release();
  }

  // For the side of the test: true when woken, false with a test failure naming `what` when nothing came for
  // 30 s.
  bool waitFor(const std::string& what) REQUIRES(this) {
    std::unique_lock<std::mutex> adopted(iMutex, std::adopt_lock);
    const bool woken = iCondition.wait_for(adopted, kWatchdog) == std::cv_status::no_timeout;
    (void)adopted.release();
    if (!woken) ADD_FAILURE() << "nothing happened for 30 s while waiting for: " << what;
    return woken;
  }

 private:
  std::mutex iMutex;
  std::condition_variable iCondition;
};

class SCOPED_CAPABILITY WatchedLock {
 public:
  explicit WatchedLock(WatchedCondition& condition) ACQUIRE(condition) : iCondition(condition) {
    iCondition.lock();
  }
  ~WatchedLock() RELEASE() { iCondition.unlock(); }
  WatchedLock(const WatchedLock&) = delete;
  WatchedLock& operator=(const WatchedLock&) = delete;

 private:
  WatchedCondition& iCondition;
};

}  // namespace ombra
