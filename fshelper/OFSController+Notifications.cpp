// What the controller tells the front end, and hears from it.
#include <utility>

#include "fshelper/OFSController.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/SUUpdater.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/foundation/NSLog.h"

namespace ombra {

void OFSController::post(std::string_view name, NSDictionary userInfo) const {
  NSDistributedNotificationCenter::defaultCenter().postNotificationName(name, registeredName(),
                                                                        std::move(userInfo));
}

void OFSController::didMount(const NSNotification& notification) {
  bool unmountRequested = false;
  {
    const MutexLock lock(iLock);
    iMountPath = notification.userInfo.value_or(NSDictionary()).stringForKey(kGMUserFileSystemMountPathKey);
    iState = iUnmountRequested ? State::kUnmounting : State::kMounted;
    unmountRequested = iUnmountRequested;
  }
  post("OFSDidMount",
       NSDictionary::dictionaryWithObjectsAndKeys({{"volumeName", volumeName()},
                                                   {"mountPath", mountPath()},
                                                   {"rootPath", fileSystemObject()->initialPath()},
                                                   {"address", address()},
                                                   {"passthrough", passthrough()}}));
  // Only now, since it would compete with the start.
  iEnvironment.lookForUpdates();
  iEnvironment.removeAbandonedLitter();
  // A request that came while the mount was under way met nothing to unmount.
  if (unmountRequested) fileSystem()->unmount();
}

void OFSController::didUnmount(const NSNotification& notification) {
  if (beginEnding()) endProcess(notification);
}

void OFSController::endProcess(const NSNotification& notification) {
  announceUndelivered(notification);
  post("OFSDidUnmount", NSDictionary::dictionaryWithObjectsAndKeys({{"volumeName", volumeName()},
                                                                    {"mountPath", mountPath()},
                                                                    {"address", address()},
                                                                    {"passthrough", passthrough()}}));
  std::optional<std::string> caches;
  {
    const MutexLock lock(iLock);
    // The next helper of the same identifier goes on with the folder of a pass-through mount.
    if (!iPassthrough) caches = iRedirectCachesPath;
  }
  if (caches) NSFileManager::removeItemAtPath(*caches, nullptr);
  SUUpdater::sharedUpdater().interrupt();
  iEnvironment.exit(0);
}

void OFSController::announceUndelivered(const NSNotification& notification) {
  if (!notification.userInfo) return;
  const PropertyValue* value = notification.userInfo->objectForKey(kGMUserFileSystemUndeliveredKey);
  const NSArray* files = value == nullptr ? nullptr : value->asArray();
  if (files == nullptr || files->empty()) return;
  for (const PropertyValue& file : *files) {
    if (const std::string* text = file.asString())
      NSLog("Not stored on the server (path, copy, reason): {}", *text);
  }
  NSDictionary userInfo;
  userInfo.kc_setObject(volumeName(), "volumeName");
  userInfo.setObject(*files, "files");
  post("OFSUndelivered", std::move(userInfo));
}

// A signal may end the start just when it fails by itself: only one of the two tells of it.
void OFSController::mountFailed(const NSNotification& notification) {
  if (!beginEnding()) return;
  const NSDictionary details = notification.userInfo.value_or(NSDictionary());
  NSDictionary userInfo = NSDictionary::dictionaryWithObjectsAndKeys(
      {{"volumeName", volumeName()},
       {"mountPath", details.stringForKey(kGMUserFileSystemMountPathKey)},
       {"address", address()},
       {"passthrough", passthrough()}});
  const PropertyValue* value = details.objectForKey(kGMUserFileSystemErrorKey);
  if (const NSErrorRef error = value == nullptr ? nullptr : value->asError()) {
    NSLog("The volume was not mounted: {}", error->description());
    userInfo.kc_setObject(NSKeyedArchiver::archivedDataWithRootObject(error), "errorData");
  }
  post("OFSMountFailed", std::move(userInfo));
  if (const std::shared_ptr<OFSMount> mount = fileSystem()) mount->unmount();
  endProcess(notification);
}

void OFSController::invalidateDirectoryCache(const NSNotification& notification) {
  const std::shared_ptr<OmbraFileSystem> object = fileSystemObject();
  const std::optional<std::string> mounted = mountPath();
  if (object == nullptr || !mounted || !notification.userInfo) return;
  const PropertyValue* paths = notification.userInfo->objectForKey("paths");
  const NSArray* list = paths == nullptr ? nullptr : paths->asArray();
  if (list == nullptr) return;
  for (const PropertyValue& path : *list) {
    if (const std::string* text = path.asString()) expireFolder(*object, *text, *mounted);
  }
}

void OFSController::expireFolder(OmbraFileSystem& object, const std::string& path,
                                 const std::string& mounted) {
  if (kc_commonPathPrefix(path, mounted) != mounted || path.size() < mounted.size()) return;
  const std::string localPath = object.pathForRemotePath(path.substr(mounted.size()));
  const std::shared_ptr<KCNode> node = object.nodeForPath(localPath);
  if (node == nullptr || node->type() != kNodeTypeFolder) return;
  node->setExpired(true);
  // The kernel keeps entries of its own, which would hide the new listing for a while.
  if (const std::shared_ptr<OFSMount> mount = fileSystem()) mount->invalidateDirectoryAtPath(localPath);
}

void OFSController::requestUnmount(bool force) {
  bool starting = false;
  {
    const MutexLock lock(iLock);
    starting = iState == State::kStarting;
    iUnmountRequested = true;
    if (iState != State::kMounting) iState = State::kUnmounting;
  }
  if (starting) {
    NSLogMessage("The start is given up: the helper was asked to end.");
    mountFailed({"OFSMountFailed", registeredName(), std::nullopt});
    return;
  }
  if (force) {
    if (const std::shared_ptr<OmbraFileSystem> object = fileSystemObject()) object->giveUpServer();
  }
  if (const std::shared_ptr<OFSMount> mount = fileSystem()) mount->unmount();
}

}  // namespace ombra
