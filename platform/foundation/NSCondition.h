// A lock and a condition in one, with a name: what guards an object that threads wait on.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/ThreadAnnotations.h"

namespace ombra {

// Lock plus wait and broadcast. Waits may wake early: callers test their predicate again after each.
class CAPABILITY("condition") NSCondition {
 public:
  NSCondition() = default;
  NSCondition(const NSCondition&) = delete;
  NSCondition& operator=(const NSCondition&) = delete;

  void lock() ACQUIRE() { iMutex.lock(); }
  void unlock() RELEASE() { iMutex.unlock(); }

  // Releases the lock, sleeps until a broadcast, takes the lock again.
  void wait() REQUIRES(this);
  // As `wait`, but ends at `limit` at the latest. False when it was the limit that ended it. On the system
  // clock the time left is measured once, so that a change of the wall clock does not stretch the wait.
  bool waitUntilDate(NSDate limit) REQUIRES(this);
  // Wakes every waiter.
  void broadcast() { iCondition.notify_all(); }
  // Wakes the waiters of this condition after a manual clock has moved; takes the lock for a moment.
  void clockMoved() EXCLUDES(this);

  void setName(std::string name) { iName = std::move(name); }
  const std::string& name() const { return iName; }

 private:
  friend class WaitQueue;

  std::mutex iMutex;
  std::condition_variable iCondition;
  std::string iName;
};

// Threads that wait with the lock of an NSCondition for something else than its other waiters do, so that a
// broadcast to either wakes none of the other. Waits may wake early: callers test their predicate again.
class WaitQueue {
 public:
  WaitQueue() = default;
  WaitQueue(const WaitQueue&) = delete;
  WaitQueue& operator=(const WaitQueue&) = delete;

  // Releases the lock, sleeps until woken, takes the lock again. `condition` is the same one at each call.
  void wait(NSCondition& condition) REQUIRES(condition);
  // Wakes the waiter that came first, or another one.
  void wakeOne() { iCondition.notify_one(); }
  void wakeAll() { iCondition.notify_all(); }

 private:
  std::condition_variable iCondition;
};

// Holds an NSCondition for a scope.
class SCOPED_CAPABILITY ConditionLock {
 public:
  explicit ConditionLock(NSCondition& condition) ACQUIRE(condition) : iCondition(condition) {
    iCondition.lock();
  }
  ~ConditionLock() RELEASE() { iCondition.unlock(); }
  ConditionLock(const ConditionLock&) = delete;
  ConditionLock& operator=(const ConditionLock&) = delete;

 private:
  NSCondition& iCondition;
};

}  // namespace ombra
