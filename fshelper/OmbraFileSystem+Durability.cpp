// What programs on this system rely on besides: whole files on the server, attributes without
// content, removal and moves of open files.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

std::shared_ptr<OFSRemoteFile> fileOf(const GMUserData& userData) {
  return std::dynamic_pointer_cast<OFSRemoteFile>(userData);
}

// The path below `to` of what is below `from`; absent for anything else.
std::optional<std::string> movedPath(const std::string& path, const std::string& from,
                                     const std::string& to) {
  if (!path.starts_with(from) || path.size() <= from.size()) return std::nullopt;
  if (from.back() != '/' && path[from.size()] != '/') return std::nullopt;
  return to + path.substr(from.size());
}

// Nodes below a moved folder learn their new paths. A link that was replaced by what it leads to outside the
// volume keeps its path, and every node keeps its name, so that the sets still find it.
void moveNodesBelow(const KCNode& folder, const std::string& from, const std::string& to) {
  std::vector<std::shared_ptr<KCRemoteFileNode>> folders;
  {
    RecursiveMutexLock lock(folder.objectLock());
    const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(folder);
    if (contents == nullptr) return;
    for (const auto& child : *contents) {
      const std::optional<std::string> path = movedPath(child->path(), from, to);
      if (!path) continue;
      std::string name = child->displayName();
      child->setPath(*path);
      child->setDisplayName(std::move(name));
      if (child->type() == kNodeTypeFolder) folders.push_back(child);
    }
  }
  for (const auto& child : folders) moveNodesBelow(*child, from, to);
}

}  // namespace

bool OmbraFileSystem::flushFileAtPath(OptionalPath path, const GMUserData& userData, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem flushFileAtPath:userData:error:]", "{}", ofs_describe(path));
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  if (file == nullptr) return true;
  std::string remotePath = file->remotePath();
  while (file->hasBeenChanged()) {
    NSErrorRef underlying;
    if (flushOnServer(remotePath, &underlying)) return true;
    // Moved meanwhile: flushed where it is now.
    const bool isGone = QuarnKitError::isCode(underlying, kQuarnKitNoSuchItem);
    std::string now = isGone ? file->remotePathAfterMoves() : remotePath;
    if (now == remotePath) {
      OFS_FAIL(error, kEIO, underlying);
      return false;
    }
    remotePath = std::move(now);
  }
  return true;
}

bool OmbraFileSystem::flushOnServer(const std::string& remotePath, NSErrorRef* error) {
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  return connection->flushFileAtPath(remotePath, error);
}

bool OmbraFileSystem::synchronizeFileAtPath(OptionalPath path, const GMUserData& userData,
                                            NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem synchronizeFileAtPath:userData:error:]", "{}", ofs_describe(path));
  std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  if (file == nullptr) file = fileOf(openFileAtPathIfAny(path));
  return file == nullptr || file->synchronize(error);
}

bool OmbraFileSystem::releasesAtOnce(const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  return file != nullptr && file->isCovered() && !iFiles.isAnyMoving() && isWithin(cacheBudget());
}

bool OmbraFileSystem::isCreationInDoubt(const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  return file != nullptr && file->isMakingInDoubt();
}

GMContentState OmbraFileSystem::contentStateOfFile(const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  return file == nullptr ? GMContentState::kComplete : file->contentState();
}

void OmbraFileSystem::waitForContent(const GMUserData& userData, uint64_t seen) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  if (file != nullptr) file->waitForContent(seen);
}

bool OmbraFileSystem::changeAttributesWithoutContent(const NSFileAttributes& attributes,
                                                     OptionalPath ofItemAtPath, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem changeAttributesWithoutContent:ofItemAtPath:error:]", "{}, attributes={}",
            ofs_describe(ofItemAtPath), attributes.description());
  const std::shared_ptr<KCRemoteFileNode> node = ofItemAtPath ? nodeForPath(*ofItemAtPath) : nullptr;
  if (node == nullptr) {
    OFS_FAIL(error, kENOENT);
    return false;
  }
  NSFileAttributes changes;
  changes.posixPermissions = attributes.posixPermissions;
  changes.modificationDate = attributes.modificationDate;
  NSFileAttributes toServer = changes;
  if (node->type() == kNodeTypeFolder && changes.posixPermissions) {
    NSFileAttributes mode;
    mode.posixPermissions = changes.posixPermissions;
    if (!setAttributes(mode, ofItemAtPath, nullptr, error)) return false;
    toServer.posixPermissions.reset();
  }
  if (!sendAttributes(toServer, remotePathForPath(*ofItemAtPath), error)) return false;
  showAttributes(changes, *node);
  return true;
}

bool OmbraFileSystem::sendAttributes(const NSFileAttributes& attributes, const std::string& remotePath,
                                     NSErrorRef* error) {
  if (attributes.count() == 0) return true;
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  return changeOnServer(connection, attributes, remotePath, error);
}

// On the node, and on a cache copy that is there already: a later write would put the copy's on the node
// again.
void OmbraFileSystem::showAttributes(const NSFileAttributes& attributes, KCRemoteFileNode& node) {
  if (attributes.posixPermissions) node.setPermissions(FilePermissions(*attributes.posixPermissions));
  if (attributes.modificationDate) node.setModificationDate(attributes.modificationDate);
  const std::shared_ptr<OFSRemoteFile> file = ofs_remoteFile(node);
  if (file != nullptr) file->showAttributes(attributes);
}

void OmbraFileSystem::seedCacheAttributesAtPath(OptionalPath path, const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  const std::shared_ptr<KCRemoteFileNode> node = path ? _nodeForPath(*path) : nullptr;
  if (file == nullptr || node == nullptr) return;
  const NSFileAttributes shown = shownAttributesOfNode(*node);
  NSFileAttributes seed;
  seed.posixPermissions = shown.posixPermissions;
  seed.modificationDate = shown.modificationDate;
  file->seedCacheAttributes(seed);
}

void OmbraFileSystem::abandonFile(const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  if (file != nullptr) file->abandon();
}

void OmbraFileSystem::reclaimFile(const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  if (file != nullptr) file->reclaim();
}

std::optional<NSFileAttributes> OmbraFileSystem::attributesOfAbandonedFile(const GMUserData& userData) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  if (file == nullptr) return std::nullopt;
  return file->attributes();
}

bool OmbraFileSystem::truncateAbandonedFile(const GMUserData& userData, int64_t offset, NSErrorRef* error) {
  const std::shared_ptr<OFSRemoteFile> file = fileOf(userData);
  return file != nullptr && file->_truncateToOffset(offset, error);
}

GMUserData OmbraFileSystem::openFileAtPathIfAny(OptionalPath path) {
  const std::shared_ptr<KCRemoteFileNode> node = path ? _nodeForPath(*path) : nullptr;
  const std::shared_ptr<OFSRemoteFile> file = node == nullptr ? nullptr : ofs_remoteFile(*node);
  return file != nullptr && file->isOpen() ? file : nullptr;
}

bool OmbraFileSystem::settleBeforeMoveAtPath(OptionalPath path, NSErrorRef* error) {
  OFS_TRACE("-[OmbraFileSystem settleBeforeMoveAtPath:error:]", "{}", ofs_describe(path));
  if (!path) return true;
  const std::string remotePath = remotePathForPath(*path);
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  for (const OFSNodeFileTable::Entry& entry : iFiles.atAndBelowPath(remotePath)) {
    // What was left behind would be sent over the file that is to be moved; what was refused is not sent.
    if (entry.refusal != nullptr) continue;
    if (!entry.isDetached || !isOutdated(entry)) files.push_back(entry.file);
  }
  for (const auto& file : files) file->holdWrites();
  {
    MutexLock lock(iPropertyLock);
    iMoves.emplace(remotePath, files);
  }
  bool isSettled = true;
  try {
    for (const auto& file : files) {
      // All are tried; the first failure is told.
      if (!file->synchronize(isSettled ? error : nullptr)) isSettled = false;
    }
  } catch (...) {
    letWritesGo(remotePath);
    throw;
  }
  if (!isSettled) letWritesGo(remotePath);
  return isSettled;
}

void OmbraFileSystem::letWritesGo(const std::string& remotePath) {
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  {
    MutexLock lock(iPropertyLock);
    const auto held = iMoves.find(remotePath);
    if (held == iMoves.end()) return;
    files = std::move(held->second);
    iMoves.erase(held);
  }
  for (const auto& file : files) file->letWritesGo();
}

void OmbraFileSystem::moveFailedAtPath(OptionalPath path) {
  OFS_TRACE("-[OmbraFileSystem moveFailedAtPath:]", "{}", ofs_describe(path));
  if (path) letWritesGo(remotePathForPath(*path));
}

void OmbraFileSystem::movedItemAtPath(OptionalPath path, OptionalPath toPath) {
  OFS_TRACE("-[OmbraFileSystem movedItemAtPath:toPath:]", "{} {}", ofs_describe(path), ofs_describe(toPath));
  if (!path || !toPath) return;
  const std::string from = remotePathForPath(*path);
  const std::string to = remotePathForPath(*toPath);
  iFiles.moveBelow(from, to);
  const std::shared_ptr<KCRemoteFileNode> node = _nodeForPath(*toPath);
  if (node != nullptr) moveNodesBelow(*node, from, to);
  letWritesGo(from);
}

// Answered from the tree; a folder on the way that is not known yet is listed, as the call that follows
// would.
std::string OmbraFileSystem::listedPathForPath(std::string_view path) {
  if (isASCII(path)) return std::string(path);
  std::string listed = "/";
  for (const std::string& component : pathComponents(path)) {
    if (component == "/") continue;
    std::string next = stringByAppendingPathComponent(listed, component);
    const std::shared_ptr<KCRemoteFileNode> node = isASCII(component) ? nullptr : nodeForPath(next);
    listed = node == nullptr ? std::move(next) : stringByAppendingPathComponent(listed, node->displayName());
  }
  return listed;
}

// Neither asked for nor remembered here: what destinationOfSymbolicLinkAtPath answers, and when, stays its
// own affair.
std::optional<std::string> OmbraFileSystem::knownDestinationOfSymbolicLinkAtPath(OptionalPath path) {
  const std::shared_ptr<KCRemoteFileNode> node = path ? _nodeForPath(*path) : nullptr;
  if (node == nullptr || node->type() != kNodeTypeAlias) return std::nullopt;
  auto known = ofs_property<std::string>(*node, kOFSResolvedPath);
  return known ? known : node->targetPath();
}

void OmbraFileSystem::endDownloads() {
  for (const OFSNodeFileTable::Entry& entry : iFiles.entries()) entry.file->cancelDownload();
}

uint64_t OmbraFileSystem::bytesMoved() {
  uint64_t movements = 0;
  for (const OFSNodeFileTable::Entry& entry : iFiles.entries()) movements += entry.file->movements();
  return movements;
}

void OmbraFileSystem::giveUpConnections() {
  OFS_TRACE("-[OmbraFileSystem giveUpConnections]", "");
  std::shared_ptr<KCConnectionPool> onTrial;
  {
    MutexLock lock(iPropertyLock);
    iGivenUp = true;
    onTrial = iPoolOnTrial;
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  if (pool != nullptr) pool->shutDown();
  if (onTrial != nullptr && onTrial != pool) onTrial->shutDown();
}

void OmbraFileSystem::giveUpServer() {
  setPoolMaker({});
  giveUpConnections();
}

}  // namespace ombra
