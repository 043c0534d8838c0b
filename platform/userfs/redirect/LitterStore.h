// The local folder that desktop litter is kept in.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/userfs/PathMap.h"

namespace ombra {

// Each piece of litter, a file or a folder, has a folder of its own in the store:
//
//   FOLDER/KEY/path   its path in the volume
//   FOLDER/KEY/item   the file or folder itself
//
// KEY is the SHA-1 of the path, or the path itself in an escaped form. What is there when the store is opened
// belongs to it: a store may be kept from mount to mount.
//
// Paths are absolute ones of the volume, of litter or within litter. An errno is answered where a call can
// fail, 0 is success. Thread-safe; the same path must not be changed by two threads at once.
class LitterStore {
 public:
  // Makes the folder when it is missing. Null with the reason in `reason` when it cannot be used.
  static std::unique_ptr<LitterStore> open(std::string folder, bool hashesNames, std::string* reason);

  // Where the item at `path` lies on this machine; absent when nothing is kept there.
  std::optional<std::string> find(std::string_view path) const EXCLUDES(iLock);
  // The names of litter that is kept directly in a folder and is to be listed, sorted. `folder` is outside of
  // litter.
  std::vector<std::string> namesInFolder(std::string_view folder) const EXCLUDES(iLock);

  // Makes an item: `create` is told the local path and answers an errno. Folders above it within litter are
  // made as well.
  int make(std::string_view path, const std::function<int(const std::string&)>& create) EXCLUDES(iLock);
  // A file with that content in place of whatever is there; not listed until it is made anew or `list`ed.
  int makeHiddenFile(std::string_view path, std::string_view content) EXCLUDES(iLock);
  // Has a hidden file listed from now on; nothing to what is not kept.
  void list(std::string_view path) EXCLUDES(iLock);
  // Removes a file, a link or an empty folder.
  int remove(std::string_view path) EXCLUDES(iLock);
  // From litter to litter, as rename(2).
  int move(std::string_view from, std::string_view to) EXCLUDES(iLock);

  // Litter at and below a folder of the volume that is gone, or has been moved. What cannot be moved on
  // this machine is not kept any more.
  void dropFolder(std::string_view folder) EXCLUDES(iLock);
  void moveFolder(std::string_view from, std::string_view to) EXCLUDES(iLock);
  // Whether any litter is kept at that folder's path or below it.
  bool holdsAtOrBelow(std::string_view folder) const EXCLUDES(iLock);

 private:
  using Names = std::map<std::string, bool, std::less<>>;  // of litter → whether it is listed

  LitterStore(std::string folder, bool hashesNames);
  void load() EXCLUDES(iLock);
  std::string keyOf(std::string_view litter) const;
  std::string roomOf(std::string_view litter) const;
  std::string localPath(std::string_view path) const;
  int prepareRoom(std::string_view path) const;
  void removeRoom(std::string_view litter) const;
  int writePath(std::string_view litter) const;
  bool isKept(std::string_view litter) const EXCLUDES(iLock);
  void note(std::string_view litter, bool isListed) EXCLUDES(iLock);
  void forget(std::string_view litter) EXCLUDES(iLock);

  const std::string iFolder;
  const bool iHashesNames;
  mutable Mutex iLock;  // a leaf
  mutable PathMap<Names> iFolders GUARDED_BY(iLock);
};

}  // namespace ombra
