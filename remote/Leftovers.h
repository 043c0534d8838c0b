// Temporary files of uploads that could not be removed.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "platform/foundation/Mutex.h"

namespace ombra {

// Sessions that were lost put the paths here, the next one that logs in removes them. Thread-safe.
class Leftovers {
 public:
  void add(std::string path) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    if (iPaths.size() < kMost) iPaths.push_back(std::move(path));
  }
  // All of them; they are the caller's from then on.
  std::vector<std::string> take() EXCLUDES(iLock) {
    MutexLock lock(iLock);
    return std::exchange(iPaths, {});
  }

 private:
  // More of them than a session that comes back would want to clear away first.
  static constexpr size_t kMost = 64;
  Mutex iLock;
  std::vector<std::string> iPaths GUARDED_BY(iLock);
};

}  // namespace ombra
