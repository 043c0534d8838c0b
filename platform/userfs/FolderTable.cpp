#include "platform/userfs/FolderTable.h"

#include <utility>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

uint64_t FolderTable::open(const std::string& path, uint64_t nodeID) {
  MutexLock lock(iLock);
  iHandles.emplace(++iLastIdentifier, Handle{path, nodeID, nullptr});
  if (nodeID != 0) iFolders[path].nodeID = nodeID;
  return iLastIdentifier;
}

void FolderTable::close(uint64_t identifier) {
  MutexLock lock(iLock);
  iHandles.erase(identifier);
}

std::optional<std::string> FolderTable::pathOfHandle(uint64_t identifier) const {
  MutexLock lock(iLock);
  const auto found = iHandles.find(identifier);
  return found == iHandles.end() ? std::nullopt : found->second.path;
}

FolderListing FolderTable::listingOfHandle(uint64_t identifier) const {
  MutexLock lock(iLock);
  const auto found = iHandles.find(identifier);
  return found == iHandles.end() ? nullptr : found->second.listing;
}

void FolderTable::setListing(uint64_t identifier, FolderListing listing) {
  MutexLock lock(iLock);
  const auto found = iHandles.find(identifier);
  if (found == iHandles.end()) return;
  if (found->second.path) {
    Folder& folder = iFolders[*found->second.path];
    if (found->second.nodeID != 0) folder.nodeID = found->second.nodeID;
    folder.listed = NSDate::date();
    folder.names.insert(listing->begin(), listing->end());
  }
  found->second.listing = std::move(listing);
}

void FolderTable::noteEntry(std::string_view path, uint64_t parentNodeID) {
  if (parentNodeID == 0 || path == "/") return;
  MutexLock lock(iLock);
  Folder& folder = iFolders[stringByDeletingLastPathComponent(path)];
  folder.nodeID = parentNodeID;
  folder.names.insert(lastPathComponent(path));
}

void FolderTable::forgetEntry(std::string_view path) {
  MutexLock lock(iLock);
  dropEntry(path);
}

// A folder in which names come and go for months would otherwise keep all of them.
void FolderTable::dropEntry(std::string_view path) {
  Folder* folder = iFolders.find(stringByDeletingLastPathComponent(path));
  if (folder != nullptr) folder->names.erase(lastPathComponent(path));
}

bool FolderTable::wasListedWithin(std::string_view path, double seconds) const {
  MutexLock lock(iLock);
  const Folder* folder = iFolders.find(path);
  return folder != nullptr && folder->listed &&
         NSDate::date().timeIntervalSinceDate(*folder->listed) < seconds;
}

std::optional<FolderTable::Known> FolderTable::invalidate(std::string_view path) {
  MutexLock lock(iLock);
  Folder* folder = iFolders.find(path);
  if (folder == nullptr) return std::nullopt;
  folder->listed.reset();
  Known known{folder->nodeID, {folder->names.begin(), folder->names.end()}};
  folder->names.clear();
  return known;
}

void FolderTable::move(std::string_view from, std::string_view to) {
  MutexLock lock(iLock);
  iFolders.extractSubtree(to);
  iFolders.moveSubtree(from, to);
  // The kernel takes its entry along.
  dropEntry(from);
  if (Folder* folder = iFolders.find(stringByDeletingLastPathComponent(to)); folder != nullptr) {
    folder->names.insert(lastPathComponent(to));
  }
  for (auto& [identifier, handle] : iHandles) {
    if (handle.path && isAtOrBelow(*handle.path, from)) handle.path = movedPath(*handle.path, from, to);
  }
}

void FolderTable::remove(std::string_view path) {
  MutexLock lock(iLock);
  iFolders.extractSubtree(path);
  dropEntry(path);
  for (auto& [identifier, handle] : iHandles) {
    if (handle.path && isAtOrBelow(*handle.path, path)) handle.path.reset();
  }
}

}  // namespace ombra
