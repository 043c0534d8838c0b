// Answers the kernel's requests about one mounted volume by asking the delegate.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/userfs/FolderTable.h"
#include "platform/userfs/GMUserFileSystemDelegate.h"
#include "platform/userfs/HandleTable.h"
#include "platform/userfs/OpenGate.h"
#include "platform/userfs/WorkQueue.h"

namespace ombra {

struct VolumeSettings {
  std::string mountPath;
  bool jailSymlinks = false;
  bool nativeXattr = false;
};

// What the kernel is told of a file that it has opened.
struct OpenedFile {
  uint64_t handle = 0;
  bool keepsPages = false;     // the pages that it has of the file are still right
  bool bypassesPages = false;  // it is to hand on what is written without a copy in pages
  bool onlyReads = false;      // a close has nothing to wait for and need not be asked about
};

// Each operation answers 0 (or a count) or a negative errno of the system, once the delegate has answered.
// Paths are the kernel's; a handle of 0 stands for none. Thread-safe, no lock is held while the delegate is
// called. A raised exception passes through: whoever is between the kernel and here turns it into EIO. Always
// owned by a shared_ptr: work that is under way keeps it.
class Volume : public std::enable_shared_from_this<Volume> {
 public:
  // How long the kernel may answer from what it was told: names and attributes, and a folder's listing.
  static constexpr double kEntrySeconds = 60;
  static constexpr double kListingSeconds = 30;
  // How many files may be closing at once; each may take a minute.
  static constexpr size_t kClosers = 64;

  Volume(GMUserFileSystemDelegate* delegate, VolumeSettings settings);

  // Null: nothing is asked any more, and every operation fails.
  void setDelegate(GMUserFileSystemDelegate* delegate);
  GMUserFileSystemDelegate& delegate() const { return *iDelegate; }
  // Null when the delegate has no such operations.
  GMUserFileSystemDurability* durability() const { return iDurability; }
  HandleTable& handles() { return iHandles; }
  FolderTable& folders() { return iFolders; }
  WorkQueue& closers() { return iClosers; }

  // Volume+Attributes.cpp
  int attributes(const char* path, uint64_t handle, struct stat* attributes);
  int changeMode(const char* path, uint64_t handle, mode_t mode);
  int changeOwner(const char* path, uint64_t handle, uid_t user, gid_t group);
  int changeTimes(const char* path, uint64_t handle, const timespec times[2]);
  int volumeAttributes(const char* path, struct statvfs* attributes);

  // Volume+Names.cpp
  // Told one entry and the offset behind it; true when there is no room for it.
  using EntryFiller = std::function<bool(const char* name, const struct stat* attributes, off_t next)>;
  int openFolder(const char* path, uint64_t* handle);
  int readFolder(uint64_t handle, off_t offset, const EntryFiller& fill);
  void closeFolder(uint64_t handle) { iFolders.close(handle); }
  int makeFolder(const char* path, mode_t mode);
  int makeSymbolicLink(const char* target, const char* path);
  int readSymbolicLink(const char* path, char* buffer, size_t size);

  // Volume+MoveRemove.cpp
  int removeFile(const char* path);
  int removeFolder(const char* path);
  int move(const char* from, const char* to, unsigned flags);

  // Volume+Open.cpp
  // `process` is the number of the thread that asks, 0 when unknown.
  int open(const char* path, int flags, pid_t process, OpenedFile* opened);
  int create(const char* path, mode_t mode, int flags, pid_t process, OpenedFile* opened);
  int makeNode(const char* path, mode_t mode);
  int flush(uint64_t handle, pid_t process);
  int synchronize(uint64_t handle);
  // Comes back at once; the closers do what may have to wait.
  void release(uint64_t handle);
  // Releases what the kernel will not release any more.
  void releaseAll();

  // Volume+IO.cpp
  int read(uint64_t handle, char* buffer, size_t size, off_t offset);
  // Makes the kernel forget the pages of a file, given by its number there, from an offset on for a length;
  // those that a mapping has changed are written first.
  using PageDropper = std::function<void(uint64_t nodeID, off_t offset, size_t length)>;
  int write(uint64_t handle, const char* buffer, size_t size, off_t offset, const PageDropper& dropPages);
  int truncate(const char* path, uint64_t handle, off_t size);

  // Volume+ExtendedAttributes.cpp
  int setExtendedAttribute(const char* path, const char* name, const char* value, size_t size, int flags);
  int extendedAttribute(const char* path, const char* name, char* buffer, size_t size);
  int extendedAttributes(const char* path, char* buffer, size_t size);
  int removeExtendedAttribute(const char* path, const char* name);

 private:
  // The path as the server lists it.
  std::string listedPath(std::string_view path) const;
  std::optional<NSFileAttributes> attributesAtPath(const std::string& path) const;
  void fill(struct stat* target, const NSFileAttributes& attributes, std::string_view path) const;
  int fillRemoved(struct stat* target, const OpenItem& item) const;
  int change(const char* path, uint64_t handle, const NSFileAttributes& attributes);
  int changeItem(const std::string& path, const std::shared_ptr<OpenItem>& item,
                 const NSFileAttributes& attributes);
  NSFileAttributes attributesOfRemoved(const OpenItem& item) const;
  off_t lengthOfLink(std::string_view path) const;
  // Where a link leads, as it is told: inside the volume when links are kept there.
  std::string jailed(std::string target) const;
  void closeNewFolder(const std::string& path, mode_t mode);

  std::optional<std::vector<std::string>> names(const std::string& path, NSErrorRef* error) const;
  FolderListing freshListing(uint64_t handle, const std::string& path, int* failure);
  bool fillEntry(const std::string& folder, const std::string& name, off_t next,
                 const EntryFiller& fill) const;

  // The open-file objects of a path, told that the file is about to be removed, or that it stays after all.
  std::vector<GMUserData> abandonFilesAtPath(const std::string& path);
  void reclaim(const std::string& path, const std::vector<GMUserData>& files);
  int checkReplacement(const std::string& from, const std::string& to, unsigned flags);
  int moveListed(const std::string& from, const std::string& to);

  // The open itself; the path's turn must be held.
  int openFile(const std::string& path, int flags, GMUserData* userData);
  int truncateOpened(const std::string& path, const GMUserData& userData, bool isPrepared);
  void giveBack(const std::string& path, const GMUserData& userData);
  int truncateFile(const std::string& path, const GMUserData& userData, off_t size);
  int truncateClosed(const std::string& path, off_t size);
  std::shared_ptr<OpenHandle> addHandle(const std::string& path, const GMUserData& userData, int flags,
                                        pid_t process, uint64_t node);
  int synchronizeItem(const OpenItem& item);
  int synchronizeHandle(OpenHandle& handle);
  int storeDate(const OpenItem& item, NSDate date);
  // Takes the set-user-id and set-group-id bits of a file away when the request that is answered asks for it.
  // `item` may be null.
  int takePrivileges(const std::string& path, const std::shared_ptr<OpenItem>& item);
  void close(const std::shared_ptr<OpenHandle>& handle);
  bool releasesAtOnce(const OpenHandle& handle) const;
  void releaseNow(std::shared_ptr<OpenHandle> handle);
  void releaseLater(std::shared_ptr<OpenHandle> handle);

  // How to go on after a read that ended early.
  enum class AfterShortRead { kReadAgain, kEnd, kFail };
  AfterShortRead afterShortRead(OpenItem& item, uint64_t end, bool* sawEnd);
  std::optional<uint64_t> promisedSize(const OpenItem& item) const;

  const VolumeSettings iSettings;
  const uid_t iUser;
  const gid_t iGroup;
  std::atomic<GMUserFileSystemDelegate*> iDelegate;
  std::atomic<GMUserFileSystemDurability*> iDurability;
  HandleTable iHandles;
  FolderTable iFolders;
  OpenGate iOpenGate;
  WorkQueue iClosers;
};

// EPERM for a name that is not taken at the top of a volume, else 0.
int refusalToCreate(std::string_view path);
// The system's errno of a failed operation, negative: what an operation answers.
int failure(const NSErrorRef& error);
// A path as the delegate is given it: none for a file that has been removed.
OptionalPath optionalPath(const std::optional<std::string>& path);

}  // namespace ombra
