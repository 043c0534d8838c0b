#include "fshelper/OmbraFileSystem+CacheBudget.h"

#include <sys/resource.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <string>
#include <utility>

#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

constexpr uint64_t kDefaultBytes = uint64_t{10} << 30;
constexpr size_t kDefaultFiles = 8192;  // each costs an open descriptor
constexpr double kSecondsBetweenLooks = 1;

std::optional<uint64_t> freeBytes() {
  static NeverDestroyed<std::string> sFolder(NSFileManager::kc_confstr(kDarwinUserTempDir));
  struct statvfs disk {};
  if (sFolder->empty() || statvfs(sFolder->c_str(), &disk) != 0) return std::nullopt;
  return static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize;
}

// A quarter of the descriptors: the rest is for sessions, and for files in use.
size_t spareDescriptors() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return kDefaultFiles;
  return limit.rlim_cur / 4;
}

}  // namespace

OFSCacheBudget::OFSCacheBudget(std::function<Machine()> look)
    : iLook(look ? std::move(look) : [] {
        return Machine{freeBytes(), spareDescriptors()};
      }) {}

void OFSCacheBudget::set(std::optional<uint64_t> bytes, std::optional<size_t> files) {
  const MutexLock lock(iLock);
  iBytes = bytes;
  iFiles = files;
}

OFSCacheBudget::Limits OFSCacheBudget::limits(uint64_t held) const {
  {
    const MutexLock lock(iLock);
    if (iBytes && iFiles) return {*iBytes, *iFiles};
    if (hasLooked()) return {iBytes.value_or(iSpared->bytes), iFiles.value_or(iSpared->files)};
  }
  // Without the lock: a disk may take its time.
  const Limits seen = spared(iLook(), held);
  const MutexLock lock(iLock);
  iSpared = seen;
  return {iBytes.value_or(seen.bytes), iFiles.value_or(seen.files)};
}

bool OFSCacheBudget::hasLooked() const {
  const NSDate now = NSDate::date();
  const double passed = now.timeIntervalSinceDate(iLookedAt);
  // The system's clock may be set back.
  if (iSpared && passed >= 0 && passed < kSecondsBetweenLooks) return true;
  iLookedAt = now;
  return false;
}

// The default, or half of what the disk could hold for us if that is less.
OFSCacheBudget::Limits OFSCacheBudget::spared(const Machine& machine, uint64_t held) {
  return {machine.freeBytes ? std::min(kDefaultBytes, (*machine.freeBytes + held) / 2) : kDefaultBytes,
          std::min(kDefaultFiles, machine.files)};
}

}  // namespace ombra
