// Listings and changes.
#include "remote/KCCredentials.h"
#include "remote/PooledConnection.h"
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

bool PooledConnection::list(const std::string& folder, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  const bool isOfAWalk = takesAhead();
  // Nor is anybody else to be told what was there before.
  if (!isOfAWalk) walks().changed(folder);
  std::optional<double> seconds;
  if (std::optional<ListingsAhead::Entries> known =
          isOfAWalk ? iCore->listingsAhead.take(folder) : std::nullopt) {
    *entries = std::move(*known);
  } else {
    NSDate begun;
    const Work work = [&](Session& session, NSErrorRef* fault) {
      // A listing that broke off in the middle begins anew.
      entries->clear();
      begun = NSDate::date();
      return session.list(folder, entries, fault);
    };
    if (!perform(Repeat::kSafe, work, error)) return false;
    seconds = NSDate::date().timeIntervalSinceDate(begun);
  }
  const bool isNew = isOfAWalk && iCore->listingsAhead.listed(folder, *entries, seconds);
  iCore->filesAhead.listed(folder, isNew);
  return true;
}

bool PooledConnection::contentsAtPath(std::string_view path,
                                      std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                                      NSErrorRef* error) {
  nodes->clear();
  if (!isAllowed(path, error) || !makeFilesAtOrBelow(path, error)) return false;
  const std::string folder = absolute(path);
  std::vector<RemoteEntry> entries;
  if (!list(folder, &entries, error)) return false;
  nodes->reserve(entries.size());
  for (RemoteEntry& listed : entries) {
    // What it holds makes room for the next nodes.
    const RemoteEntry entry = std::move(listed);
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

// Before: some servers move and remove nothing that is open. After: what was opened meanwhile stands for the
// old file.
bool PooledConnection::performWithoutHolders(std::initializer_list<std::string_view> places,
                                             std::string_view path, std::string_view otherPath,
                                             const Work& work, NSErrorRef* error) {
  for (const std::string_view place : places) sessions().letGoOf(place);
  const bool done = performChange(path, otherPath, work, error);
  for (const std::string_view place : places) sessions().letGoOf(place);
  return done;
}

bool PooledConnection::moveItemFromPath(std::string_view path, bool isDirectory, std::string_view toPath,
                                        NSErrorRef* error) {
  const std::string from = absolute(path);
  const std::string to = absolute(toPath);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.move(from, isDirectory, to, fault);
  };
  return performWithoutHolders({from, to}, path, toPath, work, error);
}

bool PooledConnection::deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) {
  const std::string whole = absolute(path);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.remove(whole, isDirectory, fault);
  };
  return performWithoutHolders({whole}, path, {}, work, error);
}

bool PooledConnection::changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                                        NSErrorRef* error) {
  const std::string whole = absolute(atPath);
  iKnownLinks.clear();
  // Nothing need be there for that: where new files are put off no attributes can be changed.
  if (!isAllowed(atPath, error)) return false;
  const Walks::Change change(walks(), whole);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    return session.changeAttributes(attributes, whole, fault);
  };
  return perform(Repeat::kNever, work, error);
}

}  // namespace ombra
