// A lock of four bytes.
#pragma once

#include <atomic>

#include "platform/foundation/ThreadAnnotations.h"

namespace ombra {

// For objects of which there are a million: the system's own lock takes forty bytes. A leaf lock, held for a
// moment only; whoever finds it taken sleeps until it is free. Not recursive.
class CAPABILITY("mutex") SmallMutex {
 public:
  void lock() ACQUIRE() {
    int expected = kFree;
    if (!iState.compare_exchange_strong(expected, kHeld, std::memory_order_acquire)) waitForIt();
  }
  void unlock() RELEASE() {
    if (iState.exchange(kFree, std::memory_order_release) == kAwaited) iState.notify_one();
  }

 private:
  static constexpr int kFree = 0, kHeld = 1, kAwaited = 2;

  // Taken as awaited, since others may be waiting as well.
  void waitForIt() {
    while (iState.exchange(kAwaited, std::memory_order_acquire) != kFree)
      iState.wait(kAwaited, std::memory_order_relaxed);
  }

  std::atomic<int> iState{kFree};
};

// Holds a SmallMutex for a scope.
class SCOPED_CAPABILITY SmallMutexLock {
 public:
  explicit SmallMutexLock(SmallMutex& mutex) ACQUIRE(mutex) : iMutex(mutex) { iMutex.lock(); }
  ~SmallMutexLock() RELEASE() { iMutex.unlock(); }
  SmallMutexLock(const SmallMutexLock&) = delete;
  SmallMutexLock& operator=(const SmallMutexLock&) = delete;

 private:
  SmallMutex& iMutex;
};

}  // namespace ombra
