// Removal and moves, also between litter and what is none.
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <string>

#include "platform/userfs/redirect/LocalHandle.h"
#include "platform/userfs/redirect/OpenFolder.h"
#include "platform/userfs/redirect/RedirectRules.h"

namespace ombra {

namespace {

// The name that a file has on the server until it is whole.
std::string unfinishedName(const std::string& path) {
  static std::atomic<unsigned> sLast{0};
  const std::string_view folder = folderOf(path);
  return (folder == "/" ? "" : std::string(folder)) + "/.redirect-" + std::to_string(getpid()) + "-" +
         std::to_string(++sLast) + ".part";
}

}  // namespace

// A piece of litter from another machine must not come back where ours has covered it.
int RedirectFileSystem::removeBelow(const std::string& path) {
  const auto present = below(path);
  if (!present) return 0;
  return S_ISDIR(present->st_mode) ? fuse_fs_rmdir(iLower, path.c_str())
                                   : fuse_fs_unlink(iLower, path.c_str());
}

int RedirectFileSystem::removeFile(const char* path) {
  if (!kept(path)) return fuse_fs_unlink(iLower, path);
  if (const int number = iStore->remove(path); number != 0) return -number;
  return removeBelow(path);
}

// A folder that holds nothing but litter counts as empty: that is how every other user of the server sees it.
int RedirectFileSystem::removeFolder(const char* path) {
  if (kept(path)) {
    if (const int number = iStore->remove(path); number != 0) return -number;
    followFolders(path, "");
    return removeBelow(path);
  }
  const int result = fuse_fs_rmdir(iLower, path);
  if (result != 0) return result;
  iStore->dropFolder(path);
  followFolders(path, "");
  return 0;
}

int RedirectFileSystem::move(const char* from, const char* to, unsigned flags) {
  const bool fromLitter = RedirectRules::isLitter(from);
  const bool toLitter = RedirectRules::isLitter(to);
  if (!fromLitter && !toLitter) return moveBelow(from, to, flags);
  if ((flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0) return -EINVAL;
  const bool isTaken = kept(to) || below(to);
  if ((flags & RENAME_NOREPLACE) != 0 && isTaken) return -EEXIST;
  if (fromLitter && toLitter) return moveKept(from, to);
  // Content goes over the line. Programs that save a file do so within its folder; whoever moves files from
  // folder to folder copies them when told so.
  if (folderOf(from) != folderOf(to)) return -EXDEV;
  return fromLitter ? bringToServer(from, to, flags) : takeFromServer(from, to);
}

int RedirectFileSystem::moveBelow(const char* from, const char* to, unsigned flags) {
  const bool exchanges = (flags & ~static_cast<unsigned>(RENAME_NOREPLACE)) != 0;
  if (exchanges && (iStore->holdsAtOrBelow(from) || iStore->holdsAtOrBelow(to))) return -EINVAL;
  const int result = fuse_fs_rename(iLower, from, to, flags);
  if (result != 0 || exchanges) return result;
  if (iStore->holdsAtOrBelow(to)) iStore->dropFolder(to);
  iStore->moveFolder(from, to);
  followFolders(from, to);
  return 0;
}

int RedirectFileSystem::moveKept(const std::string& from, const std::string& to) {
  if (!kept(from.c_str())) {
    const auto present = below(from);
    if (!present) return -ENOENT;
    // Whoever moves a folder copies what is in it then.
    if (!S_ISREG(present->st_mode)) return -EXDEV;
    if (const int result = takeUp(from, *present); result != 0) return result;
  } else if (const auto covered = below(from); covered && S_ISDIR(covered->st_mode)) {
    return -EXDEV;
  }
  if (const int number = iStore->move(from, to); number != 0) return -number;
  followFolders(from, to);
  return removeBelow(from);
}

int RedirectFileSystem::bringToServer(const std::string& from, const std::string& to, unsigned flags) {
  const auto local = kept(from.c_str());
  if (!local) return fuse_fs_rename(iLower, from.c_str(), to.c_str(), flags);
  struct stat source {};
  if (lstat(local->c_str(), &source) != 0) return -errno;
  if (!S_ISREG(source.st_mode)) return -EXDEV;
  // What is written to it from now on would not get to the server.
  if (staysOpenToWrite(source)) return -EBUSY;
  const auto replaced = below(to);
  if (replaced && S_ISDIR(replaced->st_mode)) return -EISDIR;
  // What is replaced must not be lost with a copy that fails half way.
  const std::string made = replaced ? unfinishedName(to) : to;
  if (const int result = copyBelow(*local, made, source); result != 0) return result;
  if (replaced) {
    if (const int result = fuse_fs_rename(iLower, made.c_str(), to.c_str(), 0); result != 0) {
      fuse_fs_unlink(iLower, made.c_str());
      return result;
    }
  }
  if (const int number = iStore->remove(from); number != 0) return -number;
  return removeBelow(from);
}

int RedirectFileSystem::takeFromServer(const std::string& from, const std::string& to) {
  const auto source = below(from);
  if (!source) return -ENOENT;
  if (!S_ISREG(source->st_mode) || static_cast<uint64_t>(source->st_size) > kLargestCopy) return -EXDEV;
  const int number = iStore->make(to, [&](const std::string& local) {
    const std::string unfinished = local + ".new";
    int result = -copyFromBelow(from, unfinished, *source);
    if (result == 0 && rename(unfinished.c_str(), local.c_str()) != 0) result = errno;
    if (result != 0) unlink(unfinished.c_str());
    return result;
  });
  if (number != 0) return -number;
  return fuse_fs_unlink(iLower, from.c_str());
}

}  // namespace ombra
