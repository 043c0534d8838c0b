// How much may be kept in cache files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDate.h"

namespace ombra {

// What was set, or what this machine can spare. Every close asks, so the machine is looked at once a second
// at most: what the cache itself takes meanwhile changes nothing, since the budget counts it together with
// what is free. Thread-safe; a leaf lock.
class OFSCacheBudget {
 public:
  struct Limits {
    uint64_t bytes = 0;
    size_t files = 0;
  };
  // What the temporary folder's disk has left, absent when that cannot be told; and descriptors for cache
  // files.
  struct Machine {
    std::optional<uint64_t> freeBytes;
    size_t files = 0;
  };

  // `look`: at the machine; nullptr: this one.
  explicit OFSCacheBudget(std::function<Machine()> look = nullptr);

  // Absent: what the machine can spare.
  void set(std::optional<uint64_t> bytes, std::optional<size_t> files) EXCLUDES(iLock);
  // `held`: bytes in cache files at present.
  Limits limits(uint64_t held) const EXCLUDES(iLock);

 private:
  // Whether what was seen of the machine will do; where not, it is the caller's turn to look.
  bool hasLooked() const REQUIRES(iLock);
  static Limits spared(const Machine& machine, uint64_t held);

  const std::function<Machine()> iLook;
  mutable Mutex iLock;
  std::optional<uint64_t> iBytes GUARDED_BY(iLock);
  std::optional<size_t> iFiles GUARDED_BY(iLock);
  mutable NSDate iLookedAt GUARDED_BY(iLock);
  mutable std::optional<Limits> iSpared GUARDED_BY(iLock);
};

}  // namespace ombra
