// New items in listings that are known. Fetching a folder's listing for each item that is made in it would
// cost ever more with each of them.
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "remote/KCCredentials.h"

namespace ombra {

bool OmbraFileSystem::canShowNewItems(const std::shared_ptr<KCRemoteFileNode>& parent) const {
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  return pool != nullptr && pool->keepsNamesOfNewItems() && isFresh(parent);
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::showNewItem(
    const std::shared_ptr<KCRemoteFileNode>& parent, const std::shared_ptr<KCRemoteFileNode>& node) {
  RecursiveMutexLock lock(parent->objectLock());
  // A listing that is under way does not know of the item: it keeps what is noted.
  iChanges.note(*parent, node->displayName(), OFSNodeChanges::Kind::kMade);
  ofs_touch(parent.get());
  fileSystemAttributesNeedUpdate(true);
  const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(*parent);
  if (contents == nullptr) return nullptr;
  node->setParent(parent);
  contents->add(node);
  return contents->member(*node);
}

std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::showNewFile(
    const std::shared_ptr<KCRemoteFileNode>& parent, std::string_view path) {
  const auto node = std::make_shared<KCRemoteFileNode>(remotePathForPath(path), credentials());
  node->setType(kNodeTypeFile);
  node->setSize(0);
  return shownAtPath(path, showNewItem(parent, node));
}

// The folder may have left the tree since it was looked up, for another one of its name: what was put into it
// then is nowhere.
std::shared_ptr<KCRemoteFileNode> OmbraFileSystem::shownAtPath(
    std::string_view path, const std::shared_ptr<KCRemoteFileNode>& node) const {
  return _nodeForPath(path) == node ? node : nullptr;
}

bool OmbraFileSystem::showNewFolder(StAbstractConnection& connection,
                                    const std::shared_ptr<KCRemoteFileNode>& parent, std::string_view path) {
  const std::string remotePath = remotePathForPath(path);
  bool isDirectory = false;
  const auto attributes = connection->attributesOfItemAtPath(remotePath, &isDirectory, nullptr);
  if (!attributes || !isDirectory) return false;
  const auto node = KCRemoteFolderNode::folderNodeWithPath(remotePath, credentials());
  node->setAttributes(*attributes);
  // Just made, it holds nothing.
  node->setUserProperty(KCCreateNodeByDisplayNameMutableSet(), kOFSContents);
  node->setUserProperty(NSDate::date(), kOFSExpirationDate);
  return shownAtPath(path, showNewItem(parent, node)) == node;
}

}  // namespace ombra
