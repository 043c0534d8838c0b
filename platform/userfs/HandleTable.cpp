#include "platform/userfs/HandleTable.h"

#include <algorithm>
#include <utility>

namespace ombra {

namespace {

template <typename Map>
void eraseEntry(Map& map, typename Map::key_type key, const OpenItem* item) {
  const auto [first, last] = map.equal_range(key);
  const auto found = std::find_if(first, last, [item](const auto& entry) { return entry.second == item; });
  if (found != last) map.erase(found);
}

}  // namespace

OpenItem::OpenItem(std::string path, GMUserData userData)
    : iUserData(std::move(userData)), iPath(std::move(path)) {}

std::optional<std::string> OpenItem::path() const {
  MutexLock lock(iLock);
  return iPath;
}

void OpenItem::setPath(std::string path) {
  MutexLock lock(iLock);
  if (!iRemoved) iPath = std::move(path);
}

bool OpenItem::isRemoved() const {
  MutexLock lock(iLock);
  return iRemoved;
}

void OpenItem::markRemoved(const NSFileAttributes& attributes) {
  MutexLock lock(iLock);
  iRemoved = true;
  iPath.reset();
  iAttributes = attributes;
}

NSFileAttributes OpenItem::lastAttributes() const {
  MutexLock lock(iLock);
  return iAttributes;
}

void OpenItem::noteSeen(const NSFileAttributes& attributes) {
  MutexLock lock(iLock);
  if (!iRemoved) iAttributes = attributes;
}

void OpenItem::noteWrite(uint64_t end) {
  MutexLock lock(iLock);
  if (!iRemoved) return;
  iAttributes.fileSize = std::max(end, iAttributes.fileSize.value_or(0));
  iAttributes.modificationDate = NSDate::date();
}

void OpenItem::noteSize(uint64_t size) {
  MutexLock lock(iLock);
  if (!iRemoved) return;
  iAttributes.fileSize = size;
  iAttributes.modificationDate = NSDate::date();
}

void OpenItem::noteAttributes(const NSFileAttributes& attributes) {
  MutexLock lock(iLock);
  if (attributes.posixPermissions) iAttributes.posixPermissions = attributes.posixPermissions;
  if (attributes.modificationDate) iAttributes.modificationDate = attributes.modificationDate;
}

std::shared_ptr<OpenItem> HandleTable::findItem(std::string_view path, const GMUserData& userData) const {
  const auto [first, last] = iItems.all().equal_range(path);
  for (auto entry = first; entry != last; ++entry) {
    auto item = entry->second.lock();
    if (item != nullptr && item->userData() == userData) return item;
  }
  return nullptr;
}

std::shared_ptr<OpenHandle> HandleTable::add(const std::string& path, const GMUserData& userData,
                                             FileAccess access, pid_t opener, uint64_t nodeID) {
  MutexLock lock(iLock);
  auto handle = std::make_shared<OpenHandle>();
  handle->item = findItem(path, userData);
  if (handle->item == nullptr) handle->item = addItem(path, userData);
  handle->forWriting = access != FileAccess::kReads;
  handle->bypassesPages = access == FileAccess::kWrites && !handle->item->mayHavePages();
  count(*handle);
  if (nodeID != 0) handle->item->setNodeID(nodeID);
  handle->identifier = ++iLastIdentifier;
  handle->opener = opener;
  handle->item->iHandles.insert(handle->identifier);
  iHandles.emplace(handle->identifier, handle);
  return handle;
}

std::shared_ptr<OpenItem> HandleTable::addItem(const std::string& path, const GMUserData& userData) {
  auto item = std::make_shared<OpenItem>(path, userData);
  iItems.insert(path, item);
  if (userData != nullptr) iItemsOfFiles.emplace(userData.get(), item.get());
  return item;
}

void HandleTable::count(OpenHandle& handle) {
  ++handle.item->iHandleCount;
  if (handle.bypassesPages) {
    ++handle.item->iBypassing;
  } else if (handle.forWriting) {
    ++handle.item->iWritersOfPages;
  }
}

std::shared_ptr<OpenHandle> HandleTable::handle(uint64_t identifier) const {
  MutexLock lock(iLock);
  const auto found = iHandles.find(identifier);
  return found == iHandles.end() ? nullptr : found->second;
}

void HandleTable::dropHandle(const OpenHandle& handle) {
  OpenItem& item = *handle.item;
  item.iHandles.erase(handle.identifier);
  if (handle.bypassesPages) {
    --item.iBypassing;
    // What an open in the meantime has read may be from before the last of these writes.
    if (const auto path = item.path()) dropLastOpen(*path);
  } else if (handle.forWriting) {
    --item.iWritersOfPages;
  }
  if (--item.iHandleCount == 0) dropItem(handle.item);
}

// The tables of items keep none alive: each is taken out here, while its last handle still does.
void HandleTable::dropItem(const std::shared_ptr<OpenItem>& item) {
  eraseEntry(iItemsOfFiles, item->userData().get(), item.get());
  const auto path = item->path();
  if (!path) {
    eraseEntry(iRemoved, item->iRemovedNodeID, item.get());
    --iRemovedItems;
    return;
  }
  const auto [first, last] = iItems.all().equal_range(*path);
  for (auto entry = first; entry != last; ++entry) {
    if (entry->second.lock() != item) continue;
    iItems.all().erase(entry);
    return;
  }
}

std::shared_ptr<OpenHandle> HandleTable::remove(uint64_t identifier) {
  MutexLock lock(iLock);
  const auto found = iHandles.find(identifier);
  if (found == iHandles.end()) return nullptr;
  const auto handle = found->second;
  iHandles.erase(found);
  dropHandle(*handle);
  return handle;
}

std::vector<std::shared_ptr<OpenHandle>> HandleTable::removeAll() {
  MutexLock lock(iLock);
  std::vector<std::shared_ptr<OpenHandle>> handles;
  handles.reserve(iHandles.size());
  for (const auto& [identifier, handle] : iHandles) handles.push_back(handle);
  iHandles.clear();
  iItems.all().clear();
  iItemsOfFiles.clear();
  iRemoved.clear();
  iRemovedItems = 0;
  return handles;
}

std::shared_ptr<OpenItem> HandleTable::itemAtPath(std::string_view path) const {
  MutexLock lock(iLock);
  const auto [first, last] = iItems.all().equal_range(path);
  std::shared_ptr<OpenItem> newest;
  for (auto entry = first; entry != last; ++entry) {
    if (auto item = entry->second.lock()) newest = std::move(item);
  }
  return newest;
}

void HandleTable::move(std::string_view from, std::string_view to) {
  MutexLock lock(iLock);
  iItems.moveSubtree(from, to, [](std::weak_ptr<OpenItem>& weak, const std::string& path) {
    if (const auto item = weak.lock()) item->setPath(path);
  });
  iLastOpens.extractSubtree(to);
  iLastOpens.moveSubtree(from, to);
}

void HandleTable::markRemoved(std::string_view path, const NSFileAttributes& attributes) {
  MutexLock lock(iLock);
  const auto [first, last] = iItems.all().equal_range(path);
  for (auto entry = first; entry != last; ++entry) {
    const auto item = entry->second.lock();
    if (item == nullptr) continue;
    item->markRemoved(attributes);
    item->iRemovedNodeID = item->nodeID();
    iRemoved.emplace(item->iRemovedNodeID, item.get());
    ++iRemovedItems;
  }
  iItems.all().erase(first, last);
  iLastOpens.extractSubtree(path);
}

void HandleTable::noteChange(const GMUserData& userData) {
  MutexLock lock(iLock);
  const auto [first, last] = iItemsOfFiles.equal_range(userData.get());
  for (auto entry = first; entry != last; ++entry) {
    for (const uint64_t identifier : entry->second->iHandles) {
      OpenHandle& handle = *iHandles.at(identifier);
      if (handle.forWriting) handle.noteChange();
    }
  }
}

uint64_t HandleTable::handleOfRemovedNode(uint64_t nodeID) const {
  if (iRemovedItems == 0) return 0;
  MutexLock lock(iLock);
  const auto found = iRemoved.find(nodeID);
  return found == iRemoved.end() ? 0 : *found->second->iHandles.begin();
}

bool HandleTable::isContentOfLastOpen(std::string_view path, const GMUserData& userData) {
  if (userData == nullptr) return false;
  MutexLock lock(iLock);
  pruneLastOpens();
  const auto item = findItem(path, userData);
  if (item != nullptr && item->iBypassing != 0) {
    dropLastOpen(path);
    return false;
  }
  std::weak_ptr<GMOpenFile>& last = iLastOpens[path];
  const bool same = last.lock() == userData;
  last = userData;
  return same;
}

void HandleTable::forgetLastOpen(std::string_view path) {
  MutexLock lock(iLock);
  dropLastOpen(path);
}

void HandleTable::dropLastOpen(std::string_view path) {
  const auto [first, last] = iLastOpens.all().equal_range(path);
  iLastOpens.all().erase(first, last);
}

void HandleTable::pruneLastOpens() {
  if (iLastOpens.size() < iPruneAt) return;
  auto& all = iLastOpens.all();
  for (auto entry = all.begin(); entry != all.end();) {
    entry = entry->second.expired() ? all.erase(entry) : std::next(entry);
  }
  iPruneAt = std::max<size_t>(1024, 2 * all.size());
}

}  // namespace ombra
