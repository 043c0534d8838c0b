// Something that happens unless a scope is left in time.
#pragma once

#include <functional>
#include <thread>

#include "platform/foundation/NSCondition.h"

namespace ombra {

// Calls `expired` on a thread of its own once `seconds` have passed, unless it was destroyed before. The
// destructor waits for a call that runs. Where there is no thread nothing is ever called.
class OFSDeadline {
 public:
  OFSDeadline(double seconds, std::function<void()> expired);
  ~OFSDeadline();
  OFSDeadline(const OFSDeadline&) = delete;
  OFSDeadline& operator=(const OFSDeadline&) = delete;

 private:
  void wait(NSDate limit) EXCLUDES(iCondition);

  const std::function<void()> iExpired;
  NSCondition iCondition;
  bool iHasEnded GUARDED_BY(iCondition) = false;
  std::thread iThread;
};

}  // namespace ombra
