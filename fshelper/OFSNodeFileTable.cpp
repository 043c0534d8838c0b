#include "fshelper/OFSNodeFileTable.h"

#include <algorithm>

namespace ombra {

void OFSNodeFileTable::add(const std::shared_ptr<OFSRemoteFile>& file,
                           const std::shared_ptr<KCRemoteFileNode>& node) {
  MutexLock lock(iLock);
  Entry entry;
  entry.file = file;
  entry.node = node;
  entry.lastUse = ++iLastUse;
  entry.number = ++iLastNumber;
  iEntries.emplace(file.get(), std::move(entry));
  if (iDetached != 0) markOutdatedAtPath(file->remotePath());
}

void OFSNodeFileTable::markOutdatedAtPath(std::string_view remotePath) {
  std::vector<Entry*> entries;
  uint64_t youngest = 0;
  for (auto& [file, entry] : iEntries) {
    if (file->remotePath() != remotePath) continue;
    entries.push_back(&entry);
    youngest = std::max(youngest, entry.number);
  }
  for (Entry* entry : entries) {
    if (entry->isDetached && entry->number != youngest) entry->isOutdated = true;
  }
}

std::vector<std::shared_ptr<OFSRemoteFile>> OFSNodeFileTable::detachedAtPath(
    std::string_view remotePath) const {
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  MutexLock lock(iLock);
  if (iDetached == 0) return files;
  for (const auto& [file, entry] : iEntries) {
    if (entry.isDetached && file->remotePath() == remotePath) files.push_back(entry.file);
  }
  return files;
}

std::vector<std::shared_ptr<OFSRemoteFile>> OFSNodeFileTable::refusedAtPath(
    std::string_view remotePath) const {
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  MutexLock lock(iLock);
  if (iDetached == 0) return files;
  for (const auto& [file, entry] : iEntries) {
    if (entry.refusal != nullptr && file->remotePath() == remotePath) files.push_back(entry.file);
  }
  return files;
}

void OFSNodeFileTable::beginUse(const OFSRemoteFile& file) {
  MutexLock lock(iLock);
  const auto found = iEntries.find(&file);
  if (found == iEntries.end()) return;
  ++found->second.uses;
  found->second.lastUse = ++iLastUse;
}

OFSNodeFileTable::Measure OFSNodeFileTable::measure(OFSRemoteFile& file) {
  // In this order: what ends in between is looked at once more, but never missed.
  const bool isMoving = !file.isCovered();
  return {isMoving, file.cacheSize()};
}

void OFSNodeFileTable::note(Entry& entry, Measure measure) {
  iBytes += measure.bytes - entry.bytes;
  entry.bytes = measure.bytes;
  entry.isMoving = measure.isMoving;
}

void OFSNodeFileTable::lookAgain() {
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  {
    MutexLock lock(iLock);
    for (const auto& [file, entry] : iEntries) {
      if (entry.uses == 0 && entry.isMoving) files.push_back(entry.file);
    }
  }
  for (const auto& file : files) {
    const Measure measured = measure(*file);
    bool isLeft = false;
    {
      MutexLock lock(iLock);
      const auto found = iEntries.find(file.get());
      if (found == iEntries.end() || found->second.uses != 0) continue;
      note(found->second, measured);
      isLeft = found->second.isDetached;
    }
    if (isLeft) letGoIfSettled(*file);
  }
}

void OFSNodeFileTable::endUse(OFSRemoteFile& file) {
  // Asked before the lock is taken: the file answers under a lock of its own, perhaps only after a transfer.
  const Measure measured = measure(file);
  bool isLast = false;
  {
    MutexLock lock(iLock);
    const auto found = iEntries.find(&file);
    if (found == iEntries.end() || found->second.uses == 0) return;
    Entry& entry = found->second;
    note(entry, measured);
    entry.lastUse = ++iLastUse;
    isLast = --entry.uses == 0 && entry.isDetached;
  }
  if (isLast) letGoIfSettled(file);
}

void OFSNodeFileTable::detach(OFSRemoteFile& file) {
  {
    MutexLock lock(iLock);
    const auto found = iEntries.find(&file);
    if (found == iEntries.end()) return;
    detachEntry(found->second);
    if (found->second.uses != 0) return;
  }
  letGoIfSettled(file);
}

void OFSNodeFileTable::detachEntry(Entry& entry) {
  if (!entry.isDetached) ++iDetached;
  entry.isDetached = true;
  markOutdatedAtPath(entry.file->remotePath());
}

bool OFSNodeFileTable::detachRefused(const OFSRemoteFile& file, uint64_t lastUse, NSErrorRef refusal) {
  MutexLock lock(iLock);
  const auto found = iEntries.find(&file);
  if (found == iEntries.end() || found->second.uses != 0 || found->second.lastUse != lastUse) return false;
  found->second.refusal = std::move(refusal);
  detachEntry(found->second);
  return true;
}

std::optional<uint64_t> OFSNodeFileTable::lastUse(const OFSRemoteFile& file) const {
  MutexLock lock(iLock);
  const auto found = iEntries.find(&file);
  if (found == iEntries.end() || found->second.uses != 0) return std::nullopt;
  return found->second.lastUse;
}

void OFSNodeFileTable::letGoIfSettled(OFSRemoteFile& file) {
  uint64_t lastUse = 0;
  {
    MutexLock lock(iLock);
    const auto found = iEntries.find(&file);
    if (found == iEntries.end()) return;
    lastUse = found->second.lastUse;
  }
  if (file.isCovered()) removeIfUnused(file, lastUse);
}

void OFSNodeFileTable::forget(const OFSRemoteFile& file) {
  std::shared_ptr<OFSRemoteFile> last;
  MutexLock lock(iLock);
  last = erase(file);
}

bool OFSNodeFileTable::removeIfUnused(const OFSRemoteFile& file, uint64_t lastUse) {
  // Declared before the lock, so that the object is destroyed after the lock is let go.
  std::shared_ptr<OFSRemoteFile> last;
  MutexLock lock(iLock);
  const auto found = iEntries.find(&file);
  if (found == iEntries.end() || found->second.uses != 0 || found->second.lastUse != lastUse) return false;
  last = erase(file);
  return true;
}

std::shared_ptr<OFSRemoteFile> OFSNodeFileTable::erase(const OFSRemoteFile& file) {
  const auto found = iEntries.find(&file);
  if (found == iEntries.end()) return nullptr;
  std::shared_ptr<OFSRemoteFile> last = std::move(found->second.file);
  iBytes -= found->second.bytes;
  if (found->second.isDetached) --iDetached;
  iEntries.erase(found);
  return last;
}

std::vector<OFSNodeFileTable::Entry> OFSNodeFileTable::entries() const {
  std::vector<Entry> all;
  {
    MutexLock lock(iLock);
    all.reserve(iEntries.size());
    for (const auto& [file, entry] : iEntries) all.push_back(entry);
  }
  std::sort(all.begin(), all.end(), [](const Entry& a, const Entry& b) { return a.lastUse < b.lastUse; });
  return all;
}

size_t OFSNodeFileTable::count() const {
  MutexLock lock(iLock);
  return iEntries.size();
}

uint64_t OFSNodeFileTable::bytes() const {
  MutexLock lock(iLock);
  return iBytes;
}

OFSNodeFilePin::OFSNodeFilePin(OFSNodeFileTable& table, std::shared_ptr<OFSRemoteFile> file)
    : iTable(table), iFile(std::move(file)) {
  iTable.beginUse(*iFile);
}

OFSNodeFilePin::~OFSNodeFilePin() {
  if (iFile != nullptr) iTable.endUse(*iFile);
}

}  // namespace ombra
