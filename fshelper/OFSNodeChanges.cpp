#include "fshelper/OFSNodeChanges.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

// Folders that nobody lists again would otherwise keep their changes for the life of the process.
constexpr size_t kMostFolders = 4096;

}  // namespace

OFSNodeChanges::Fetch::Fetch(OFSNodeChanges& changes, const KCNode& folder)
    : iChanges(changes), iFolder(folder), iMark(changes.beginFetch(folder)) {}

OFSNodeChanges::Fetch::~Fetch() { end(); }

bool OFSNodeChanges::Fetch::end() {
  if (iHasEnded) return false;
  iHasEnded = true;
  return iChanges.endFetch(iFolder, iMark);
}

OFSNodeChanges::Pending::Pending(OFSNodeChanges& changes, const KCNode& folder, std::string_view name,
                                 Kind kind)
    : iChanges(changes), iFolder(folder), iName(decomposedStringWithCanonicalMapping(name)) {
  MutexLock lock(iChanges.iLock);
  iChanges.noteNumbered(iFolder, iName, Change{kind, kPending});
}

OFSNodeChanges::Pending::~Pending() { iChanges.endPending(iFolder, iName); }

void OFSNodeChanges::note(const KCNode& folder, std::string_view name, Kind kind) {
  MutexLock lock(iLock);
  noteNumbered(folder, decomposedStringWithCanonicalMapping(name), Change{kind, ++iNumber});
}

void OFSNodeChanges::noteNumbered(const KCNode& folder, std::string_view name, Change change) {
  if (iFolders.size() >= kMostFolders && !iFolders.contains(&folder)) {
    std::erase_if(iFolders, [](const auto& entry) {
      const Folder& old = entry.second;
      return old.fetches.empty() && std::none_of(old.changes.begin(), old.changes.end(), [](const auto& one) {
               return one.second.number == kPending;
             });
    });
  }
  iFolders[&folder].changes[std::string(name)] = change;
}

// As a change of now: fetches that began before may show either state.
void OFSNodeChanges::endPending(const KCNode& folder, const std::string& name) {
  MutexLock lock(iLock);
  const auto found = iFolders.find(&folder);
  if (found == iFolders.end()) return;
  const auto change = found->second.changes.find(name);
  if (change == found->second.changes.end() || change->second.number != kPending) return;
  change->second.number = ++iNumber;
}

uint64_t OFSNodeChanges::beginFetch(const KCNode& folder) {
  MutexLock lock(iLock);
  iFolders[&folder].fetches.insert(iNumber);
  return iNumber;
}

// Forgets what every fetch of the folder knew of when it began.
bool OFSNodeChanges::endFetch(const KCNode& folder, uint64_t mark) {
  MutexLock lock(iLock);
  const auto found = iFolders.find(&folder);
  if (found == iFolders.end()) return false;
  auto& [changes, fetches] = found->second;
  const auto own = fetches.find(mark);
  if (own != fetches.end()) fetches.erase(own);
  const uint64_t known = fetches.empty() ? mark : std::min(mark, *fetches.begin());
  std::erase_if(changes, [known](const auto& entry) { return entry.second.number <= known; });
  const bool hasYounger = std::any_of(changes.begin(), changes.end(),
                                      [mark](const auto& entry) { return entry.second.number > mark; });
  if (changes.empty() && fetches.empty()) iFolders.erase(found);
  return hasYounger;
}

const OFSNodeChanges::Change* OFSNodeChanges::find(const KCNode& folder, std::string_view name) const {
  const auto found = iFolders.find(&folder);
  if (found == iFolders.end() || found->second.changes.empty()) return nullptr;
  const auto change = found->second.changes.find(decomposedStringWithCanonicalMapping(name));
  return change == found->second.changes.end() ? nullptr : &change->second;
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

}  // namespace ombra
