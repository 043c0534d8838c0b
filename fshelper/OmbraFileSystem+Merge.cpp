#include "fshelper/OmbraFileSystem+Merge.h"

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

void OmbraFileSystem::Merge::run(std::vector<Node> nodes) {
  // Before the lock is taken: a question that has lost its session waits in line for another, and those who
  // hold sessions may be waiting for this lock, to put their own change into the tree.
  for (Node& node : nodes) {
    if (node->type() == kNodeTypeAlias) node = resolved(node);
  }
  std::vector<Node> gone;
  {
    RecursiveMutexLock lock(iFolder->objectLock());
    const std::shared_ptr<OFSNodeSet> old = ofs_contentsSet(*iFolder);
    const std::shared_ptr<OFSNodeSet> contents = KCCreateNodeByDisplayNameMutableSet();
    contents->reserve(nodes.size());
    iNames.reserve(nodes.size());
    for (const Node& node : nodes) mergeNode(node, old.get(), *contents);
    if (old != nullptr) gone = keepOrLeave(*old, *contents);
    iFolder->setUserProperty(contents, kOFSContents);
    if (iForm == NameForm::kAsListed) {
      iNames.clear();
      for (const Node& child : *contents) iNames.push_back(child->displayName());
    }
  }
  forget(gone);
}

void OmbraFileSystem::Merge::mergeNode(Node node, const OFSNodeSet* old, OFSNodeSet& contents) {
  const std::string name = node->displayName();
  const OFSNodeChanges& changes = iFileSystem.iChanges;
  // Removed here since the server made this listing.
  if (changes.changeSince(*iFolder, name, iFetch.mark()) == OFSNodeChanges::Kind::kRemoved) return;
  node->setParent(iFolder);
  iNames.push_back(decomposedStringWithCanonicalMapping(name));
  // A known entry keeps its node with all that hangs on it, also its old size, dates and permissions: the
  // node is what the kernel and the open files know the item by.
  Node known = old == nullptr ? nullptr : old->member(*node);
  if (known != nullptr) {
    contents.add(std::move(known));
    return;
  }
  if (old != nullptr && !changes.wasMade(*iFolder, name)) iHasNews = true;
  contents.add(std::move(node));
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
      iNames.push_back(decomposedStringWithCanonicalMapping(name));
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
