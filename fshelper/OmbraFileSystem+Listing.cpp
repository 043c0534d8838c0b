// Listing folders: from the tree while it is fresh, else from the server.
#include "fshelper/OFSTracing.h"
#include "fshelper/OmbraFileSystem+Merge.h"
#include "fshelper/OmbraFileSystem.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

std::optional<std::vector<std::string>> OmbraFileSystem::contentsOfDirectoryAtPath(OptionalPath path,
                                                                                   NSErrorRef* error) {
  return listFolder(path, error, NameForm::kDecomposed);
}

std::optional<std::vector<std::string>> OmbraFileSystem::namesAsListedAtPath(OptionalPath path,
                                                                             NSErrorRef* error) {
  return listFolder(path, error, NameForm::kAsListed);
}

std::optional<std::vector<std::string>> OmbraFileSystem::listFolder(OptionalPath path, NSErrorRef* error,
                                                                    NameForm form) {
  OFS_TRACE("-[OmbraFileSystem contentsOfDirectoryAtPath:error:]", "{}", ofs_describe(path));
  if (!path) {
    OFS_FAIL(error, kEINVAL);
    return std::nullopt;
  }
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection connection(pool.get(), this);
  const std::shared_ptr<KCRemoteFileNode> node = nodeForPath(*path);
  if (claimIfStale(node)) return fetchFolder(connection, *path, node, error, form);
  return cachedNames(*node, form);
}

bool OmbraFileSystem::claimIfStale(const std::shared_ptr<KCRemoteFileNode>& node) const {
  if (node == nullptr || node->isExpired()) return true;
  const auto date = ofs_property<NSDate>(*node, kOFSExpirationDate);
  if (!date) return true;
  const NSDate now = NSDate::date();
  if (now.timeIntervalSinceDate(*date) < refreshInterval()) return false;
  // Set before the server is asked, so that of many readers of an old listing one fetches the next.
  node->setUserProperty(now, kOFSExpirationDate);
  return true;
}

// Absent, without an error, for a folder whose one fetch failed.
std::optional<std::vector<std::string>> OmbraFileSystem::cachedNames(const KCRemoteFileNode& node,
                                                                     NameForm form) const {
  RecursiveMutexLock lock(node.objectLock());
  const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(node);
  if (contents == nullptr) return std::nullopt;
  std::vector<std::string> names;
  if (form == NameForm::kNone) return names;
  names.reserve(contents->count());
  for (const auto& child : *contents) {
    std::string name = child->displayName();
    names.push_back(form == NameForm::kAsListed ? std::move(name)
                                                : decomposedStringWithCanonicalMapping(name));
  }
  return names;
}

std::optional<std::vector<std::string>> OmbraFileSystem::fetchFolder(
    StAbstractConnection& connection, std::string_view path, const std::shared_ptr<KCRemoteFileNode>& node,
    NSErrorRef* error, NameForm form) {
  const std::string remotePath = remotePathForPath(path);
  // A path that no node stands for is listed all the same; nothing of it is kept.
  const std::shared_ptr<KCRemoteFileNode> folder =
      node != nullptr ? node : KCRemoteFolderNode::folderNodeWithPath(remotePath, credentials());
  Merge merge(*this, connection, folder, form);
  // Who has marked it as expired wants to know what is there now.
  uint64_t known = 0;
  if (folder->hasOnlyNewItems()) known = ofs_property<uint64_t>(*folder, kOFSListingNumber).value_or(0);
  connection->setTakesAhead(!folder->isExpired());
  FolderContents contents;
  NSErrorRef underlying;
  const bool isListed = connection->contentsAtPath(remotePath, known, &contents, &underlying);
  connection->setTakesAhead(false);
  const bool countsAsFetch = !isListed || contents.isWhole;
  if (isListed) {
    merge.run(std::move(contents), known);
  } else {
    OFS_FAIL(error, kENOENT, underlying);
  }
  settleFlag(*folder, merge, countsAsFetch);
  // A failure counts as well: until the listing is due again, what was known is answered.
  if (countsAsFetch) folder->setUserProperty(NSDate::date(), kOFSExpirationDate);
  if (!isListed) return std::nullopt;
  if (merge.hasNews()) invalidateDirectory(path);
  return merge.takeNames();
}

// A listing that left the server before a change made here is out of date already. Asked and told under the
// lock that `markStale` takes for its note and its flag: a look-up of what was just made would otherwise meet
// a moment in which the flag is clear and the listing still lacks the item.
void OmbraFileSystem::settleFlag(KCRemoteFileNode& folder, Merge& merge, bool isWhole) {
  RecursiveMutexLock lock(folder.objectLock());
  // Who wants all to be looked at anew is not content with what was made here.
  folder.setListed(isWhole, merge.endFetch());
}

void OmbraFileSystem::invalidateDirectory(std::string_view path) const {
  GMUserFileSystemInvalidation* invalidation = iInvalidation.load();
  if (invalidation != nullptr) invalidation->invalidateDirectoryAtPath(path);
}

}  // namespace ombra
