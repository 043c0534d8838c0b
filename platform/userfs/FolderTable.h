// What the kernel has been told of folders, so that it can be taken back.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDate.h"
#include "platform/userfs/PathMap.h"

namespace ombra {

using FolderListing = std::shared_ptr<const std::vector<std::string>>;

// An open folder has a snapshot of its listing, so that the offsets of one walk stay valid; going back to the
// start takes a new one. Thread-safe; its lock is a leaf.
class FolderTable {
 public:
  // The folder as the kernel knows it: its number and the names that it may hold entries of.
  struct Known {
    uint64_t nodeID = 0;
    std::vector<std::string> names;
    bool operator==(const Known&) const = default;
  };

  // The handle of a folder that is opened now. `nodeID`: the kernel's number of it, 0 when unknown.
  uint64_t open(const std::string& path, uint64_t nodeID) EXCLUDES(iLock);
  // Unknown handles are ignored, here and below.
  void close(uint64_t identifier) EXCLUDES(iLock);
  // The path of an open folder, wherever it has been moved; absent when it was removed or is not open.
  std::optional<std::string> pathOfHandle(uint64_t identifier) const EXCLUDES(iLock);
  // The snapshot of an open folder; null before its first read, and when it is not open.
  FolderListing listingOfHandle(uint64_t identifier) const EXCLUDES(iLock);
  // The names just read for an open folder; the kernel is about to be told of them.
  void setListing(uint64_t identifier, FolderListing listing) EXCLUDES(iLock);

  // The kernel looked `path` up in the folder that it knows by that number.
  void noteEntry(std::string_view path, uint64_t parentNodeID) EXCLUDES(iLock);
  // The item was removed here, and the kernel's entry with it: there is nothing to be taken back.
  void forgetEntry(std::string_view path) EXCLUDES(iLock);
  // True when the folder has been listed within the last `seconds` and nothing was invalidated since: what
  // the kernel keeps of that listing is still good.
  bool wasListedWithin(std::string_view path, double seconds) const EXCLUDES(iLock);

  // Forgets what the kernel knows of the folder and returns it; absent when it knows nothing.
  std::optional<Known> invalidate(std::string_view path) EXCLUDES(iLock);
  // An item was moved here: open folders at and below it follow.
  void move(std::string_view from, std::string_view to) EXCLUDES(iLock);
  // A folder was removed here: who has it open, or one below it, has no path any more.
  void remove(std::string_view path) EXCLUDES(iLock);

 private:
  struct Folder {
    uint64_t nodeID = 0;
    std::optional<NSDate> listed;
    std::unordered_set<std::string> names;
  };
  struct Handle {
    std::optional<std::string> path;
    uint64_t nodeID = 0;
    FolderListing listing;
  };

  void dropEntry(std::string_view path) REQUIRES(iLock);

  mutable Mutex iLock;
  uint64_t iLastIdentifier GUARDED_BY(iLock) = 0;
  std::map<uint64_t, Handle> iHandles GUARDED_BY(iLock);
  mutable PathMap<Folder> iFolders GUARDED_BY(iLock);
};

}  // namespace ombra
