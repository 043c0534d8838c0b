// Which listings callers still have, and what was made in those folders since.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDate.h"

namespace ombra {

// A program that copies n files into a folder has the folder listed n times, each time longer. Who still has
// a listing of a moment ago needs to be told no more than what was made there through this pool since.
//
// Listings and changes are numbered, in the whole process, in the order in which the ones begin and the
// others have been made; a caller names the last one that it has merged. A listing serves for a second, or
// for thirty times as long as it took (a minute at most): then the folder is listed as a whole, since others
// make and remove things too. What the caller moved and removed it knows itself. Bounded in memory.
// Thread-safe; a leaf lock.
class KnownListings {
 public:
  struct NewItem {
    std::string name;
    bool isFolder = false;
    // As far as the server has told of it when it was made; absent when it has to be asked.
    std::optional<NSFileAttributes> attributes;
    uint64_t number = 0;
  };
  struct News {
    std::vector<NewItem> items;  // at least one
    uint64_t number = 0;         // of the listing with these
    std::optional<bool> keepsCase;
  };

  // A whole listing of the folder is about to be fetched. Its number.
  uint64_t begin(std::string_view folder) EXCLUDES(iLock);
  // It has been, and took so many seconds.
  void fetched(std::string_view folder, uint64_t number, double seconds) EXCLUDES(iLock);
  // What was made in a folder since the listing `known`, each name once. Absent when it has to be listed,
  // also because nothing was.
  std::optional<News> since(std::string_view folder, uint64_t known) EXCLUDES(iLock);

  // The server has made this at a path in normal form; a folder in so many seconds.
  void madeFile(std::string_view path, std::optional<NSFileAttributes> attributes) EXCLUDES(iLock);
  void madeFolder(std::string_view path, double seconds) EXCLUDES(iLock);
  // Nobody knows any more what is at the path, or below it.
  void forget(std::string_view path) EXCLUDES(iLock);
  // The folder has something new that is neither a file nor a folder.
  void forgetFolder(std::string_view folder) EXCLUDES(iLock);

  // Whether a folder tells names apart that differ in case alone. It holds for folders made in it as well.
  void learn(std::string_view folder, bool keepsCase) EXCLUDES(iLock);

 private:
  struct Folder {
    std::string path;
    uint64_t first = 0;           // listings before this one are of no use
    std::optional<NSDate> since;  // when the last whole one ended; absent: there is none
    double seconds = 0;           // that it serves
    std::deque<NewItem> items;    // in the order of their numbers
    std::optional<bool> keepsCase;
    bool isMadeHere = false;
  };

  static uint64_t nextNumber();
  // Null where nothing is known of it, or no longer: then it is listed as a whole.
  Folder* use(std::string_view path) REQUIRES(iLock);
  Folder& add(std::string_view path) REQUIRES(iLock);
  // Both answer the folder that the path lies in; null where nothing is known of that.
  Folder* addItem(std::string_view path, NewItem item) REQUIRES(iLock);
  Folder* dropItem(std::string_view path) REQUIRES(iLock);
  // That folder, and what lies below it.
  void dropFoldersFrom(std::string_view path) REQUIRES(iLock);
  static bool serves(const Folder& folder);

  mutable Mutex iLock;
  std::list<Folder> iFolders GUARDED_BY(iLock);  // the one that was used last is the first
};

}  // namespace ombra
