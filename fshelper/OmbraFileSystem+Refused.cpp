// What the server refuses. The program is told so at the latest by its close; then the volume goes on with
// what the server has, and what was written waits to be saved on this machine.
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "remote/QuarnKitError.h"

namespace ombra {

void OmbraFileSystem::setRefusedAside(const std::shared_ptr<OFSRemoteFile>& file) {
  const std::optional<uint64_t> lastUse = iFiles.lastUse(*file);
  NSErrorRef refusal = lastUse ? file->refusal() : nullptr;
  if (refusal == nullptr) return;
  const bool isWorthSaving = !file->isNewAndEmpty();
  const std::string remotePath = file->remotePath();
  const std::string path = pathForRemotePath(remotePath);
  const std::shared_ptr<KCRemoteFileNode> node = _nodeForPath(path);
  if (node == nullptr || ofs_remoteFile(*node) != file) return;
  std::optional<NSFileAttributes> attributes;
  {
    const std::shared_ptr<KCConnectionPool> pool = connectionPool();
    StAbstractConnection connection(pool.get(), this);
    bool isDirectory = false;
    NSErrorRef error;
    attributes = connection->attributesOfItemAtPath(remotePath, &isDirectory, &error);
    // Nobody knows then what to show instead.
    if (!attributes && !QuarnKitError::isCode(error, kQuarnKitNoSuchItem)) return;
    if (isDirectory) attributes.reset();
  }
  {
    // Uses begin under the node's lock, so none begins between the steps.
    RecursiveMutexLock lock(node->objectLock());
    if (ofs_remoteFile(*node) != file || !iFiles.detachRefused(*file, *lastUse, refusal)) return;
    node->setUserProperty({}, kOFSRemoteFile);
    if (attributes) ofs_setAttributes(*node, *attributes);
  }
  if (isWorthSaving) {
    NSLog("The server has refused what was written to {} ({}); it will be saved on this machine.", path,
          refusal->localizedDescription());
  } else {
    file->abandon();
    iFiles.forget(*file);
    NSLog("The server has refused the new file {} ({}).", path, refusal->localizedDescription());
  }
  fileSystemAttributesNeedUpdate(true);
  if (!attributes) lookForVanished(stringByDeletingLastPathComponent(path));
  GMUserFileSystemInvalidation* invalidation = iInvalidation.load();
  if (invalidation != nullptr) invalidation->invalidateItemAtPath(path, true);
}

// Somebody else has removed it, perhaps with folders above it: each listing that lacks it takes it, and what
// is below, out of the tree.
void OmbraFileSystem::lookForVanished(std::string folder) {
  while (true) {
    const std::shared_ptr<KCRemoteFileNode> node = _nodeForPath(folder);
    if (node != nullptr) node->setExpired(true);
    NSErrorRef error;
    const bool isListed = contentsOfDirectoryAtPath(folder, &error).has_value();
    invalidateDirectory(folder);
    const bool isGone =
        !isListed && error != nullptr && QuarnKitError::isCode(error->underlyingError(), kQuarnKitNoSuchItem);
    if (!isGone || folder == "/") return;
    folder = stringByDeletingLastPathComponent(folder);
  }
}

void OmbraFileSystem::dropRefusedAtPath(const std::string& remotePath) {
  for (const auto& file : iFiles.refusedAtPath(remotePath)) {
    file->abandon();
    iFiles.forget(*file);
  }
}

}  // namespace ombra
