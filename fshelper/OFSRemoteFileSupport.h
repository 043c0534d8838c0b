// Small tools shared by the sources of OFSRemoteFile.
#pragma once

#include <string>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// Lets go of a condition that the caller holds, for a scope; what the caller has read before may be untrue
// after it.
class SCOPED_CAPABILITY ConditionRelease {
 public:
  explicit ConditionRelease(NSCondition& condition) RELEASE(condition) : iCondition(condition) {
    iCondition.unlock();
  }
  // The end of the scope takes the condition again; for the analysis that is the release of the scope itself.
  ~ConditionRelease() RELEASE() { retake(); }
  ConditionRelease(const ConditionRelease&) = delete;
  ConditionRelease& operator=(const ConditionRelease&) = delete;

 private:
  void retake() NO_THREAD_SAFETY_ANALYSIS { iCondition.lock(); }
  NSCondition& iCondition;
};

// Holds a condition for a scope, and wakes who waits on it after it has let go: woken before, they would only
// wait for the lock, which costs each of them another turn. The condition must outlive the broadcast.
class SCOPED_CAPABILITY WakingLock {
 public:
  explicit WakingLock(NSCondition& condition) ACQUIRE(condition) : iCondition(condition) {
    iCondition.lock();
  }
  ~WakingLock() RELEASE() {
    iCondition.unlock();
    if (iWakes) iCondition.broadcast();
  }
  WakingLock(const WakingLock&) = delete;
  WakingLock& operator=(const WakingLock&) = delete;
  void wakeAll() { iWakes = true; }

 private:
  NSCondition& iCondition;
  bool iWakes = false;
};

// The error of the interface for an errno value, with what lies beneath (may be null); reported to the log
// with the place of the call.
NSErrorRef ofs_reportedPosixError(int code, const NSErrorRef& underlying = nullptr,
                                  const char* file = __builtin_FILE(), int line = __builtin_LINE());
// Why content of a file must not be sent: another file has taken its place.
NSErrorRef ofs_supersededError();
// For trace lines and messages: the error's description, or "(null)".
std::string ofs_describeError(const NSErrorRef& error);
// For trace lines: "2001-09-09 01:46:40 +0000".
std::string ofs_describeDate(NSDate date);
// Runs a transfer; an exception out of the library becomes a failure with an error, so that a worker always
// gets to the end where it settles the state.
template <typename Transfer>
bool ofs_runTransfer(NSErrorRef* error, Transfer&& transfer) {
  try {
    return transfer();
  } catch (const std::exception& exception) {
    *error = NSError::errorWithDomain(
        NSPOSIXErrorDomain, kEIO,
        NSDictionary{{std::string(NSLocalizedDescriptionKey), PropertyValue(std::string(exception.what()))}});
    return false;
  }
}

}  // namespace ombra
