#include "fshelper/OFSRedirectCache.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSThread.h"
#include "remote/KCUUID.h"

namespace ombra {
namespace {

constexpr std::string_view kMark = "owner";
constexpr std::string_view kUnlockedMark = "owner.new";
constexpr mode_t kPrivateFolder = 0700;
constexpr mode_t kPrivateFile = 0600;

// The file's descriptor when the lock could be had, else -1.
int openLocked(const std::string& path, int flags) {
  const int descriptor = ::open(path.c_str(), flags | O_RDWR | O_NOFOLLOW | O_CLOEXEC, kPrivateFile);
  if (descriptor < 0 || ::flock(descriptor, LOCK_EX | LOCK_NB) == 0) return descriptor;
  ::close(descriptor);
  return -1;
}

// Only what is named like a folder that was made for one mount, and whose mark nobody holds.
void removeIfAbandoned(const std::string& folder, const std::string& name) {
  if (!KCUUID::uuidWithString(name)) return;
  const std::string path = stringByAppendingPathComponent(folder, name);
  const int mark = openLocked(stringByAppendingPathComponent(path, kMark), 0);
  if (mark < 0) return;
  // With the mark in hand, so that no other process removes it as well.
  NSErrorRef error;
  const bool isRemoved = NSFileManager::removeItemAtPath(path, &error);
  ::close(mark);
  if (isRemoved) {
    NSLog("Removed what a volume that ended without an unmount left: {}", path);
  } else {
    NSLog("{}, left by a volume that ended without an unmount, cannot be removed: {}", path,
          error == nullptr ? "no reason was given" : error->localizedDescription());
  }
}

}  // namespace

OFSRedirectCache::OFSRedirectCache(const std::string& path) {
  if (::mkdir(path.c_str(), kPrivateFolder) != 0) return;
  // The mark gets its name when it is locked: nobody ever sees it free before this process ends.
  const std::string unlocked = stringByAppendingPathComponent(path, kUnlockedMark);
  const int mark = openLocked(unlocked, O_CREAT | O_EXCL);
  if (mark < 0) return;
  if (::rename(unlocked.c_str(), stringByAppendingPathComponent(path, kMark).c_str()) == 0) {
    iMark = mark;
  } else {
    ::close(mark);
  }
}

OFSRedirectCache::~OFSRedirectCache() {
  if (iMark >= 0) ::close(iMark);
}

void OFSRedirectCache::removeAbandonedInFolder(const std::string& folder) {
  const auto names = NSFileManager::contentsOfDirectoryAtPath(folder, nullptr);
  if (!names) return;
  for (const std::string& name : *names) removeIfAbandoned(folder, name);
}

void OFSRedirectCache::removeAbandoned() {
  const bool isStarted = NSThread::detachNewThread([] {
    NSThread::setName("removing old litter");
    if (const auto folder = NSFileManager::kc_applicationSupportSubFolder("OmbraDiskCache"))
      removeAbandonedInFolder(*folder);
  });
  if (!isStarted) NSLog("There is no thread to look for folders that ended volumes have left.");
}

}  // namespace ombra
