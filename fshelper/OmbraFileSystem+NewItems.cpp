// New items in listings that are known. Fetching a folder's listing for each item that is made in it would
// cost ever more with each of them.
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/KCCredentials.h"
#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

// Some servers cut blanks and dots off the ends of a name, or write another character for them.
bool isLeftAsItIs(std::string_view name) {
  return !name.starts_with(' ') && !name.ends_with(' ') && !name.ends_with('.');
}

std::string withOtherCase(std::string name) {
  for (char& byte : name) {
    if ((byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z')) byte = static_cast<char>(byte ^ 0x20);
  }
  return name;
}

}  // namespace

bool OmbraFileSystem::canShowNewItem(const std::shared_ptr<KCRemoteFileNode>& parent,
                                     std::string_view path) const {
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  return pool != nullptr && pool->keepsNamesOfNewItems() && isLeftAsItIs(lastPathComponent(path)) &&
         isFresh(parent);
}

// Where "Foo" and "foo" are one item, what is made may be there under a name of before: only the listing
// tells. Asked once for each folder, of an item that is there by now.
bool OmbraFileSystem::keepsCase(StAbstractConnection& connection, KCRemoteFileNode& parent,
                                std::string_view path) const {
  const auto known = ofs_property<bool>(parent, kOFSKeepsCase);
  if (known) return *known;
  const std::string name = lastPathComponent(path);
  const std::string other = withOtherCase(name);
  // Which letters of other alphabets are one to the server is not known here.
  if (other == name) return isASCII(name);
  const std::string folder = stringByDeletingLastPathComponent(path);
  // Listed besides: an answer would say nothing.
  if (_nodeForPath(stringByAppendingPathComponent(folder, other)) != nullptr) return false;
  bool isDirectory = false;
  NSErrorRef error;
  const bool isThere =
      connection->attributesOfItemAtPath(remotePathForName(folder, other), &isDirectory, &error).has_value();
  const bool isMissing = QuarnKitError::isCode(error, kQuarnKitNoSuchItem);
  if (isThere || isMissing) parent.setUserProperty(!isThere, kOFSKeepsCase);
  return !isThere && isMissing;
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
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  if (!keepsCase(connection, *parent, path)) return nullptr;
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
  if (!keepsCase(connection, *parent, path)) return false;
  const std::string remotePath = remotePathForPath(path);
  bool isDirectory = false;
  const auto attributes = connection->attributesOfItemAtPath(remotePath, &isDirectory, nullptr);
  if (!attributes || !isDirectory) return false;
  const auto node = KCRemoteFolderNode::folderNodeWithPath(remotePath, credentials());
  node->setAttributes(*attributes);
  // Just made, it holds nothing.
  node->setUserProperty(KCCreateNodeByDisplayNameMutableSet(), kOFSContents);
  node->setUserProperty(NSDate::date(), kOFSExpirationDate);
  // As the folder that it is in.
  if (const auto keeps = ofs_property<bool>(*parent, kOFSKeepsCase))
    node->setUserProperty(*keeps, kOFSKeepsCase);
  return shownAtPath(path, showNewItem(parent, node)) == node;
}

}  // namespace ombra
