// Folders: litter is listed among what the file system below has.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "platform/foundation/DirectoryStream.h"
#include "platform/userfs/redirect/LocalHandle.h"
#include "platform/userfs/redirect/OpenFolder.h"
#include "platform/userfs/redirect/RedirectRules.h"

namespace ombra {

namespace {

// We must be able to empty our own folders.
constexpr mode_t kOwnersBits = 0700;

std::string below(const std::string& folder, const std::string& name) {
  return (folder == "/" ? folder : folder + "/") + name;
}

std::vector<std::string> namesInLocalFolder(const std::string& path) {
  std::vector<std::string> names;
  const DirectoryStream folder(opendir(path.c_str()));
  if (folder == nullptr) return names;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

// The kernel drops the releases that it has not sent when a volume goes.
RedirectFileSystem::~RedirectFileSystem() {
  const MutexLock lock(iLock);
  for (const OpenFolder* folder : iOpenFolders) delete folder;  // NOLINT: the library has held them
}

int RedirectFileSystem::makeFolder(const char* path, mode_t mode) {
  if (!RedirectRules::isLitter(path)) return fuse_fs_mkdir(iLower, path, mode);
  if (kept(path) || this->below(path)) return -EEXIST;
  return -iStore->make(path, [mode](const std::string& local) {
    if (mkdir(local.c_str(), kOwnersBits) != 0) return errno;
    return chmod(local.c_str(), (mode & 0777) | kOwnersBits) == 0 ? 0 : errno;
  });
}

int RedirectFileSystem::makeSymbolicLink(const char* target, const char* path) {
  if (!RedirectRules::isLitter(path)) return fuse_fs_symlink(iLower, target, path);
  if (kept(path) || this->below(path)) return -EEXIST;
  return -iStore->make(
      path, [target](const std::string& local) { return symlink(target, local.c_str()) == 0 ? 0 : errno; });
}

int RedirectFileSystem::makeLink(const char* from, const char* to) {
  if (RedirectRules::isLitter(from) || RedirectRules::isLitter(to)) return -EPERM;
  return fuse_fs_link(iLower, from, to);
}

int RedirectFileSystem::openFolder(const char* path, fuse_file_info* file) {
  auto folder = std::make_unique<OpenFolder>();
  folder->path = path;
  folder->lower = *file;
  const bool isKept = kept(path).has_value();
  folder->isBelow = !isKept || this->below(path).has_value();
  if (folder->isBelow) {
    if (const int result = fuse_fs_opendir(iLower, path, &folder->lower); result != 0) return result;
    *file = folder->lower;
  }
  file->fh = reinterpret_cast<uintptr_t>(folder.get());
  const MutexLock lock(iLock);
  iOpenFolders.push_back(folder.release());
  return 0;
}

int RedirectFileSystem::closeFolder(const char* path, fuse_file_info* file) {
  const std::unique_ptr<OpenFolder> folder(reinterpret_cast<OpenFolder*>(file->fh));
  {
    const MutexLock lock(iLock);
    std::erase(iOpenFolders, folder.get());
  }
  return folder->isBelow ? fuse_fs_releasedir(iLower, path, &folder->lower) : 0;
}

int RedirectFileSystem::synchronizeFolder(const char* path, int dataOnly, fuse_file_info* file) {
  auto* folder = reinterpret_cast<OpenFolder*>(file->fh);
  return folder->isBelow ? fuse_fs_fsyncdir(iLower, path, dataOnly, &folder->lower) : 0;
}

// Open folders at and below one that has been moved follow it; with `to` empty it is gone.
void RedirectFileSystem::followFolders(const std::string& from, const std::string& to) {
  const MutexLock lock(iLock);
  for (OpenFolder* folder : iOpenFolders) {
    if (!folder->path || !isAtOrBelow(*folder->path, from)) continue;
    if (to.empty()) {
      folder->path.reset();
    } else {
      folder->path = movedPath(*folder->path, from, to);
    }
  }
}

int RedirectFileSystem::passEntry(void* buffer, const char* name, const struct stat* attributes, off_t next,
                                  fuse_fill_dir_flags flags) {
  auto& filling = *static_cast<Filling*>(buffer);
  filling.folder->hasOffsets = next != 0;
  // The one here covers it.
  if (filling.folder->hides(name)) return 0;
  filling.isFull = filling.fill(filling.buffer, name, attributes, next, flags) != 0;
  return filling.isFull ? 1 : 0;
}

void RedirectFileSystem::fillLitter(const OpenFolder& folder, const std::string& path, Filling& filling,
                                    off_t offset, fuse_readdir_flags flags) const {
  const off_t first = offset > kLitterOffset ? offset - kLitterOffset : 0;
  for (auto index = static_cast<size_t>(first); index < folder.litter.size(); ++index) {
    const std::string& name = folder.litter[index];
    struct stat attributes {};
    const auto local = iStore->find(ombra::below(path, name));
    if (!local || lstat(local->c_str(), &attributes) != 0) continue;  // removed since
    attributes.st_ino |= kLocal;
    const off_t next = folder.hasOffsets ? kLitterOffset + static_cast<off_t>(index) + 1 : 0;
    const bool isPlus = (flags & FUSE_READDIR_PLUS) != 0;
    if (filling.fill(filling.buffer, name.c_str(), &attributes, next,
                     isPlus ? FUSE_FILL_DIR_PLUS : fuse_fill_dir_flags{}) != 0) {
      return;
    }
  }
}

int RedirectFileSystem::readFolder(const char* givenPath, void* buffer, fuse_fill_dir_t fill, off_t offset,
                                   fuse_file_info* file, fuse_readdir_flags flags) {
  OpenFolder& folder = *reinterpret_cast<OpenFolder*>(file->fh);
  std::optional<std::string> path;
  {
    const MutexLock lock(iLock);
    path = folder.path;
  }
  if (offset == 0) {
    folder.litter.clear();
    if (path) {
      const auto local = kept(path->c_str());
      folder.litter = local ? namesInLocalFolder(*local) : iStore->namesInFolder(*path);
    }
  }
  Filling filling{buffer, fill, &folder};
  if (offset < kLitterOffset) {
    if (const int result = readBelow(givenPath, filling, offset, flags); result != 0 || filling.isFull)
      return result;
  }
  if (path) fillLitter(folder, *path, filling, offset, flags);
  return 0;
}

int RedirectFileSystem::readBelow(const char* path, Filling& filling, off_t offset,
                                  fuse_readdir_flags flags) {
  OpenFolder& folder = *filling.folder;
  if (folder.isBelow) {
    return fuse_fs_readdir(iLower, path, &filling, &RedirectFileSystem::passEntry, offset, &folder.lower,
                           flags);
  }
  for (off_t next = offset + 1; next <= 2; ++next) {
    if (passEntry(&filling, next == 1 ? "." : "..", nullptr, next, fuse_fill_dir_flags{}) != 0) break;
  }
  return 0;
}

}  // namespace ombra
