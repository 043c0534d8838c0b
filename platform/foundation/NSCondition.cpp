#include "platform/foundation/NSCondition.h"

#include <chrono>

namespace ombra {

void NSCondition::wait() {
  std::unique_lock<std::mutex> adopted(iMutex, std::adopt_lock);
  iCondition.wait(adopted);
  (void)adopted.release();
}

bool NSCondition::waitUntilDate(NSDate limit) {
  Clock& clock = Clock::current();
  const int64_t left = limit.nanosecondsSince1970() - clock.now().nanosecondsSince1970();
  if (left <= 0) return false;
  std::unique_lock<std::mutex> adopted(iMutex, std::adopt_lock);
  bool woken = true;
  if (clock.isManual()) {
    clock.willWait(*this);
    // It may have moved past the limit before it knew of this wait, and then wakes nobody for that.
    if (clock.now() < limit) iCondition.wait(adopted);
    clock.didWait(*this);
    woken = clock.now() < limit;
  } else {
    woken = iCondition.wait_for(adopted, std::chrono::nanoseconds(left)) == std::cv_status::no_timeout;
  }
  (void)adopted.release();
  return woken;
}

void NSCondition::clockMoved() {
  // With the lock, a waiter which has read the old time already sleeps; and the one that wakes cannot destroy
  // this before the call is over.
  lock();
  broadcast();
  unlock();
}

void WaitQueue::wait(NSCondition& condition) {
  std::unique_lock<std::mutex> adopted(condition.iMutex, std::adopt_lock);
  iCondition.wait(adopted);
  (void)adopted.release();
}

}  // namespace ombra
