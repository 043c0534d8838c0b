// What this process itself changed on the server, against listings that were under way meanwhile.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
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

  // The server has made the change: it is younger than every fetch that is under way.
  void note(const KCNode& folder, std::string_view name, Kind kind) EXCLUDES(iLock);

  // A change that the server is being asked for: younger than every fetch until it is over. A move says so of
  // both names, since a listing may show the server's new state before the tree is repaired: without it, the
  // merge would replace the node that the open file hangs on. Noting the name again, or the end of the scope,
  // ends it.
  class Pending {
   public:
    Pending(OFSNodeChanges& changes, const KCNode& folder, std::string_view name, Kind kind);
    ~Pending();
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

   private:
    OFSNodeChanges& iChanges;
    const KCNode& iFolder;
    const std::string iName;
  };

  // One fetch of a folder's listing, from before the server is asked until the listing is merged: what is
  // noted meanwhile is kept for it, also past the end of other fetches of the folder.
  class Fetch {
   public:
    Fetch(OFSNodeChanges& changes, const KCNode& folder);
    ~Fetch();
    Fetch(const Fetch&) = delete;
    Fetch& operator=(const Fetch&) = delete;

    // Changes with a greater number are younger than the fetch.
    uint64_t mark() const { return iMark; }
    // The listing has been merged. True when younger changes are known: it is out of date already.
    bool end();

   private:
    OFSNodeChanges& iChanges;
    const KCNode& iFolder;
    const uint64_t iMark;
    bool iHasEnded = false;
  };

  // What happened to a name after the mark, or absent.
  std::optional<Kind> changeSince(const KCNode& folder, std::string_view name, uint64_t mark) const
      EXCLUDES(iLock);
  // Whether a name was made here and no listing has shown it since.
  bool wasMade(const KCNode& folder, std::string_view name) const EXCLUDES(iLock);

 private:
  struct Change {
    Kind kind;
    uint64_t number;
  };
  struct Folder {
    std::unordered_map<std::string, Change> changes;
    std::multiset<uint64_t> fetches;  // the marks of those under way
  };

  static constexpr uint64_t kPending = ~uint64_t{0};

  void noteNumbered(const KCNode& folder, std::string_view name, Change change) REQUIRES(iLock);
  void endPending(const KCNode& folder, const std::string& name) EXCLUDES(iLock);
  uint64_t beginFetch(const KCNode& folder) EXCLUDES(iLock);
  bool endFetch(const KCNode& folder, uint64_t mark) EXCLUDES(iLock);
  const Change* find(const KCNode& folder, std::string_view name) const REQUIRES(iLock);

  mutable Mutex iLock;
  // By the folder's identity. A folder that is freed and another made in its place at worst inherits old
  // changes, which its first listing clears.
  std::unordered_map<const KCNode*, Folder> iFolders GUARDED_BY(iLock);
  uint64_t iNumber GUARDED_BY(iLock) = 0;
};

}  // namespace ombra
