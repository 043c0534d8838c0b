// New folders, files and links, and where links lead.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/KCCredentials.h"

namespace ombra {

namespace {

constexpr uint32_t kNewFileFlags = kO_RDWR | kO_CREAT | kO_TRUNC;

// Reports the library's form of the error, and hands the caller a plain one like it.
void failReading(int line, NSErrorRef* slot, InterfaceErrno code) {
  const NSErrorRef error = ofs_posixError(code);
  ofs_reportError(__FILE__, line, error);
  storeError(slot, NSError::errorWithDomain(error->domain(), error->code(), error->userInfo()));
}

}  // namespace

void OmbraFileSystem::markStale(KCRemoteFileNode& parent, std::string_view newItem) {
  {
    // A listing that ends meanwhile either knows of the item or leaves the flag set.
    RecursiveMutexLock lock(parent.objectLock());
    iChanges.note(parent, lastPathComponent(newItem), OFSNodeChanges::Kind::kMade);
    ofs_touch(&parent);
    parent.setHasNewItems(true);
  }
  fileSystemAttributesNeedUpdate(true);
}

// The folder that was looked up, and the one that stands for it in the tree by now.
void OmbraFileSystem::markStaleAtPath(const std::shared_ptr<KCRemoteFileNode>& parent,
                                      std::string_view newItem) {
  markStale(*parent, newItem);
  const auto now = _nodeForPath(stringByDeletingLastPathComponent(newItem));
  if (now != nullptr && now != parent) markStale(*now, newItem);
}

// The attributes are not applied, deliberately: the server chooses a new folder's permissions.
bool OmbraFileSystem::createDirectoryAtPath(OptionalPath path, const NSFileAttributes& attributes,
                                            NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem createDirectoryAtPath:attributes:error:]", "{}, attributes={}",
            ofs_describe(path), attributes.description());
  if (!path) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  const std::shared_ptr<KCRemoteFileNode> parent = parentNodeForPath(*path);
  if (parent == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  NSErrorRef underlying;
  if (!connection->createFolderAtPath(remotePathForPath(*path), &underlying)) {
    OFS_FAIL(error, kEACCES, underlying);
    return false;
  }
  markStaleAtPath(parent, *path);
  return true;
}

// A failure after the opening does not close the file, deliberately: it stays prepared.
bool OmbraFileSystem::createFileAtPath(OptionalPath path, const NSFileAttributes& attributes,
                                       GMUserData* userData, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem createFileAtPath:attributes:userData:error:]", "{}, attributes={}",
            ofs_describe(path), attributes.description());
  if (!path) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  const std::string parentPath = stringByDeletingLastPathComponent(*path);
  const std::shared_ptr<KCRemoteFileNode> parent = nodeForPath(parentPath);
  if (parent == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  const std::shared_ptr<OFSRemoteFile> file = OFSRemoteFile::remoteFileForPath(remotePathForPath(*path));
  file->setConnectionPool(connectionPool());
  file->transfer().setTotals(iTotals);
  supersedeLeftBehind(file->remotePath(), nullptr);
  if (!file->openWithMode(kNewFileFlags, error)) return false;
  dropRefusedAtPath(file->remotePath());
  markStaleAtPath(parent, *path);
  // Its names are of no interest, as in a look-up.
  if (!listFolder(parentPath, error, NameForm::kNone)) return false;
  const std::shared_ptr<KCRemoteFileNode> node = nodeForPath(*path);
  if (node == nullptr) {
    OFS_FAIL(error, kEIO);
    return false;
  }
  ofs_touch(node.get());
  OFSNodeFilePin pin = hangOnNode(file, node);
  if (!file->setAttributes(attributes, error)) return false;
  ofs_setAttributes(*node, file->attributes());
  if (userData != nullptr) *userData = pin.keep();
  return true;
}

// A file that the node had already is replaced, not merged.
OFSNodeFilePin OmbraFileSystem::hangOnNode(const std::shared_ptr<OFSRemoteFile>& file,
                                           const std::shared_ptr<KCRemoteFileNode>& node) {
  std::shared_ptr<OFSRemoteFile> replaced;
  // All under the node's lock, so that trimming does not take the object away before it is in use.
  auto hang = [this, &file, &node, &replaced] {
    RecursiveMutexLock lock(node->objectLock());
    replaced = ofs_remoteFile(*node);
    node->setUserProperty(file, kOFSRemoteFile);
    iFiles.add(file, node);
    return OFSNodeFilePin(iFiles, file);
  };
  OFSNodeFilePin pin = hang();
  if (replaced != nullptr) iFiles.detach(*replaced);
  return pin;
}

bool OmbraFileSystem::createSymbolicLinkAtPath(OptionalPath path, OptionalPath withDestinationPath,
                                               NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem createSymbolicLinkAtPath:withDestinationPath:error:]", "{} -> {}",
            ofs_describe(path), ofs_describe(withDestinationPath));
  if (!path || !withDestinationPath) {
    OFS_FAIL(error, kEINVAL);
    return false;
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  const std::shared_ptr<KCRemoteFileNode> parent = parentNodeForPath(*path);
  if (parent == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  const std::string target = linkTextForDestination(*withDestinationPath);
  NSErrorRef underlying;
  if (!connection->createSymbolicLinkAtPath(remotePathForPath(*path), target, &underlying)) {
    // Other protocols refuse a link because they have none.
    OFS_FAIL(error, connection->isSFTP() ? kEIO : kENODEV, underlying);
    return false;
  }
  markStaleAtPath(parent, *path);
  return true;
}

// An absolute destination is a path of this machine and becomes one of the server's; a relative one keeps its
// text.
std::string OmbraFileSystem::linkTextForDestination(std::string_view destination) const {
  if (destination.starts_with('/')) return remotePathForFullPath(destination);
  const std::shared_ptr<const KCCredentials> names = credentials();
  return names == nullptr ? std::string(destination) : names->remoteStringForUnicodeString(destination);
}

std::optional<std::string> OmbraFileSystem::destinationOfSymbolicLinkAtPath(OptionalPath path,
                                                                            NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem destinationOfSymbolicLinkAtPath:error:]", "{}", ofs_describe(path));
  if (!path) {
    failReading(__LINE__, error, kEINVAL);
    return std::nullopt;
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  const std::shared_ptr<KCRemoteFileNode> node = nodeForPath(*path);
  if (node == nullptr) {
    failReading(__LINE__, error, kENOENT);
    return std::nullopt;
  }
  OFS_CONDITION(node->type() == kNodeTypeAlias, "node not an alias");
  const auto known = ofs_property<std::string>(*node, kOFSResolvedPath);
  if (known) return known;
  const std::optional<std::string> target = node->targetPath();
  if (!target || !kc_hasCompletePathPrefix(*target)) return target;
  return resolvedDestination(connection, *node, *target);
}

// A failure drops its error, and the path of a missing target is answered once as the server gave it, from
// then on as the link's text: both intended.
std::optional<std::string> OmbraFileSystem::resolvedDestination(StAbstractConnection& connection,
                                                                KCRemoteFileNode& node,
                                                                const std::string& target) const {
  bool targetExists = false;
  const std::optional<std::string> resolved =
      ofs_resolvedPathForNode(*connection, node, nullptr, &targetExists, nullptr);
  if (!resolved) return std::nullopt;
  if (!targetExists) {
    node.setUserProperty(target, kOFSResolvedPath);
    return resolved;
  }
  std::string path = pathForRemotePath(*resolved);
  node.setUserProperty(path, kOFSResolvedPath);
  return path;
}

}  // namespace ombra
