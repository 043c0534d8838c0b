#include "platform/userfs/WorkQueue.h"

#include <exception>
#include <utility>

#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSThread.h"

namespace ombra {

struct WorkQueue::Shared {
  Shared(const char* threadName, size_t maximumThreads) : name(threadName), maximum(maximumThreads) {}

  const char* const name;
  const size_t maximum;
  NSCondition condition;
  std::deque<std::function<void()>> waiting GUARDED_BY(condition);
  size_t running GUARDED_BY(condition) = 0;  // threads, each with work in hand or about to take some
  bool closed GUARDED_BY(condition) = false;
};

WorkQueue::WorkQueue(const char* name, size_t maximumThreads)
    : iShared(std::make_shared<Shared>(name, maximumThreads)) {}

void WorkQueue::add(std::function<void()> work) {
  {
    ConditionLock lock(iShared->condition);
    if (iShared->closed) return;
    iShared->waiting.push_back(std::move(work));
    if (iShared->running >= iShared->maximum) return;
    ++iShared->running;
  }
  const bool isStarted = NSThread::detachNewThread([shared = iShared] {
    NSThread::setName(shared->name);
    run(shared);
  });
  if (isStarted) return;
  // No thread to be had: where others run they take the work; where none does it is done here and now.
  bool alone = false;
  {
    ConditionLock lock(iShared->condition);
    alone = iShared->running == 1;
    if (!alone) --iShared->running;
  }
  if (alone) run(iShared);
}

void WorkQueue::run(const std::shared_ptr<Shared>& shared) {
  while (true) {
    std::function<void()> work;
    {
      ConditionLock lock(shared->condition);
      if (shared->waiting.empty()) {
        --shared->running;
        shared->condition.broadcast();
        return;
      }
      work = std::move(shared->waiting.front());
      shared->waiting.pop_front();
    }
    try {
      work();
    } catch (const std::exception& exception) {
      NSLog("{}: {}", shared->name, exception.what());
    }
  }
}

bool WorkQueue::waitUntilIdle(std::optional<NSDate> limit) {
  ConditionLock lock(iShared->condition);
  while (iShared->running != 0 || !iShared->waiting.empty()) {
    if (!limit) {
      iShared->condition.wait();
    } else if (!iShared->condition.waitUntilDate(*limit)) {
      return iShared->running == 0 && iShared->waiting.empty();
    }
  }
  return true;
}

void WorkQueue::close() {
  std::deque<std::function<void()>> dropped;  // let go without the lock
  ConditionLock lock(iShared->condition);
  iShared->closed = true;
  dropped.swap(iShared->waiting);
}

}  // namespace ombra
