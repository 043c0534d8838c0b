// Runs work on threads of its own.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"

namespace ombra {

// Threads are taken when work waits and fewer than the maximum run, and given back when there is nothing
// left. Releases that may take a minute run here, and notices to the kernel, since each may wait for a page
// that a read holds. Work is called with no lock held; its exceptions are logged. Thread-safe.
class WorkQueue {
 public:
  // `name` outlives the queue. With one thread the order of the work is kept.
  WorkQueue(const char* name, size_t maximumThreads);

  // Dropped once the queue is closed. Where the system gives no thread and none runs, it is done here and
  // now.
  void add(std::function<void()> work);
  // Waits until everything added has been done, until `limit` at the latest. True when all is done.
  bool waitUntilIdle(std::optional<NSDate> limit = std::nullopt);
  // Drops what has not begun and takes nothing more.
  void close();

 private:
  struct Shared;
  static void run(const std::shared_ptr<Shared>& shared);

  const std::shared_ptr<Shared> iShared;
};

}  // namespace ombra
