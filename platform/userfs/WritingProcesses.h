// Which processes have written through a handle.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <set>

#include "platform/foundation/Mutex.h"

namespace ombra {

// A shell opens a file and hands it to the command that writes: both have a right to hear at their close what
// became of the bytes, and others that inherited the descriptor need not wait for that. Thread-safe; a leaf
// lock.
class WritingProcesses {
 public:
  // Beyond so many threads everybody is taken for a writer.
  static constexpr size_t kMost = 64;

  // `thread` writes; 0 when the kernel does not tell, which adds nobody. Takes no lock when it was the last
  // one that did.
  void add(pid_t thread) EXCLUDES(iLock);
  // Whether the process of that thread has written.
  bool includes(pid_t thread) const EXCLUDES(iLock);

 private:
  std::atomic<pid_t> iLast{0};
  mutable Mutex iLock;
  std::set<pid_t> iThreads GUARDED_BY(iLock);
  // Their processes, learned while they lived.
  std::set<pid_t> iProcesses GUARDED_BY(iLock);
};

}  // namespace ombra
