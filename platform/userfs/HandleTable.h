// The open files of a volume: from the kernel's handle to the path and to what the delegate keeps.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "platform/foundation/Mutex.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"
#include "platform/userfs/PathMap.h"
#include "platform/userfs/WritingProcesses.h"

namespace ombra {

// What all handles of one file share. Thread-safe; its lock is a leaf.
//
//   live, at a path  --move-->  live, at another path
//   live             --markRemoved-->  removed: no path; its attributes are kept here and follow its writes
class OpenItem {
 public:
  OpenItem(std::string path, GMUserData userData);

  const GMUserData& userData() const { return iUserData; }
  // Absent once the file has been removed.
  std::optional<std::string> path() const EXCLUDES(iLock);
  void setPath(std::string path) EXCLUDES(iLock);

  bool isRemoved() const EXCLUDES(iLock);
  // `attributes` are those of the moment of removal.
  void markRemoved(const NSFileAttributes& attributes) EXCLUDES(iLock);
  // Of a removed file, or as they were last seen.
  NSFileAttributes lastAttributes() const EXCLUDES(iLock);
  // What the item was last seen with. Nothing to a removed one.
  void noteSeen(const NSFileAttributes& attributes) EXCLUDES(iLock);
  // Of a removed file: it was written up to `end`; it was given a size. Nothing to others.
  void noteWrite(uint64_t end) EXCLUDES(iLock);
  void noteSize(uint64_t size) EXCLUDES(iLock);
  // Mode and date, as far as they are present.
  void noteAttributes(const NSFileAttributes& attributes) EXCLUDES(iLock);

  // Whether the file may have a set-user-id or set-group-id bit, or a write has to look. Forgotten when the
  // mode is changed.
  bool mayHavePrivileges() const { return iMayHavePrivileges; }
  void setMayHavePrivileges(bool may) { iMayHavePrivileges = may; }

  // Whether it has a handle.
  bool isOpen() const { return iHandleCount != 0; }
  // Whether the kernel may keep pages of the file: somebody has it open who does not go past them.
  bool mayHavePages() const { return iHandleCount != iBypassing; }
  // Whether a mapping may have changed some of them.
  bool mayHaveChangedPages() const { return iWritersOfPages != 0; }

  // The kernel's number of the file, 0 until it is known.
  uint64_t nodeID() const { return iNodeID; }
  void setNodeID(uint64_t nodeID) { iNodeID = nodeID; }

 private:
  friend class HandleTable;

  const GMUserData iUserData;
  std::set<uint64_t> iHandles;          // this and the next are guarded by the table's lock
  uint64_t iRemovedNodeID = 0;          // `iNodeID` at the removal
  std::atomic<size_t> iHandleCount{0};  // these three are changed under the table's lock
  std::atomic<size_t> iBypassing{0};
  std::atomic<size_t> iWritersOfPages{0};
  std::atomic<uint64_t> iNodeID{0};
  std::atomic<bool> iMayHavePrivileges{true};
  mutable Mutex iLock;
  std::optional<std::string> iPath GUARDED_BY(iLock);
  bool iRemoved GUARDED_BY(iLock) = false;
  NSFileAttributes iAttributes GUARDED_BY(iLock);
};

enum class FileAccess { kReads, kWrites, kBoth };

// One open of a file, from open to release.
struct OpenHandle {
  uint64_t identifier = 0;
  std::shared_ptr<OpenItem> item;
  bool forWriting = false;
  // Whether the kernel hands its writes on as they are, without a copy in pages of its own. Only a handle
  // that never reads does, and only where no other had pages when it was opened.
  bool bypassesPages = false;
  pid_t opener = 0;  // the process, 0 when unknown
  WritingProcesses writers;

  // Whether something was written that no synchronisation begun after it has stored. A write that is under
  // way counts when it begins and again when it ends: a close that it overlaps does not settle it.
  bool hasUnstored() const { return changes != stored; }
  void noteChange() { ++changes; }
  std::atomic<uint64_t> changes{0};
  std::atomic<uint64_t> stored{0};  // `changes` when the last synchronisation that succeeded began
};

// A write through a handle by a thread (0 when the kernel does not tell which), for a scope.
class HandleChange {
 public:
  HandleChange(OpenHandle& handle, pid_t writer) : iHandle(handle) {
    iHandle.writers.add(writer);
    iHandle.noteChange();
  }
  ~HandleChange() { iHandle.noteChange(); }
  HandleChange(const HandleChange&) = delete;
  HandleChange& operator=(const HandleChange&) = delete;

 private:
  OpenHandle& iHandle;
};

// Thread-safe. Lock order: the table, then an item.
//
// There may be ten thousand handles: what concerns one file is found without a look at the others.
class HandleTable {
 public:
  // A new handle. It shares the item of a live file at that path with the same user data.
  std::shared_ptr<OpenHandle> add(const std::string& path, const GMUserData& userData, FileAccess access,
                                  pid_t opener, uint64_t nodeID) EXCLUDES(iLock);
  // Null when there is none.
  std::shared_ptr<OpenHandle> handle(uint64_t identifier) const EXCLUDES(iLock);
  // Takes a handle out; null when there is none.
  std::shared_ptr<OpenHandle> remove(uint64_t identifier) EXCLUDES(iLock);
  // Takes out every handle: those that the kernel will not release any more.
  std::vector<std::shared_ptr<OpenHandle>> removeAll() EXCLUDES(iLock);

  // A live open file at a path; null when there is none.
  std::shared_ptr<OpenItem> itemAtPath(std::string_view path) const EXCLUDES(iLock);
  // Open files at and below `from` follow it to `to`.
  void move(std::string_view from, std::string_view to) EXCLUDES(iLock);
  // The open files at a path have been removed from the volume.
  void markRemoved(std::string_view path, const NSFileAttributes& attributes) EXCLUDES(iLock);
  // Something of that file, which is not null, is not stored after all: the next close of each writing handle
  // has to see to it.
  void noteChange(const GMUserData& userData) EXCLUDES(iLock);
  // A handle of the removed file that the kernel knew by that number when it was removed; 0 when there is
  // none. Takes no lock when no removed file is open.
  uint64_t handleOfRemovedNode(uint64_t nodeID) const EXCLUDES(iLock);

  // Whether the pages that the kernel keeps of the file at `path` came from this open-file object and are
  // still right: true when the last open of the path gave the same one, and nobody has written past them
  // since. Remembers this one. The handle that is asked for must be in the table: whoever goes past the pages
  // from now on sees it and sees to them.
  bool isContentOfLastOpen(std::string_view path, const GMUserData& userData) EXCLUDES(iLock);
  // The next open of `path` does not keep the kernel's pages.
  void forgetLastOpen(std::string_view path) EXCLUDES(iLock);

 private:
  std::shared_ptr<OpenItem> findItem(std::string_view path, const GMUserData& userData) const REQUIRES(iLock);
  std::shared_ptr<OpenItem> addItem(const std::string& path, const GMUserData& userData) REQUIRES(iLock);
  static void count(OpenHandle& handle);
  // Takes the share of a handle that goes out of its item, and the item out with its last one.
  void dropHandle(const OpenHandle& handle) REQUIRES(iLock);
  void dropItem(const std::shared_ptr<OpenItem>& item) REQUIRES(iLock);
  void dropLastOpen(std::string_view path) REQUIRES(iLock);
  void pruneLastOpens() REQUIRES(iLock);

  std::atomic<size_t> iRemovedItems{0};
  mutable Mutex iLock;
  uint64_t iLastIdentifier GUARDED_BY(iLock) = 0;
  std::map<uint64_t, std::shared_ptr<OpenHandle>> iHandles GUARDED_BY(iLock);
  mutable PathMap<std::weak_ptr<OpenItem>> iItems GUARDED_BY(iLock);
  // The items with a handle in the table: all, and those of removed files by the kernel's numbers of them.
  std::unordered_multimap<const GMOpenFile*, const OpenItem*> iItemsOfFiles GUARDED_BY(iLock);
  std::unordered_multimap<uint64_t, const OpenItem*> iRemoved GUARDED_BY(iLock);
  PathMap<std::weak_ptr<GMOpenFile>> iLastOpens GUARDED_BY(iLock);
  size_t iPruneAt GUARDED_BY(iLock) = 1024;
};

}  // namespace ombra
