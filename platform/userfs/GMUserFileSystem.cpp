#include "platform/userfs/GMUserFileSystem.h"

#include <utility>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSThread.h"
#include "platform/userfs/GMUserFileSystemState.h"
#include "platform/userfs/MountPoint.h"

namespace ombra {

namespace {

// Never destroyed: the mounting thread may still read it while the process ends.
std::string& volumesFolderStorage() {
  static std::string* sFolder = new std::string("/Volumes");  // NOLINT: immortal on purpose
  return *sFolder;
}

}  // namespace

GMUserFileSystem::GMUserFileSystem(GMUserFileSystemDelegate* delegate, bool isThreadSafe)
    : iState(std::make_shared<State>(delegate, isThreadSafe)) {}

// The delegate may go right after this object, so the mount has to be over. That wait is bounded, as
// `unmount` is.
GMUserFileSystem::~GMUserFileSystem() {
  iState->requestUnmount();
  iState->waitUntilEnded();
}

void GMUserFileSystem::mountAtPath(std::string path, std::vector<std::string> withOptions,
                                   bool /*shouldForeground*/, bool detachNewThread) {
  if (!iState->begin()) return;
  if (!detachNewThread) {
    iState->run(path, withOptions);
    return;
  }
  const bool isStarted = NSThread::detachNewThread([state = iState, path, options = std::move(withOptions)] {
    NSThread::setName("mount " + path);
    state->run(path, options);
  });
  if (!isStarted) iState->failToStart(path);
}

void GMUserFileSystem::unmount() { iState->requestUnmount(); }

void GMUserFileSystem::setDelegate(GMUserFileSystemDelegate* delegate) { iState->setDelegate(delegate); }

void GMUserFileSystem::invalidateDirectoryAtPath(std::string_view path) {
  iState->invalidateFolder(std::string(path));
}

void GMUserFileSystem::invalidateItemAtPath(std::string_view path, bool data) {
  iState->invalidateItem(std::string(path), data);
}

const std::string& GMUserFileSystem::volumesFolder() { return volumesFolderStorage(); }

void GMUserFileSystem::setVolumesFolder(std::string path) { volumesFolderStorage() = std::move(path); }

void GMUserFileSystem::clearStaleMountPoints() { MountPoint::clearStale(volumesFolder()); }

}  // namespace ombra
