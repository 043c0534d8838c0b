// A file system upon another that keeps desktop litter to itself.
#pragma once

#include <sys/stat.h>

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/userfs/FuseLibrary.h"
#include "platform/userfs/redirect/LitterStore.h"

namespace ombra {

// What is called litter (RedirectRules) is made in the local store and never on the file system below. Litter
// that is there already, from other machines, is shown and can be read and removed; what is written to it
// stays here and covers it.
//
// The operations are the library's: each answers 0 or a count or a negative errno. A handle with kLocal is
// that of a file of this machine, every other is the lower file system's own and goes through as it is; open
// folders have handles of ours. Thread-safe.
class RedirectFileSystem {
 public:
  static constexpr uint64_t kLocal = uint64_t{1} << 63;
  // Offsets of litter within a listing; the lower file system's own are below.
  static constexpr off_t kLitterOffset = off_t{1} << 62;
  // What is copied from the server to be changed here, or on a rename between litter and others.
  static constexpr uint64_t kLargestCopy = 64 * 1024 * 1024;

  RedirectFileSystem(fuse_fs* lower, std::unique_ptr<LitterStore> store);
  ~RedirectFileSystem();
  RedirectFileSystem(const RedirectFileSystem&) = delete;
  RedirectFileSystem& operator=(const RedirectFileSystem&) = delete;
  fuse_fs* lower() const { return iLower; }

  // RedirectFileSystem.cpp
  int attributes(const char* path, struct stat* attributes, fuse_file_info* file);
  int changeMode(const char* path, mode_t mode, fuse_file_info* file);
  int changeOwner(const char* path, uid_t user, gid_t group, fuse_file_info* file);
  int changeTimes(const char* path, const timespec times[2], fuse_file_info* file);
  int volumeAttributes(const char* path, struct statvfs* attributes);
  int mayAccess(const char* path, int mask);
  int readLink(const char* path, char* buffer, size_t size);
  int setExtendedAttribute(const char* path, const char* name, const char* value, size_t size, int flags);
  int extendedAttribute(const char* path, const char* name, char* buffer, size_t size);
  int extendedAttributes(const char* path, char* buffer, size_t size);
  int removeExtendedAttribute(const char* path, const char* name);

  // RedirectFileSystem+Files.cpp
  int open(const char* path, fuse_file_info* file);
  int create(const char* path, mode_t mode, fuse_file_info* file);
  int makeNode(const char* path, mode_t mode, dev_t device);
  int read(const char* path, fuse_bufvec** buffer, size_t size, off_t offset, fuse_file_info* file);
  int write(const char* path, fuse_bufvec* buffer, off_t offset, fuse_file_info* file);
  int flush(const char* path, fuse_file_info* file);
  int synchronize(const char* path, int dataOnly, fuse_file_info* file);
  int release(const char* path, fuse_file_info* file);
  int truncate(const char* path, off_t size, fuse_file_info* file);
  int allocate(const char* path, int mode, off_t offset, off_t length, fuse_file_info* file);

  // RedirectFileSystem+Folders.cpp
  int makeFolder(const char* path, mode_t mode);
  int makeSymbolicLink(const char* target, const char* path);
  int makeLink(const char* from, const char* to);
  int openFolder(const char* path, fuse_file_info* file);
  int readFolder(const char* path, void* buffer, fuse_fill_dir_t fill, off_t offset, fuse_file_info* file,
                 fuse_readdir_flags flags);
  int closeFolder(const char* path, fuse_file_info* file);
  int synchronizeFolder(const char* path, int dataOnly, fuse_file_info* file);

  // RedirectFileSystem+MoveRemove.cpp
  int removeFile(const char* path);
  int removeFolder(const char* path);
  int move(const char* from, const char* to, unsigned flags);

 private:
  struct OpenFolder;
  struct Filling;
  // A file of the lower file system, opened for a copy.
  class LowerFile;

  // Where the litter at `path` lies; absent for what is no litter, or not kept here. `path` may be null.
  std::optional<std::string> kept(const char* path) const;
  // What the lower file system has at `path`; absent when nothing, or it cannot tell.
  std::optional<struct stat> below(const std::string& path) const;
  int openKept(const std::string& path, const std::string& local, fuse_file_info* file);
  // Handles that may write are counted by file.
  void noteWriter(int descriptor, int change) EXCLUDES(iLock);
  // Whether one that may write stays open for half a second: the kernel tells the end of a handle somewhat
  // after its close returned.
  bool staysOpenToWrite(const struct stat& local) EXCLUDES(iLock);
  int makeKeptFile(const std::string& path, mode_t mode, int* descriptor);
  // Copies the content of a litter file of the lower file system into the store.
  int takeUp(const std::string& path, const struct stat& attributes);
  int copyFromBelow(const std::string& path, const std::string& local, const struct stat& attributes);
  int copyBelow(const std::string& local, const std::string& path, const struct stat& attributes);
  static int fillBelow(LowerFile& target, int source);

  static int passEntry(void* filling, const char* name, const struct stat* attributes, off_t next,
                       fuse_fill_dir_flags flags);
  void snapshot(OpenFolder& folder) const;
  int readBelow(const char* path, Filling& filling, off_t offset, fuse_readdir_flags flags);
  void fillLitter(const OpenFolder& folder, const std::string& path, Filling& filling, off_t offset,
                  fuse_readdir_flags flags) const;
  void followFolders(const std::string& from, const std::string& to) EXCLUDES(iLock);

  int moveBelow(const char* from, const char* to, unsigned flags);
  int moveKept(const std::string& from, const std::string& to);
  int bringToServer(const std::string& from, const std::string& to, unsigned flags);
  int takeFromServer(const std::string& from, const std::string& to);
  int removeBelow(const std::string& path);

  fuse_fs* const iLower;
  const std::unique_ptr<LitterStore> iStore;
  Mutex iLock;
  std::vector<OpenFolder*> iOpenFolders GUARDED_BY(iLock);
  std::map<ino_t, size_t> iWriters GUARDED_BY(iLock);
  std::condition_variable_any iWritersChange;  // with iLock
};

}  // namespace ombra
