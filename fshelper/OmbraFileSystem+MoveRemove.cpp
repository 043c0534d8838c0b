// Moving and removing. The server does it; the tree is repaired in place, so that a moved node keeps its
// identity, what hangs on it, and its open file.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/KCCredentials.h"

namespace ombra {

bool OmbraFileSystem::removeItemAtPath(OptionalPath path, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem removeItemAtPath:error:]", "{}", ofs_describe(path));
  if (!path) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  const std::shared_ptr<KCRemoteFileNode> node = nodeForPath(*path);
  if (node == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  const bool isFolder = dynamic_cast<const KCRemoteFolderNode*>(node.get()) != nullptr;
  if (isFolder && hasEntries(*path)) {
    OFS_FAIL(error, kENOTEMPTY);
    return false;
  }
  // What a former item of that path has left unsent would make the file again.
  const std::string remotePath = remotePathForPath(*path);
  supersedeLeftBehind(remotePath, nullptr);
  NSErrorRef underlying;
  if (!connection->deleteItemAtPath(remotePath, isFolder, &underlying)) {
    const bool isMissing = underlying != nullptr && underlying->code() == kQuarnKitNoSuchItem;
    OFS_FAIL(error, isMissing ? kENOENT : kEACCES, underlying);
    return false;
  }
  for (const auto& file : iFiles.detachedAtPath(remotePath)) {
    file->abandon();
    iFiles.forget(*file);
  }
  repairTreeAfterRemoval(node);
  return true;
}

// A listing that fails counts as empty: the server has the last word.
bool OmbraFileSystem::hasEntries(std::string_view path) {
  const auto entries = contentsOfDirectoryAtPath(path, nullptr);
  return entries && !entries->empty();
}

void OmbraFileSystem::repairTreeAfterRemoval(const std::shared_ptr<KCRemoteFileNode>& node) {
  const std::shared_ptr<KCNode> parent = node->parent();
  if (parent != nullptr) {
    MutexLock treeLock(iTreeLock);
    RecursiveMutexLock lock(parent->objectLock());
    iChanges.note(*parent, node->displayName(), OFSNodeChanges::Kind::kRemoved);
    _forgetNode(node);
    const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(*parent);
    if (contents != nullptr) contents->remove(*node);
    ofs_touch(parent.get());
    fileSystemAttributesNeedUpdate(true);
  }
  // Neither closed nor told: whoever holds it goes on using it. But nothing of it is to be sent at the end.
  const std::shared_ptr<OFSRemoteFile> file = ofs_remoteFile(*node);
  if (file != nullptr) iFiles.forget(*file);
}

bool OmbraFileSystem::moveItemAtPath(OptionalPath path, OptionalPath toPath, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem moveItemAtPath:toPath:error:]", "{} {}", ofs_describe(path),
            ofs_describe(toPath));
  if (!path || !toPath) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  const std::shared_ptr<KCRemoteFileNode> source = nodeForPath(*path);
  const std::string toParentPath = stringByDeletingLastPathComponent(*toPath);
  const std::shared_ptr<KCRemoteFileNode> toParent = nodeForPath(toParentPath);
  if (source == nullptr || toParent == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  const bool isCleared = clearDestination(*source, *toPath);
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  const std::string fromRemotePath = remotePathForPath(*path);
  const std::string toRemotePath = remotePathForName(toParentPath, lastPathComponent(*toPath));
  if (!isCleared) {
    // In place of what clearing failed of, which only the log tells: intended.
    OFS_FAIL(error, kEACCES);
    return false;
  }
  const std::shared_ptr<KCNode> fromParent = source->parent();
  const OFSNodeChanges::Pending leaving(iChanges, fromParent == nullptr ? *toParent : *fromParent,
                                        lastPathComponent(*path), OFSNodeChanges::Kind::kMade);
  const OFSNodeChanges::Pending arriving(iChanges, *toParent, lastPathComponent(*toPath),
                                         OFSNodeChanges::Kind::kRemoved);
  if (!moveOnServer(connection, *source, fromRemotePath, toRemotePath, error)) return false;
  repairTreeAfterMove(source, lastPathComponent(*path), toParent, toRemotePath);
  return true;
}

// A failure leaves a destination that was cleared as it is: gone.
bool OmbraFileSystem::moveOnServer(StAbstractConnection& connection, const KCRemoteFileNode& source,
                                   const std::string& fromPath, const std::string& toPath,
                                   NSErrorRef* error) {
  NSErrorRef underlying;
  if (connection->moveItemFromPath(fromPath, source.type() == kNodeTypeFolder, toPath, &underlying))
    return true;
  OFS_FAIL(error, kEACCES, underlying);
  return false;
}

std::string OmbraFileSystem::remotePathForName(std::string_view folder, const std::string& name) const {
  const std::shared_ptr<const KCCredentials> names = credentials();
  const std::string remoteName = names == nullptr ? name : names->remoteStringForUnicodeString(name);
  return stringByAppendingPathComponent(remotePathForPath(folder), remoteName);
}

// Makes room for a move. False when there is something in the way. A file that is moved onto an empty folder
// replaces it: deliberate.
bool OmbraFileSystem::clearDestination(const KCRemoteFileNode& source, std::string_view toPath) {
  const std::shared_ptr<KCRemoteFileNode> destination = nodeForPath(toPath);
  if (destination == nullptr) return true;
  const bool isFolder = destination->type() == kNodeTypeFolder;
  if (source.type() == kNodeTypeFolder && !isFolder) {
    OFS_FAIL(nullptr, kENOTDIR);
    return false;
  }
  if (isFolder && hasEntries(toPath)) {
    OFS_FAIL(nullptr, kENOTEMPTY);
    return false;
  }
  NSErrorRef error;
  if (removeItemAtPath(toPath, &error)) return true;
  OFS_FAIL(nullptr, kEIO, error);
  return false;
}

void OmbraFileSystem::repairTreeAfterMove(const std::shared_ptr<KCRemoteFileNode>& source,
                                          std::string_view name,
                                          const std::shared_ptr<KCRemoteFileNode>& toParent,
                                          const std::string& remotePath) {
  const std::shared_ptr<KCNode> oldParent = source->parent();
  if (oldParent == nullptr) return;
  MutexLock treeLock(iTreeLock);
  if (oldParent == toParent) {
    repairTreeAfterRename(*oldParent, name, remotePath);
  } else {
    repairTreeBetweenFolders(*oldParent, name, toParent, remotePath);
  }
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::takeMovedNode(KCNode& parent, std::string_view name) {
  iChanges.note(parent, name, OFSNodeChanges::Kind::kRemoved);
  const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(parent);
  std::shared_ptr<KCRemoteFileNode> node =
      contents == nullptr ? nullptr : contents->member(*_comparisonNodeWithDisplayName(name));
  OFS_CONDITION(node != nullptr, "no node to be moved");
  if (node == nullptr) return nullptr;
  _forgetNode(node);
  // The new path changes the name that the set finds the node by, so it leaves the set before.
  contents->remove(*node);
  return node;
}

namespace {

// The node, and its open file, learn where they are now.
void setMovedPath(KCRemoteFileNode& node, OFSNodeFileTable& files, const std::string& remotePath) {
  RecursiveMutexLock lock(node.objectLock());
  const std::shared_ptr<OFSRemoteFile> file = ofs_remoteFile(node);
  node.setPath(remotePath);
  if (file != nullptr) files.setRemotePath(*file, remotePath);
}

}  // namespace

// Here an entry of the new name that is still in the set stays, and the moved node then is not added: only
// moves between folders take such an entry out.
void OmbraFileSystem::repairTreeAfterRename(KCNode& parent, std::string_view name,
                                            const std::string& remotePath) {
  RecursiveMutexLock lock(parent.objectLock());
  const std::shared_ptr<KCRemoteFileNode> node = takeMovedNode(parent, name);
  if (node != nullptr) {
    setMovedPath(*node, iFiles, remotePath);
    ofs_contentsSet(parent)->add(node);
    iChanges.note(parent, node->displayName(), OFSNodeChanges::Kind::kMade);
  }
  ofs_touch(&parent);
}

void OmbraFileSystem::repairTreeBetweenFolders(KCNode& oldParent, std::string_view name,
                                               const std::shared_ptr<KCNode>& newParent,
                                               const std::string& remotePath) {
  RecursiveMutexLock oldLock(oldParent.objectLock());
  RecursiveMutexLock newLock(newParent->objectLock());
  const std::shared_ptr<KCRemoteFileNode> node = takeMovedNode(oldParent, name);
  if (node != nullptr) {
    node->setParent(newParent);
    setMovedPath(*node, iFiles, remotePath);
    // A folder that was never listed has no set; its first listing brings the node.
    const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(*newParent);
    if (contents != nullptr) {
      contents->remove(*node);
      contents->add(node);
    }
    iChanges.note(*newParent, node->displayName(), OFSNodeChanges::Kind::kMade);
  }
  ofs_touch(&oldParent);
  ofs_touch(newParent.get());
}

}  // namespace ombra
