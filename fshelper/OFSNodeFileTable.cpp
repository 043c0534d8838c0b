#include "fshelper/OFSNodeFileTable.h"

#include <algorithm>

namespace ombra {

namespace {

std::string asFolder(const std::string& path) { return path.ends_with('/') ? path : path + '/'; }

}  // namespace

OFSNodeFileTable::Record* OFSNodeFileTable::find(const OFSRemoteFile& file) {
  const auto found = iRecords.find(&file);
  return found == iRecords.end() ? nullptr : &found->second;
}

OFSNodeFileTable::Record* OFSNodeFileTable::findUnused(const OFSRemoteFile& file, uint64_t lastUse) {
  Record* record = find(file);
  return record != nullptr && record->entry.uses == 0 && record->entry.lastUse == lastUse ? record : nullptr;
}

void OFSNodeFileTable::add(const std::shared_ptr<OFSRemoteFile>& file,
                           const std::shared_ptr<KCRemoteFileNode>& node) {
  MutexLock lock(iLock);
  const auto [added, isNew] = iRecords.try_emplace(file.get());
  if (!isNew) return;
  Record& record = added->second;
  record.entry.file = file;
  record.entry.node = node;
  record.entry.number = ++iLastNumber;
  record.place = iByPath.emplace(file->remotePath(), &record);
  setUses(record, 0);
  if (iDetached != 0) markOutdatedAtPath(record.place->first);
}

void OFSNodeFileTable::setUses(Record& record, size_t uses) {
  if (record.entry.uses == 0) iUnused.erase(record.entry.lastUse);
  record.entry.uses = uses;
  record.entry.lastUse = ++iLastUse;
  if (uses == 0) iUnused.emplace(iLastUse, &record);
}

void OFSNodeFileTable::setRemotePath(OFSRemoteFile& file, std::string remotePath) {
  MutexLock lock(iLock);
  Record* record = find(file);
  if (record != nullptr) {
    setPath(*record, std::move(remotePath));
  } else {
    file.setRemotePath(std::move(remotePath));
  }
}

void OFSNodeFileTable::setPath(Record& record, std::string remotePath) {
  iByPath.erase(record.place);
  record.entry.file->setRemotePath(remotePath);
  record.place = iByPath.emplace(std::move(remotePath), &record);
}

std::vector<OFSNodeFileTable::Record*> OFSNodeFileTable::withPrefix(std::string prefix) const {
  std::vector<Record*> records;
  for (auto entry = iByPath.lower_bound(prefix); entry != iByPath.end() && entry->first.starts_with(prefix);
       ++entry) {
    records.push_back(entry->second);
  }
  return records;
}

void OFSNodeFileTable::moveBelow(const std::string& from, const std::string& to) {
  MutexLock lock(iLock);
  for (Record* record : withPrefix(asFolder(from))) {
    setPath(*record, to + record->place->first.substr(from.size()));
  }
}

std::vector<OFSNodeFileTable::Entry> OFSNodeFileTable::atAndBelowPath(const std::string& remotePath) const {
  std::vector<Entry> entries;
  MutexLock lock(iLock);
  const auto [first, last] = iByPath.equal_range(remotePath);
  for (auto entry = first; entry != last; ++entry) entries.push_back(entry->second->entry);
  for (const Record* record : withPrefix(asFolder(remotePath))) entries.push_back(record->entry);
  return entries;
}

void OFSNodeFileTable::markOutdatedAtPath(std::string_view remotePath) {
  const auto [first, last] = iByPath.equal_range(remotePath);
  uint64_t youngest = 0;
  for (auto at = first; at != last; ++at) youngest = std::max(youngest, at->second->entry.number);
  for (auto at = first; at != last; ++at) {
    Entry& entry = at->second->entry;
    if (entry.isDetached && entry.number != youngest) entry.isOutdated = true;
  }
}

std::vector<std::shared_ptr<OFSRemoteFile>> OFSNodeFileTable::detachedAtPath(
    std::string_view remotePath) const {
  return detachedFiles(remotePath, [](const Entry& /*entry*/) { return true; });
}

std::vector<std::shared_ptr<OFSRemoteFile>> OFSNodeFileTable::refusedAtPath(
    std::string_view remotePath) const {
  return detachedFiles(remotePath, [](const Entry& entry) { return entry.refusal != nullptr; });
}

std::vector<std::shared_ptr<OFSRemoteFile>> OFSNodeFileTable::detachedFiles(
    std::string_view remotePath, bool (*isWanted)(const Entry&)) const {
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  MutexLock lock(iLock);
  if (iDetached == 0) return files;
  const auto [first, last] = iByPath.equal_range(remotePath);
  for (auto at = first; at != last; ++at) {
    const Entry& entry = at->second->entry;
    if (entry.isDetached && isWanted(entry)) files.push_back(entry.file);
  }
  return files;
}

void OFSNodeFileTable::beginUse(const OFSRemoteFile& file) {
  MutexLock lock(iLock);
  Record* record = find(file);
  if (record != nullptr) setUses(*record, record->entry.uses + 1);
}

OFSNodeFileTable::Measure OFSNodeFileTable::measure(OFSRemoteFile& file) {
  // In this order: what ends in between is looked at once more, but never missed.
  const bool isMoving = !file.isCovered();
  return {isMoving, file.cacheSize()};
}

void OFSNodeFileTable::note(Record& record, Measure measure) {
  iBytes += measure.bytes - record.entry.bytes;
  record.entry.bytes = measure.bytes;
  if (measure.isMoving) {
    iMoving.insert(&record);
  } else {
    iMoving.erase(&record);
  }
}

bool OFSNodeFileTable::isAnyMoving() const {
  MutexLock lock(iLock);
  return !iMoving.empty();
}

void OFSNodeFileTable::lookAgain() {
  std::vector<std::shared_ptr<OFSRemoteFile>> files;
  {
    MutexLock lock(iLock);
    for (const Record* record : iMoving) {
      if (record->entry.uses == 0) files.push_back(record->entry.file);
    }
  }
  for (const auto& file : files) {
    const Measure measured = measure(*file);
    bool isLeft = false;
    {
      MutexLock lock(iLock);
      Record* record = find(*file);
      if (record == nullptr || record->entry.uses != 0) continue;
      note(*record, measured);
      isLeft = record->entry.isDetached;
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
    Record* record = find(file);
    if (record == nullptr || record->entry.uses == 0) return;
    note(*record, measured);
    setUses(*record, record->entry.uses - 1);
    isLast = record->entry.uses == 0 && record->entry.isDetached;
  }
  if (isLast) letGoIfSettled(file);
}

void OFSNodeFileTable::detach(OFSRemoteFile& file) {
  {
    MutexLock lock(iLock);
    Record* record = find(file);
    if (record == nullptr) return;
    detachRecord(*record);
    if (record->entry.uses != 0) return;
  }
  letGoIfSettled(file);
}

void OFSNodeFileTable::detachRecord(Record& record) {
  if (!record.entry.isDetached) ++iDetached;
  record.entry.isDetached = true;
  markOutdatedAtPath(record.place->first);
}

bool OFSNodeFileTable::detachRefused(const OFSRemoteFile& file, uint64_t lastUse, NSErrorRef refusal) {
  MutexLock lock(iLock);
  Record* record = findUnused(file, lastUse);
  if (record == nullptr) return false;
  record->entry.refusal = std::move(refusal);
  detachRecord(*record);
  return true;
}

std::optional<uint64_t> OFSNodeFileTable::lastUse(const OFSRemoteFile& file) const {
  MutexLock lock(iLock);
  const auto found = iRecords.find(&file);
  if (found == iRecords.end() || found->second.entry.uses != 0) return std::nullopt;
  return found->second.entry.lastUse;
}

void OFSNodeFileTable::letGoIfSettled(OFSRemoteFile& file) {
  uint64_t lastUse = 0;
  {
    MutexLock lock(iLock);
    const Record* record = find(file);
    if (record == nullptr) return;
    lastUse = record->entry.lastUse;
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
  if (findUnused(file, lastUse) == nullptr) return false;
  last = erase(file);
  return true;
}

std::shared_ptr<OFSRemoteFile> OFSNodeFileTable::erase(const OFSRemoteFile& file) {
  const auto found = iRecords.find(&file);
  if (found == iRecords.end()) return nullptr;
  Record& record = found->second;
  std::shared_ptr<OFSRemoteFile> last = std::move(record.entry.file);
  iBytes -= record.entry.bytes;
  if (record.entry.isDetached) --iDetached;
  if (record.entry.uses == 0) iUnused.erase(record.entry.lastUse);
  iMoving.erase(&record);
  iByPath.erase(record.place);
  iRecords.erase(found);
  return last;
}

std::optional<OFSNodeFileTable::Entry> OFSNodeFileTable::firstUnusedAfter(uint64_t lastUse) const {
  MutexLock lock(iLock);
  const auto found = iUnused.upper_bound(lastUse);
  if (found == iUnused.end()) return std::nullopt;
  return found->second->entry;
}

std::vector<OFSNodeFileTable::Entry> OFSNodeFileTable::entries() const {
  std::vector<Entry> all;
  {
    MutexLock lock(iLock);
    all.reserve(iRecords.size());
    for (const auto& [file, record] : iRecords) all.push_back(record.entry);
  }
  std::sort(all.begin(), all.end(), [](const Entry& a, const Entry& b) { return a.lastUse < b.lastUse; });
  return all;
}

size_t OFSNodeFileTable::count() const {
  MutexLock lock(iLock);
  return iRecords.size();
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
