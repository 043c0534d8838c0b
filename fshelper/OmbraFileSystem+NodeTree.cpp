// From local paths to nodes, and between local paths and the server's.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/KCCredentials.h"

namespace ombra {

namespace {

// What `components` holds beyond what it shares with the beginning of `other`, as a relative path.
std::string pathBeyond(const std::vector<std::string>& components, const std::vector<std::string>& other) {
  const size_t shared = kc_indexOfFirstMismatchedObjectInArray(components, other);
  return pathWithComponents({components.begin() + static_cast<ptrdiff_t>(shared), components.end()});
}

// Cuts the first component off `path`; empty when there is none left.
std::string_view nextComponent(std::string_view& path) {
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  const std::string_view component = path.substr(0, path.find('/'));
  path.remove_prefix(component.size());
  return component;
}

// The child that is equal to `key`, found under the folder's lock.
std::shared_ptr<KCRemoteFileNode> childOf(const KCRemoteFileNode& folder, const OFSComparisonNode& key) {
  RecursiveMutexLock lock(folder.objectLock());
  const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(folder);
  return contents == nullptr ? nullptr : contents->member(key);
}

}  // namespace

std::shared_ptr<OFSComparisonNode> OmbraFileSystem::_comparisonNodeWithDisplayName(
    std::string_view name) const {
  OFS_TRACE("-[OmbraFileSystem _comparisonNodeWithDisplayName:]", "{}", name);
  return std::make_shared<OFSComparisonNode>(std::string(name));
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::_nodeForPath(std::string_view path) const {
  OFS_TRACE("-[OmbraFileSystem _nodeForPath:]", "{}", path);
  std::shared_ptr<KCRemoteFileNode> node = rootNode();
  std::string_view rest = path;
  for (std::string_view name = nextComponent(rest); node != nullptr && !name.empty();
       name = nextComponent(rest)) {
    node = childOf(*node, *_comparisonNodeWithDisplayName(name));
  }
  return node;
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::nodeForPath(std::string_view path) {
  OFS_TRACE("-[OmbraFileSystem nodeForPath:]", "{}", path);
  std::shared_ptr<KCRemoteFileNode> node = _nodeForPath(path);
  if (node != nullptr || path == "/" || path.empty()) return node;
  // A parent that is not known itself is listed in turn, up to a folder that is.
  const std::string parent = stringByDeletingLastPathComponent(path);
  // Its names are of no interest: each look-up of what is not there would cost the more the more is in it.
  if (listFolder(parent, nullptr, NameForm::kNone)) node = _nodeForPath(path);
  if (node == nullptr) OFS_TRACE_MESSAGE("path={}", path);
  return node;
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::parentNodeForPath(std::string_view path) {
  return nodeForPath(stringByDeletingLastPathComponent(path));
}

// The walk has no effect, deliberately: what hangs on a node that leaves the tree lives as long as the node.
// So the children are visited after the lock is let go: the walk itself nests no two folders' locks.
void OmbraFileSystem::_forgetNode(const std::shared_ptr<KCNode>& node) const {
  OFS_TRACE("-[OmbraFileSystem _forgetNode:]", "{}", node->path());
  if (dynamic_cast<const KCRemoteFolderNode*>(node.get()) == nullptr) return;
  std::vector<std::shared_ptr<KCRemoteFileNode>> children;
  {
    RecursiveMutexLock lock(node->objectLock());
    const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(*node);
    if (contents != nullptr) children.assign(contents->begin(), contents->end());
  }
  for (const auto& child : children) _forgetNode(child);
}

std::string OmbraFileSystem::remotePathForPath(std::string_view path) const {
  OFS_TRACE("-[OmbraFileSystem remotePathForPath:]", "{}", path);
  const std::shared_ptr<const KCCredentials> names = credentials();
  const std::string remote = names == nullptr ? std::string(path) : names->remoteStringForUnicodeString(path);
  std::string remotePath = stringByAppendingPathComponent(rootPath(), remote);
  OFS_TRACE_MESSAGE("path={}, remotePath={}", path, remotePath);
  return remotePath;
}

// A path outside the volume loses only what it happens to share with the mount point, and so lands below the
// remote root: intended.
std::string OmbraFileSystem::remotePathForFullPath(std::string_view fullPath) const {
  OFS_TRACE("-[OmbraFileSystem remotePathForFullPath:]", "{}", fullPath);
  const OFSMountPathSource* source = controller();
  const std::optional<std::string> mountPath = source == nullptr ? std::nullopt : source->mountPath();
  if (!mountPath) return remotePathForPath(fullPath);
  return remotePathForPath(pathBeyond(pathComponents(fullPath), pathComponents(*mountPath)));
}

std::string OmbraFileSystem::pathForRemotePath(std::string_view remotePath) const {
  OFS_TRACE("-[OmbraFileSystem pathForRemotePath:]", "{}", remotePath);
  const std::shared_ptr<const KCCredentials> names = credentials();
  std::string rest = pathBeyond(pathComponents(remotePath), pathComponents(rootPath()));
  if (names != nullptr) rest = names->unicodeStringForRemoteString(rest);
  return stringByAppendingPathComponent("/", rest);
}

std::shared_ptr<OFSRemoteFile> OmbraFileSystem::_remoteFileForNode(
    const std::shared_ptr<KCRemoteFileNode>& node, const std::string& path) {
  OFS_TRACE("-[OmbraFileSystem _remoteFileForNode:path:]", "{}", path);
  RecursiveMutexLock lock(node->objectLock());
  std::shared_ptr<OFSRemoteFile> file = ofs_remoteFile(*node);
  if (file != nullptr) return file;
  file = OFSRemoteFile::remoteFileForPath(path);
  file->setConnectionPool(connectionPool());
  file->transfer().setTotals(iTotals);
  node->setUserProperty(file, kOFSRemoteFile);
  iFiles.add(file, node);
  return file;
}

// Found and put in use under one lock, so that trimming never takes the object away in between.
OFSNodeFilePin OmbraFileSystem::pinnedRemoteFileForNode(const std::shared_ptr<KCRemoteFileNode>& node,
                                                        const std::string& path) {
  RecursiveMutexLock lock(node->objectLock());
  return OFSNodeFilePin(iFiles, _remoteFileForNode(node, path));
}

}  // namespace ombra
