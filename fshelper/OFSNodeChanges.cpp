#include "fshelper/OFSNodeChanges.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

// Folders that nobody lists again would otherwise keep their changes for the life of the process.
constexpr size_t kMostFolders = 4096;

}  // namespace

void OFSNodeChanges::note(const KCNode& folder, std::string_view name, Kind kind) {
  MutexLock lock(iLock);
  if (iFolders.size() >= kMostFolders && !iFolders.contains(&folder)) iFolders.erase(iFolders.begin());
  iFolders[&folder][decomposedStringWithCanonicalMapping(name)] = Change{kind, ++iNumber};
}

uint64_t OFSNodeChanges::mark() const {
  MutexLock lock(iLock);
  return iNumber;
}

const OFSNodeChanges::Change* OFSNodeChanges::find(const KCNode& folder, std::string_view name) const {
  const auto changes = iFolders.find(&folder);
  if (changes == iFolders.end()) return nullptr;
  const auto change = changes->second.find(decomposedStringWithCanonicalMapping(name));
  return change == changes->second.end() ? nullptr : &change->second;
}

std::optional<OFSNodeChanges::Kind> OFSNodeChanges::changeSince(const KCNode& folder, std::string_view name,
                                                                uint64_t mark) const {
  MutexLock lock(iLock);
  const Change* change = find(folder, name);
  if (change == nullptr || change->number <= mark) return std::nullopt;
  return change->kind;
}

bool OFSNodeChanges::wasMade(const KCNode& folder, std::string_view name) const {
  MutexLock lock(iLock);
  const Change* change = find(folder, name);
  return change != nullptr && change->kind == Kind::kMade;
}

bool OFSNodeChanges::endFetch(const KCNode& folder, uint64_t mark) {
  MutexLock lock(iLock);
  const auto changes = iFolders.find(&folder);
  if (changes == iFolders.end()) return false;
  std::erase_if(changes->second, [mark](const auto& entry) { return entry.second.number <= mark; });
  if (!changes->second.empty()) return true;
  iFolders.erase(changes);
  return false;
}

}  // namespace ombra
