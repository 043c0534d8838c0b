// A clock that moves only when a test says so.
#pragma once

#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"

namespace ombra {

// Puts itself in force for its lifetime. Timed waits on conditions end when `advance` passes their limit.
// Thread-safe. Conditions must outlive their waits, as always.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(NSDate start = NSDate::dateWithTimeIntervalSince1970(1000000000));
  ~ManualClock() override;

  NSDate now() const override EXCLUDES(iLock);
  bool isManual() const override { return true; }
  void willWait(NSCondition& condition) override EXCLUDES(iLock);
  void didWait(NSCondition& condition) override EXCLUDES(iLock);

  // Moves the time and wakes all timed waits, which then look at the time again.
  void advance(double seconds) EXCLUDES(iLock);
  // Moves it, and blocks until each of the `waits` that are under way has looked at the time and waits again:
  // for a time at which nothing is due yet. There must be no others, since one more that begins would count
  // for one of these.
  void advanceWithin(double seconds, size_t waits) EXCLUDES(iLock);
  // Blocks until at least `count` timed waits are under way: what a test waits for before it moves the time.
  // Ends the process when that does not come about within a minute.
  void waitForSleepers(size_t count) EXCLUDES(iLock);
  // Timed waits that are under way. A wait without a limit is none of them.
  size_t sleepers() const EXCLUDES(iLock);
  // Timed waits that have begun so far: one more says that a waiter has looked at the time and waits again.
  size_t begunWaits() const EXCLUDES(iLock);

 private:
  mutable Mutex iLock;
  NSDate iNow GUARDED_BY(iLock);
  std::vector<NSCondition*> iWaiting GUARDED_BY(iLock);
  size_t iBegunWaits GUARDED_BY(iLock) = 0;
};

}  // namespace ombra
