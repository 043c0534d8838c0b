// Attributes of litter; everything else goes to the file system below.
#include "platform/userfs/redirect/RedirectFileSystem.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "platform/userfs/redirect/LocalHandle.h"
#include "platform/userfs/redirect/RedirectRules.h"

namespace ombra {

namespace {

// What a user may attach to a file. The rest would need rights here, or mean something else.
bool isUsersAttribute(std::string_view name) { return name.starts_with("user."); }

}  // namespace

RedirectFileSystem::RedirectFileSystem(fuse_fs* lower, std::unique_ptr<LitterStore> store)
    : iLower(lower), iStore(std::move(store)) {}

std::optional<std::string> RedirectFileSystem::kept(const char* path) const {
  // A file that has been removed while it was open has no path; it has a handle.
  return path == nullptr || !RedirectRules::isLitter(path) ? std::nullopt : iStore->find(path);
}

std::optional<struct stat> RedirectFileSystem::below(const std::string& path) const {
  struct stat found {};
  if (fuse_fs_getattr(iLower, path.c_str(), &found, nullptr) != 0) return std::nullopt;
  return found;
}

int RedirectFileSystem::attributes(const char* path, struct stat* attributes, fuse_file_info* file) {
  int result = 0;
  if (isLocal(file)) {
    result = systemResult(fstat(descriptorOf(file), attributes));
  } else if (const auto local = kept(path)) {
    result = systemResult(lstat(local->c_str(), attributes));
  } else {
    return fuse_fs_getattr(iLower, path, attributes, file);
  }
  // Not a number that the server may have given to another file.
  attributes->st_ino |= kLocal;
  return result;
}

int RedirectFileSystem::changeMode(const char* path, mode_t mode, fuse_file_info* file) {
  // Nothing that lies here runs with somebody else's rights.
  const mode_t bits = mode & 0777;
  if (isLocal(file)) return systemResult(fchmod(descriptorOf(file), bits));
  if (const auto local = kept(path)) return systemResult(chmod(local->c_str(), bits));
  return fuse_fs_chmod(iLower, path, mode, file);
}

// As on the server: what a file belongs to anyway is granted.
int RedirectFileSystem::changeOwner(const char* path, uid_t user, gid_t group, fuse_file_info* file) {
  if (!isLocal(file) && !kept(path)) return fuse_fs_chown(iLower, path, user, group, file);
  struct stat present {};
  if (const int result = attributes(path, &present, file); result != 0) return result;
  const bool keepsUser = user == static_cast<uid_t>(-1) || user == present.st_uid;
  const bool keepsGroup = group == static_cast<gid_t>(-1) || group == present.st_gid;
  return keepsUser && keepsGroup ? 0 : -EPERM;
}

int RedirectFileSystem::changeTimes(const char* path, const timespec times[2], fuse_file_info* file) {
  if (isLocal(file)) return systemResult(futimens(descriptorOf(file), times));
  if (const auto local = kept(path)) {
    return systemResult(utimensat(AT_FDCWD, local->c_str(), times, AT_SYMLINK_NOFOLLOW));
  }
  return fuse_fs_utimens(iLower, path, times, file);
}

int RedirectFileSystem::volumeAttributes(const char* path, struct statvfs* attributes) {
  return fuse_fs_statfs(iLower, kept(path) ? "/" : path, attributes);
}

int RedirectFileSystem::mayAccess(const char* path, int mask) {
  const auto local = kept(path);
  return local ? systemResult(access(local->c_str(), mask)) : fuse_fs_access(iLower, path, mask);
}

int RedirectFileSystem::readLink(const char* path, char* buffer, size_t size) {
  const auto local = kept(path);
  if (!local) return fuse_fs_readlink(iLower, path, buffer, size);
  if (size == 0) return -EINVAL;
  const ssize_t length = readlink(local->c_str(), buffer, size - 1);
  if (length < 0) return -errno;
  buffer[length] = '\0';
  return 0;
}

int RedirectFileSystem::setExtendedAttribute(const char* path, const char* name, const char* value,
                                             size_t size, int flags) {
  const auto local = kept(path);
  if (!local) return fuse_fs_setxattr(iLower, path, name, value, size, flags);
  if (!isUsersAttribute(name)) return -EOPNOTSUPP;
  return systemResult(lsetxattr(local->c_str(), name, value, size, flags));
}

int RedirectFileSystem::extendedAttribute(const char* path, const char* name, char* buffer, size_t size) {
  const auto local = kept(path);
  if (!local) return fuse_fs_getxattr(iLower, path, name, buffer, size);
  if (!isUsersAttribute(name)) return -EOPNOTSUPP;
  return systemResult(lgetxattr(local->c_str(), name, buffer, size));
}

int RedirectFileSystem::extendedAttributes(const char* path, char* buffer, size_t size) {
  const auto local = kept(path);
  if (!local) return fuse_fs_listxattr(iLower, path, buffer, size);
  return systemResult(llistxattr(local->c_str(), buffer, size));
}

int RedirectFileSystem::removeExtendedAttribute(const char* path, const char* name) {
  const auto local = kept(path);
  if (!local) return fuse_fs_removexattr(iLower, path, name);
  if (!isUsersAttribute(name)) return -EOPNOTSUPP;
  return systemResult(lremovexattr(local->c_str(), name));
}

}  // namespace ombra
