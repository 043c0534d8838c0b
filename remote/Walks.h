// Who walks through the folders of a server, and what will be asked for next.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/foundation/Mutex.h"

namespace ombra {

// What is learned of a server from its listings: the order in which a program that copies or searches a tree
// comes by. Guesses only: what was done ahead for nothing must do no harm. Bounded in memory. Thread-safe; a
// leaf lock.
class Walks {
 public:
  enum class Kind : size_t { kFolder, kFile };
  struct Item {
    std::string path;
    int64_t modified = 0;  // as listed, in seconds
    std::optional<uint64_t> size;
  };

  // What is worth remembering of a listing, in the server's order. Links and whatever else is no plain file
  // or folder are to be left out: to open them could mean anything.
  class Listing {
   public:
    // `modified` in seconds since 1970; 0 where nobody minds that it may have changed just now.
    void add(std::string_view name, Kind kind, int64_t modified, std::optional<uint64_t> size);
    bool has(Kind kind) const { return !iItems[static_cast<size_t>(kind)].empty(); }

   private:
    friend class Walks;
    struct Known {
      std::string name;
      int64_t modified = 0;
      std::optional<uint64_t> size;
      bool isAsked = false;
    };
    std::array<std::vector<Known>, 2> iItems;  // by kind
  };
  // Whether the folder was not known before. How far a walk has come in it stays known.
  bool listed(std::string_view folder, Listing listing) EXCLUDES(iLock);
  // `path` is about to be listed, or read. Answers how long it was when its folder was listed, where that is
  // known: a hint, nothing more.
  std::optional<uint64_t> reached(std::string_view path, Kind kind) EXCLUDES(iLock);
  // Whether a guess begins with what was just passed over, since the order is followed only roughly.
  enum class Reach { kAround, kForward };
  // What a walk that is at `path` will most likely ask for next among its neighbours, nearest first, in the
  // direction in which it goes through the listing. Nothing unless several neighbours were asked for in
  // succession, and nothing that changed within the last seconds.
  std::vector<Item> next(std::string_view path, Kind kind, size_t count, Reach reach = Reach::kAround)
      EXCLUDES(iLock);
  // The same for what lies in a folder that the walk has just come to.
  std::vector<Item> firstIn(std::string_view folder, Kind kind, size_t count) EXCLUDES(iLock);

  // Something at `path` was, or may have been, made, moved or removed through one of the sessions.
  void changed(std::string_view path) EXCLUDES(iLock);
  // Counts the changes.
  uint64_t changes() const EXCLUDES(iLock);
  // Whether what was opened at `path`, after so many changes, may stand for something else by now.
  bool isAffected(std::string_view path, uint64_t since) const EXCLUDES(iLock);

  // Tells `changed` at its end, whatever became of the change.
  class Change {
   public:
    Change(Walks& walks, std::string_view path) : iWalks(walks), iPath(path) {}
    ~Change() { iWalks.changed(iPath); }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;

   private:
    Walks& iWalks;
    const std::string iPath;
  };

 private:
  using Known = Listing::Known;
  struct Folder {
    std::string path;
    std::array<std::vector<Known>, 2> items;  // by kind
    std::array<std::optional<size_t>, 2> last;
  };

  Folder* folderAt(std::string_view path) REQUIRES(iLock);
  static std::optional<size_t> indexOf(const Folder& folder, Kind kind, std::string_view name);
  static void carryOver(const Folder& known, Folder& listed);
  // `last` is where the walk is, absent when it has not come there yet.
  std::vector<Item> guess(const Folder& folder, Kind kind, std::optional<size_t> last, size_t count,
                          Reach reach) const REQUIRES(iLock);

  mutable Mutex iLock;
  std::list<Folder> iFolders GUARDED_BY(iLock);        // the one used last is the first
  std::array<int, 2> iRun GUARDED_BY(iLock) = {0, 0};  // neighbours in succession, by kind
  // Above 0 when programs go through listings forwards, below when backwards; by kind. Some file systems list
  // what is newest first, and programs sort by name.
  std::array<int, 2> iTrend GUARDED_BY(iLock) = {0, 0};
  std::deque<std::string> iChanged GUARDED_BY(iLock);  // the latest changes
  uint64_t iChanges GUARDED_BY(iLock) = 0;             // all of them
  // Whether anybody has counted since the last one.
  mutable bool iIsCounted GUARDED_BY(iLock) = false;
};

}  // namespace ombra
