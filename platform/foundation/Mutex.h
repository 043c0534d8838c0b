// Annotated locks: libstdc++'s own carry no annotations, so that the analysis would not see them.
#pragma once

#include <mutex>

#include "platform/foundation/ThreadAnnotations.h"

namespace ombra {

// A plain lock. Leaf locks only: never held while calling out.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { iMutex.lock(); }
  void unlock() RELEASE() { iMutex.unlock(); }

 private:
  std::mutex iMutex;
};

// A lock that its owner may take again: the per-object lock of a node.
class CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() ACQUIRE() { iMutex.lock(); }
  void unlock() RELEASE() { iMutex.unlock(); }

 private:
  std::recursive_mutex iMutex;
};

// Holds a Mutex for a scope.
class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : iMutex(mutex) { iMutex.lock(); }
  ~MutexLock() RELEASE() { iMutex.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& iMutex;
};

// Holds a RecursiveMutex for a scope.
class SCOPED_CAPABILITY RecursiveMutexLock {
 public:
  explicit RecursiveMutexLock(RecursiveMutex& mutex) ACQUIRE(mutex) : iMutex(mutex) { iMutex.lock(); }
  ~RecursiveMutexLock() RELEASE() { iMutex.unlock(); }
  RecursiveMutexLock(const RecursiveMutexLock&) = delete;
  RecursiveMutexLock& operator=(const RecursiveMutexLock&) = delete;

 private:
  RecursiveMutex& iMutex;
};

}  // namespace ombra
