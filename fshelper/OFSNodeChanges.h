// What this process itself changed on the server, against listings that were under way meanwhile.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "platform/foundation/Mutex.h"
#include "remote/KCNode.h"

namespace ombra {

// A listing that left the server before an item was made or removed here must not undo that when it is
// merged: the item would vanish, or come back, for as long as the listing counts as fresh. So every change is
// noted under its folder with a number, and a merge asks which changes are younger than its fetch.
//
// Also tells news from what the kernel asked for itself: the first listing that shows an item made here is
// none. Thread-safe; its lock is a leaf. Names are compared as the child sets do.
class OFSNodeChanges {
 public:
  enum class Kind : uint8_t { kMade, kRemoved };

  void note(const KCNode& folder, std::string_view name, Kind kind) EXCLUDES(iLock);

  // Where a fetch begins: changes noted from now on are younger.
  uint64_t mark() const EXCLUDES(iLock);
  // What happened to a name after the mark, or absent.
  std::optional<Kind> changeSince(const KCNode& folder, std::string_view name, uint64_t mark) const
      EXCLUDES(iLock);
  // Whether a name was made here and no listing has shown it since.
  bool wasMade(const KCNode& folder, std::string_view name) const EXCLUDES(iLock);
  // A fetch that began at `mark` has been merged: forgets the changes that it knew of. True when younger ones
  // are left, that is when the listing is already out of date.
  bool endFetch(const KCNode& folder, uint64_t mark) EXCLUDES(iLock);

 private:
  struct Change {
    Kind kind;
    uint64_t number;
  };
  using Changes = std::unordered_map<std::string, Change>;

  const Change* find(const KCNode& folder, std::string_view name) const REQUIRES(iLock);

  mutable Mutex iLock;
  // By the folder's identity. A folder that is freed and another made in its place at worst inherits old
  // changes, which its first listing clears.
  std::unordered_map<const KCNode*, Changes> iFolders GUARDED_BY(iLock);
  uint64_t iNumber GUARDED_BY(iLock) = 0;
};

}  // namespace ombra
