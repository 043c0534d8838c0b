// Which open-file objects there are, who uses them, and in which order they were last used.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "fshelper/OFSRemoteFile.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSError.h"
#include "remote/KCNode.h"

namespace ombra {

// Holds every open-file object from its making until it is settled and dropped, so that nothing unsent can
// vanish with a node that leaves the tree. Thread-safe; below its lock only a file's path is asked for or
// set.
//
// There may be ten thousand of them, and each open, close, removal and move of one file asks: what these need
// is found without a look at the others.
class OFSNodeFileTable {
 public:
  struct Entry {
    std::shared_ptr<OFSRemoteFile> file;
    std::weak_ptr<KCRemoteFileNode> node;
    size_t uses = 0;          // handles of the framework, and operations under way
    uint64_t lastUse = 0;     // grows with each use
    uint64_t bytes = 0;       // of the cache file when it was last looked at
    uint64_t number = 0;      // in order of making
    bool isDetached = false;  // no node leads to it any more
    // Detached, and another object of its remote path was made after it: what is unsent of it must not be
    // sent over that one, nor to where that one has left.
    bool isOutdated = false;
    // Detached because the server has refused its content: it is not sent any more.
    NSErrorRef refusal;
  };

  // A new object on `node`. From now on its path is set through the table.
  void add(const std::shared_ptr<OFSRemoteFile>& file, const std::shared_ptr<KCRemoteFileNode>& node)
      EXCLUDES(iLock);
  // One use begins and ends. Objects that are not in the table are ignored. When the last use of a detached
  // object ends with nothing unsent, the object is let go.
  void beginUse(const OFSRemoteFile& file) EXCLUDES(iLock);
  void endUse(OFSRemoteFile& file) EXCLUDES(iLock);
  // No node leads to the object any more: it goes as soon as it is out of use and nothing of it is unsent.
  void detach(OFSRemoteFile& file) EXCLUDES(iLock);
  // Detaches an object that is out of use and was not used since `lastUse`, since the server has refused it.
  // False when it was used.
  bool detachRefused(const OFSRemoteFile& file, uint64_t lastUse, NSErrorRef refusal) EXCLUDES(iLock);
  // When the object was last used; absent while it is in use, and for one that is not in the table.
  std::optional<uint64_t> lastUse(const OFSRemoteFile& file) const EXCLUDES(iLock);
  // The item was removed: whatever is unsent has nowhere to go. Its handles keep the object.
  void forget(const OFSRemoteFile& file) EXCLUDES(iLock);
  // Gives the object, whether it is in the table or not, its new path.
  void setRemotePath(OFSRemoteFile& file, std::string remotePath) EXCLUDES(iLock);
  // The objects below a folder that has moved follow it.
  void moveBelow(const std::string& from, const std::string& to) EXCLUDES(iLock);
  // A copy of the entries at a remote path, and below it.
  std::vector<Entry> atAndBelowPath(const std::string& remotePath) const EXCLUDES(iLock);
  // The detached objects of a remote path; and those of them that the server has refused.
  std::vector<std::shared_ptr<OFSRemoteFile>> detachedAtPath(std::string_view remotePath) const
      EXCLUDES(iLock);
  std::vector<std::shared_ptr<OFSRemoteFile>> refusedAtPath(std::string_view remotePath) const
      EXCLUDES(iLock);
  // Whether there are some for `lookAgain`.
  bool isAnyMoving() const EXCLUDES(iLock);
  // Looks again at the objects out of use whose transfers outlived their last use: counts what has arrived
  // since, and lets go of those that no node leads to.
  void lookAgain() EXCLUDES(iLock);
  // Lets go of an object that is out of use and was not used since `lastUse`. False when it was.
  bool removeIfUnused(const OFSRemoteFile& file, uint64_t lastUse) EXCLUDES(iLock);

  // A copy of the entry that was out of use the longest, of those last used after `lastUse`; 0: of all.
  std::optional<Entry> firstUnusedAfter(uint64_t lastUse) const EXCLUDES(iLock);

  // A copy of all entries, least recently used first.
  std::vector<Entry> entries() const EXCLUDES(iLock);
  size_t count() const EXCLUDES(iLock);
  // The sum of the entries' bytes.
  uint64_t bytes() const EXCLUDES(iLock);

 private:
  struct Record;
  using ByPath = std::multimap<std::string, Record*, std::less<>>;
  struct Record {
    Entry entry;
    ByPath::iterator place;  // in iByPath
  };
  struct Measure {
    bool isMoving;
    uint64_t bytes;
  };

  Record* find(const OFSRemoteFile& file) REQUIRES(iLock);
  // The object, if it is out of use and was not used since.
  Record* findUnused(const OFSRemoteFile& file, uint64_t lastUse) REQUIRES(iLock);
  // Gives it that number of uses, as of now.
  void setUses(Record& record, size_t uses) REQUIRES(iLock);
  void setPath(Record& record, std::string remotePath) REQUIRES(iLock);
  // Those whose paths begin so.
  std::vector<Record*> withPrefix(std::string prefix) const REQUIRES(iLock);
  // The detached objects of a path that are wanted.
  std::vector<std::shared_ptr<OFSRemoteFile>> detachedFiles(std::string_view remotePath,
                                                            bool (*isWanted)(const Entry&)) const
      EXCLUDES(iLock);
  // Marks the detached objects of a path that have a younger one beside them.
  void markOutdatedAtPath(std::string_view remotePath) REQUIRES(iLock);
  // Marks it as detached; what becomes of it is the caller's.
  void detachRecord(Record& record) REQUIRES(iLock);
  static Measure measure(OFSRemoteFile& file);
  void note(Record& record, Measure measure) REQUIRES(iLock);
  void letGoIfSettled(OFSRemoteFile& file) EXCLUDES(iLock);
  std::shared_ptr<OFSRemoteFile> erase(const OFSRemoteFile& file) REQUIRES(iLock);

  mutable Mutex iLock;
  std::unordered_map<const OFSRemoteFile*, Record> iRecords GUARDED_BY(iLock);
  ByPath iByPath GUARDED_BY(iLock);
  std::map<uint64_t, Record*> iUnused GUARDED_BY(iLock);  // those without a use, by their last one
  // Those whose transfer ran when they were measured: the file may have grown since.
  std::unordered_set<Record*> iMoving GUARDED_BY(iLock);
  uint64_t iLastUse GUARDED_BY(iLock) = 0;
  uint64_t iLastNumber GUARDED_BY(iLock) = 0;
  size_t iDetached GUARDED_BY(iLock) = 0;
  uint64_t iBytes GUARDED_BY(iLock) = 0;
};

// One use of an open-file object, for a scope or until it is handed over to the framework.
class OFSNodeFilePin {
 public:
  OFSNodeFilePin(OFSNodeFileTable& table, std::shared_ptr<OFSRemoteFile> file);
  ~OFSNodeFilePin();
  OFSNodeFilePin(OFSNodeFilePin&& other) noexcept = default;
  OFSNodeFilePin& operator=(OFSNodeFilePin&&) = delete;

  OFSRemoteFile* operator->() const { return iFile.get(); }
  const std::shared_ptr<OFSRemoteFile>& file() const { return iFile; }
  // The file; its use goes on beyond the pin: `endUse` is called for it when its handle is released.
  std::shared_ptr<OFSRemoteFile> keep() { return std::move(iFile); }

 private:
  OFSNodeFileTable& iTable;
  std::shared_ptr<OFSRemoteFile> iFile;  // null once handed over
};

}  // namespace ombra
