// Listings and changes.
#include "remote/KCCredentials.h"
#include "remote/PooledConnection.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"

namespace ombra {
namespace {

std::shared_ptr<KCRemoteFileNode> makeNode(const RemoteEntry& entry, std::string path,
                                           const std::shared_ptr<const KCCredentials>& credentials) {
  std::shared_ptr<KCRemoteFileNode> node;
  if (entry.type == kNodeTypeFolder) {
    node = KCRemoteFolderNode::folderNodeWithPath(std::move(path), credentials);
  } else {
    node = std::make_shared<KCRemoteFileNode>(std::move(path), credentials);
    node->setType(entry.type);
  }
  node->setAttributes(entry.attributes);
  if (entry.targetPath) node->setTargetPath(entry.targetPath);
  return node;
}

}  // namespace

bool PooledConnection::contentsAtPath(std::string_view path,
                                      std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                                      NSErrorRef* error) {
  nodes->clear();
  if (!isAllowed(path, error)) return false;
  const std::string folder = absolute(path);
  std::vector<RemoteEntry> entries;
  const Work work = [&](Session& session, NSErrorRef* fault) {
    // A listing that broke off in the middle begins anew.
    entries.clear();
    return session.list(folder, &entries, fault);
  };
  if (!perform(Repeat::kSafe, work, error)) return false;
  nodes->reserve(entries.size());
  for (const RemoteEntry& entry : entries) {
    if (!isShownName(entry.name)) continue;
    std::string itemPath = remotePathInFolder(folder, entry.name);
    if (entry.resolution) iKnownLinks.add(itemPath, *entry.resolution);
    nodes->push_back(makeNode(entry, std::move(itemPath), sessions().credentials()));
  }
  return true;
}

bool PooledConnection::createFolderAtPath(std::string_view path, NSErrorRef* error) {
  const std::string whole = absolute(path);
  return performChange(
      path, {}, [&](Session& session, NSErrorRef* fault) { return session.createFolder(whole, fault); },
      error);
}

bool PooledConnection::createSymbolicLinkAtPath(std::string_view path, std::string_view resolvingToPath,
                                                NSErrorRef* error) {
  const std::string whole = absolute(path);
  return performChange(
      path, resolvingToPath,
      [&](Session& session, NSErrorRef* fault) {
        return session.createSymbolicLink(whole, resolvingToPath, fault);
      },
      error);
}

bool PooledConnection::moveItemFromPath(std::string_view path, bool isDirectory, std::string_view toPath,
                                        NSErrorRef* error) {
  const std::string from = absolute(path);
  const std::string to = absolute(toPath);
  return performChange(
      path, toPath,
      [&](Session& session, NSErrorRef* fault) { return session.move(from, isDirectory, to, fault); }, error);
}

bool PooledConnection::deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) {
  const std::string whole = absolute(path);
  return performChange(
      path, {},
      [&](Session& session, NSErrorRef* fault) { return session.remove(whole, isDirectory, fault); }, error);
}

bool PooledConnection::changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                                        NSErrorRef* error) {
  const std::string whole = absolute(atPath);
  return performChange(
      atPath, {},
      [&](Session& session, NSErrorRef* fault) { return session.changeAttributes(attributes, whole, fault); },
      error);
}

}  // namespace ombra
