#include "fshelper/OmbraFileSystem+Merge.h"

#include <algorithm>

#include "fshelper/OFSTracing.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

OmbraFileSystem::Merge::Merge(OmbraFileSystem& fileSystem, StAbstractConnection& connection,
                              std::shared_ptr<KCRemoteFileNode> folder, NameForm form)
    : iFileSystem(fileSystem),
      iConnection(connection),
      iFolder(std::move(folder)),
      iForm(form),
      iFetch(fileSystem.iChanges, *iFolder) {}

void OmbraFileSystem::Merge::run(FolderContents fetched, uint64_t known) {
  // Before the lock is taken: a question that has lost its session waits in line for another, and those who
  // hold sessions may be waiting for this lock, to put their own change into the tree.
  for (Node& node : fetched.nodes) {
    if (node->type() == kNodeTypeAlias) node = resolved(node);
  }
  std::vector<Node> gone;
  {
    RecursiveMutexLock lock(iFolder->objectLock());
    if (fetched.isWhole) {
      gone = mergeWhole(fetched);
    } else {
      mergeNews(fetched, known);
    }
  }
  forget(gone);
}

std::vector<OmbraFileSystem::Merge::Node> OmbraFileSystem::Merge::mergeWhole(const FolderContents& fetched) {
  const std::shared_ptr<OFSNodeSet> old = ofs_contentsSet(*iFolder);
  const std::shared_ptr<OFSNodeSet> contents = KCCreateNodeByDisplayNameMutableSet();
  contents->reserve(fetched.nodes.size());
  for (const Node& node : fetched.nodes) {
    if (mergeNode(node, old.get(), *contents)) addName(*node);
  }
  std::vector<Node> gone;
  if (old != nullptr) gone = keepOrLeave(*old, *contents);
  iFolder->setUserProperty(contents, kOFSContents);
  iFolder->setUserProperty(fetched.number, kOFSListingNumber);
  if (iForm == NameForm::kAsListed) {
    for (const Node& child : *contents) iNames.push_back(child->displayName());
  }
  return gone;
}

// In the listing's order, also where two names are one to the tree.
void OmbraFileSystem::Merge::addName(const KCNode& node) {
  if (iForm == NameForm::kDecomposed) {
    iNames.push_back(decomposedStringWithCanonicalMapping(node.displayName()));
  }
}

// What was made here joins the children that are known. A listing has been merged, else there were no number
// to ask with.
void OmbraFileSystem::Merge::mergeNews(const FolderContents& news, uint64_t known) {
  const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(*iFolder);
  const uint64_t merged = ofs_property<uint64_t>(*iFolder, kOFSListingNumber).value_or(0);
  // An older listing may have come into the tree meanwhile.
  bool isComplete = merged >= known;
  for (const Node& node : news.nodes) {
    if (node->type() == kNodeTypeFolder && contents->member(*node) == nullptr)
      knowAsEmpty(*node, news.number);
    isComplete = mergeNode(node, contents.get(), *contents) && isComplete;
  }
  if (isComplete) iFolder->setUserProperty(std::max(merged, news.number), kOFSListingNumber);
  iNames = iFileSystem.cachedNames(*iFolder, iForm).value_or(std::vector<std::string>());
}

// A folder that was just made holds nothing.
void OmbraFileSystem::Merge::knowAsEmpty(KCRemoteFileNode& folder, uint64_t number) {
  folder.setUserProperty(KCCreateNodeByDisplayNameMutableSet(), kOFSContents);
  folder.setUserProperty(NSDate::date(), kOFSExpirationDate);
  folder.setUserProperty(number, kOFSListingNumber);
}

bool OmbraFileSystem::Merge::mergeNode(Node node, const OFSNodeSet* old, OFSNodeSet& contents) {
  const std::string name = node->displayName();
  const OFSNodeChanges& changes = iFileSystem.iChanges;
  // Removed here since the server made this listing.
  if (changes.changeSince(*iFolder, name, iFetch.mark()) == OFSNodeChanges::Kind::kRemoved) return false;
  node->setParent(iFolder);
  // A known entry keeps its node with all that hangs on it, also its old size, dates and permissions: the
  // node is what the kernel and the open files know the item by.
  Node known = old == nullptr ? nullptr : old->member(*node);
  if (known != nullptr) {
    contents.add(std::move(known));
    return true;
  }
  if (old != nullptr && !changes.wasMade(*iFolder, name)) iHasNews = true;
  contents.add(std::move(node));
  return true;
}

// Of the old children those that the listing lacks. What was made here since the server made it is kept.
std::vector<OmbraFileSystem::Merge::Node> OmbraFileSystem::Merge::keepOrLeave(const OFSNodeSet& old,
                                                                              OFSNodeSet& contents) {
  std::vector<Node> gone;
  for (const Node& node : old) {
    if (contents.member(*node) != nullptr) continue;
    const std::string name = node->displayName();
    const auto change = iFileSystem.iChanges.changeSince(*iFolder, name, iFetch.mark());
    if (change == OFSNodeChanges::Kind::kMade) {
      contents.add(node);
      addName(*node);
    } else {
      gone.push_back(node);
    }
  }
  if (!gone.empty()) iHasNews = true;
  return gone;
}

void OmbraFileSystem::Merge::forget(const std::vector<Node>& gone) {
  for (const Node& node : gone) {
    iFileSystem._forgetNode(node);
    detachFiles(node);
  }
}

// What is below a folder that is gone is as gone as the folder itself.
void OmbraFileSystem::Merge::detachFiles(const Node& node) {
  const std::shared_ptr<OFSRemoteFile> file = ofs_remoteFile(*node);
  if (file != nullptr) iFileSystem.iFiles.detach(*file);
  std::vector<Node> children;
  {
    RecursiveMutexLock lock(node->objectLock());
    const std::shared_ptr<OFSNodeSet> contents = ofs_contentsSet(*node);
    if (contents != nullptr) children.assign(contents->begin(), contents->end());
  }
  for (const Node& child : children) detachFiles(child);
}

OmbraFileSystem::Merge::Node OmbraFileSystem::Merge::resolved(const Node& link) {
  bool isDirectory = false;
  bool targetExists = false;
  const std::optional<std::string> target =
      ofs_resolvedPathForNode(*iConnection, *link, &isDirectory, &targetExists, nullptr);
  OFS_TRACE_MESSAGE("path={}, target={}, isDirectory={:d}", link->path(), ofs_describe(target), isDirectory);
  if (!target) return link;
  const std::optional<std::string> text = link->targetPath();
  if (!targetExists) {
    if (text) link->setUserProperty(*text, kOFSResolvedPath);
    return link;
  }
  // A plain comparison of texts: with the root /home/u, /home/user2 counts as inside. Intended.
  if (!target->starts_with(iFileSystem.rootPath())) return nodeOutside(link, *target, isDirectory);
  if (text && kc_hasCompletePathPrefix(*text)) {
    link->setUserProperty(iFileSystem.pathForRemotePath(*target), kOFSResolvedPath);
  }
  return link;
}

// A link that leaves the volume is shown as what it leads to, under its own name.
OmbraFileSystem::Merge::Node OmbraFileSystem::Merge::nodeOutside(const Node& link, const std::string& target,
                                                                 bool isDirectory) {
  const std::shared_ptr<const KCCredentials> credentials = iFileSystem.credentials();
  Node node = isDirectory ? KCRemoteFolderNode::folderNodeWithPath(target, credentials)
                          : std::make_shared<KCRemoteFileNode>(target, credentials);
  ofs_setAttributes(*node, link->attributes());
  if (!isDirectory) {
    const std::optional<uint64_t> size = sizeOfItem(target);
    if (size) node->setSize(size);
  }
  node->setDisplayName(link->displayName());
  return node;
}

std::optional<uint64_t> OmbraFileSystem::Merge::sizeOfItem(const std::string& path) {
  const std::string parent = stringByDeletingLastPathComponent(path);
  const auto [listing, isNew] = iOutside.try_emplace(parent);
  if (isNew) {
    std::vector<Node> nodes;
    if (!iConnection->contentsAtPath(parent, &nodes, nullptr)) {
      // Not remembered: the next link into that folder may find it readable again.
      iOutside.erase(listing);
      return std::nullopt;
    }
    for (const Node& node : nodes) listing->second.emplace(node->filename(), node->size());
  }
  const auto found = listing->second.find(lastPathComponent(path));
  return found == listing->second.end() ? std::nullopt : found->second;
}

}  // namespace ombra
