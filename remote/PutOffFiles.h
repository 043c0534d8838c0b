// New files that the server has not been told of yet.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/UnconfirmedExtents.h"

namespace ombra {

// A program that makes a file mostly writes to it at once, and where content travels as a whole, it makes the
// file by itself. So the making waits, for a second at most, whether content comes.
//
// A file is  put off -> taken -> nothing;  whoever has taken it makes it, or brings its content, or fails of
// that. From there it may be given back, and is put off again. One at a time has it, and others who would see
// the difference wait until he is done: so that the empty file never comes behind the content.
//
// What became of it is told to the file's UnconfirmedExtents. Thread-safe. One lock, which is not held while
// anything is made.
class PutOffFiles {
 public:
  // Makes the file of a path whose second is over, mostly by way of `take`. On a thread of this object's.
  using MakeDue = std::function<void(const std::string& path)>;
  using IsMeant = std::function<bool(const std::string& path, const UnconfirmedExtents* file)>;

  // What one has taken. Given back when it goes, unless `done` was called.
  class Turn {
   public:
    Turn(Turn&& other) noexcept
        : iOwner(std::exchange(other.iOwner, nullptr)), iPath(std::move(other.iPath)) {}
    Turn& operator=(Turn&&) = delete;
    ~Turn();
    const std::string& path() const { return iPath; }
    // The server has the file; or refuses it, then why.
    void done(NSErrorRef failure);

   private:
    friend class PutOffFiles;
    Turn(PutOffFiles& owner, std::string path) : iOwner(&owner), iPath(std::move(path)) {}
    PutOffFiles* iOwner;
    std::string iPath;
  };

  explicit PutOffFiles(MakeDue makeDue);
  // Nothing is taken then.
  ~PutOffFiles();
  PutOffFiles(const PutOffFiles&) = delete;
  PutOffFiles& operator=(const PutOffFiles&) = delete;

  // False when it cannot wait and is to be made at once.
  bool putOff(const std::string& path, std::shared_ptr<UnconfirmedExtents> file) EXCLUDES(iCondition);
  // Without a lock.
  bool isEmpty() const { return iCount == 0; }
  // Whether there is any of those that are meant.
  bool has(const IsMeant& isMeant) const EXCLUDES(iCondition);
  // The names of those in a folder.
  std::vector<std::string> namesIn(std::string_view folder) const EXCLUDES(iCondition);
  // One of those that are meant; absent when there is none any more. Waits for those that others have taken:
  // by a thread that has taken none.
  std::optional<Turn> take(const IsMeant& isMeant) EXCLUDES(iCondition);
  // It could not be made; unless somebody is about to.
  void fail(const std::string& path, NSErrorRef failure) EXCLUDES(iCondition);
  // Nothing is put off any more. What is has failed.
  void stop() EXCLUDES(iCondition);

 private:
  struct Entry {
    std::shared_ptr<UnconfirmedExtents> file;
    NSDate due;
    bool isTaken = false;
  };
  using Entries = std::map<std::string, Entry, std::less<>>;

  void giveBack(const std::string& path) EXCLUDES(iCondition);
  void end(const std::string& path, NSErrorRef failure) EXCLUDES(iCondition);
  void locked_end(Entries::iterator entry, NSErrorRef failure) REQUIRES(iCondition);
  bool hasMaker() REQUIRES(iCondition);
  void makeWhatIsDue() EXCLUDES(iCondition);
  std::optional<std::string> nextDue(std::optional<NSDate>* limit) const REQUIRES(iCondition);

  const MakeDue iMakeDue;
  std::atomic<size_t> iCount{0};  // of the entries, for those who find none

  mutable NSCondition iCondition;
  Entries iEntries GUARDED_BY(iCondition);
  bool iIsStopped GUARDED_BY(iCondition) = false;
  bool iMakerRuns GUARDED_BY(iCondition) = false;
  bool iMakerRests GUARDED_BY(iCondition) = false;  // until it is woken
  int iWaiters GUARDED_BY(iCondition) = 0;          // for what others have taken
  std::thread iMaker;                               // begun with the first file, joined by the destructor
};

}  // namespace ombra
