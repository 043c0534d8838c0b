#include "platform/userfs/ThreadGroup.h"

#include <exception>
#include <system_error>
#include <thread>
#include <utility>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSThread.h"

namespace ombra {

struct ThreadGroup::Shared {
  NSCondition condition;
  size_t count GUARDED_BY(condition) = 0;

  void leave() {
    ConditionLock lock(condition);
    --count;
    condition.broadcast();
  }
};

ThreadGroup::ThreadGroup() : iShared(std::make_shared<Shared>()) {}

bool ThreadGroup::start(const char* name, std::function<void()> body) {
  {
    ConditionLock lock(iShared->condition);
    ++iShared->count;
  }
  try {
    std::thread([shared = iShared, name, work = std::move(body)]() mutable {
      NSThread::setName(name);
      try {
        work();
      } catch (const std::exception& exception) {
        NSLog("{}: the thread ends with an exception: {}", name, exception.what());
      }
      // What the body captured goes before the thread counts as ended: its owner may then go as well.
      work = nullptr;
      shared->leave();
    }).detach();
  } catch (const std::system_error& exception) {
    iShared->leave();
    NSLog("{}: no thread to be had: {}", name, exception.what());
    return false;
  }
  return true;
}

size_t ThreadGroup::count() const {
  ConditionLock lock(iShared->condition);
  return iShared->count;
}

bool ThreadGroup::waitUntilEmpty(std::optional<NSDate> limit) {
  ConditionLock lock(iShared->condition);
  while (iShared->count != 0) {
    if (!limit) {
      iShared->condition.wait();
    } else if (!iShared->condition.waitUntilDate(*limit)) {
      return iShared->count == 0;
    }
  }
  return true;
}

}  // namespace ombra
