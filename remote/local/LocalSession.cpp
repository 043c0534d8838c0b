#include "remote/local/LocalSession.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "platform/foundation/DirectoryStream.h"
#include "remote/FilePermissions.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/TemporaryNames.h"
#include "remote/local/LocalErrors.h"

namespace ombra {
namespace {

std::optional<std::string> homeFolder(const std::string& user) {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> buffer(16384);
  const int result = user.empty() ? getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found)
                                  : getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  if (result != 0 || found == nullptr || found->pw_dir == nullptr) return std::nullopt;
  return std::string(found->pw_dir);
}

// "~" and "~user" at the beginning; absent for a user whom nobody knows.
std::optional<std::string> expandHome(std::string_view path) {
  if (!path.starts_with('~')) return std::string(path);
  const size_t end = std::min(path.find('/'), path.size());
  const std::optional<std::string> home = homeFolder(std::string(path.substr(1, end - 1)));
  if (!home) return std::nullopt;
  return *home + std::string(path.substr(end));
}

std::optional<std::string> realPathOf(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) == nullptr) return std::nullopt;
  return std::string(resolved);
}

uint32_t nodeType(mode_t mode) {
  if (S_ISDIR(mode)) return kNodeTypeFolder;
  return S_ISLNK(mode) ? kNodeTypeAlias : kNodeTypeFile;
}

std::optional<std::string> readLinkAt(int folder, const char* name) {
  char target[PATH_MAX];
  const ssize_t length = readlinkat(folder, name, target, sizeof target);
  if (length < 0) return std::nullopt;
  return std::string(target, static_cast<size_t>(length));
}

}  // namespace

NSFileAttributes LocalSession::attributesFromStat(const struct stat& status) {
  NSFileAttributes attributes;
  attributes.fileType = S_ISDIR(status.st_mode)   ? NSFileTypeValue::NSFileTypeDirectory
                        : S_ISLNK(status.st_mode) ? NSFileTypeValue::NSFileTypeSymbolicLink
                                                  : NSFileTypeValue::NSFileTypeRegular;
  attributes.fileSize = static_cast<uint64_t>(status.st_size);
  attributes.modificationDate = kc_dateWithTimespec(status.st_mtim);
  attributes.posixPermissions = static_cast<uint16_t>(status.st_mode & kPermissionBits);
  attributes.ownerAccountID = status.st_uid;
  attributes.groupOwnerAccountID = status.st_gid;
  return attributes;
}

bool LocalSession::mayGoOn(NSErrorRef* error) const {
  if (!iInterrupted.load()) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "this session was interrupted"));
  return false;
}

bool LocalSession::logIn(NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  if (const std::optional<std::string> home = homeFolder({})) iLoginPath = realPathOf(*home).value_or("/");
  if (iEnvironment.transcript->isEnabled())
    iEnvironment.transcript->append("local folder: logged in\n", false);
  return true;
}

std::optional<std::string> LocalSession::realPath(std::string_view path, std::string_view base,
                                                  bool* isDirectory, NSErrorRef* error) {
  if (!mayGoOn(error)) return std::nullopt;
  const std::optional<std::string> expanded = expandHome(path);
  if (!expanded) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, path));
    return std::nullopt;
  }
  const std::optional<std::string> resolved = realPathOf(absoluteRemotePath(*expanded, base));
  struct stat status {};
  if (!resolved || stat(resolved->c_str(), &status) != 0) {
    storeError(error, localServerError(errno == ENOTDIR ? ENOENT : errno, path));
    return std::nullopt;
  }
  if (isDirectory != nullptr) *isDirectory = S_ISDIR(status.st_mode);
  return resolved;
}

std::optional<LinkResolution> LocalSession::resolveLink(std::string_view path, NSErrorRef* error) {
  if (!mayGoOn(error)) return std::nullopt;
  const std::string whole(path);
  LinkResolution resolution;
  resolution.resolvedPath = whole;
  resolution.resolved = true;
  struct stat status {};
  if (lstat(whole.c_str(), &status) != 0) return resolution;
  if (!S_ISLNK(status.st_mode)) {
    // The item itself, with its path as it is: links above it are not this question's business.
    resolution.exists = true;
    resolution.isDirectory = S_ISDIR(status.st_mode);
    resolution.attributes = attributesFromStat(status);
    return resolution;
  }
  if (const std::optional<std::string> resolved = realPathOf(whole)) {
    if (stat(resolved->c_str(), &status) != 0) return resolution;
    resolution.resolvedPath = *resolved;
    resolution.exists = true;
    resolution.isDirectory = S_ISDIR(status.st_mode);
    resolution.attributes = attributesFromStat(status);
    return resolution;
  }
  resolution.resolved = errno != ELOOP;
  // A dangling link leads to where its target would be.
  const std::optional<std::string> target = readLinkAt(AT_FDCWD, whole.c_str());
  if (target) resolution.resolvedPath = absoluteRemotePath(*target, whole.substr(0, whole.rfind('/')));
  return resolution;
}

std::optional<NSFileAttributes> LocalSession::attributes(std::string_view path, bool* isDirectory,
                                                         NSErrorRef* error) {
  if (!mayGoOn(error)) return std::nullopt;
  struct stat status {};
  if (stat(std::string(path).c_str(), &status) != 0) {
    storeError(error, localServerError(errno == ENOTDIR ? ENOENT : errno, path));
    return std::nullopt;
  }
  if (isDirectory != nullptr) *isDirectory = S_ISDIR(status.st_mode);
  return attributesFromStat(status);
}

std::optional<NSFileAttributes> LocalSession::fileSystemAttributes(std::string_view path, NSErrorRef* error) {
  if (!mayGoOn(error)) return std::nullopt;
  struct statvfs status {};
  if (statvfs(std::string(path).c_str(), &status) != 0) {
    storeError(error, localServerError(errno, path));
    return std::nullopt;
  }
  NSFileAttributes attributes;
  attributes.systemSize = static_cast<uint64_t>(status.f_blocks) * status.f_frsize;
  attributes.systemFreeSize = static_cast<uint64_t>(status.f_bavail) * status.f_frsize;
  return attributes;
}

bool LocalSession::list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  const std::string whole(path);
  const DirectoryStream folder(opendir(whole.c_str()));
  if (folder == nullptr) {
    const int number = errno;
    storeError(error, number == EACCES || number == EPERM
                          ? QuarnKitError::errorWithCode(kQuarnKitListingNotPermitted, path,
                                                         NSError::errorWithDomain(NSPOSIXErrorDomain, number))
                          : localServerError(number, path));
    return false;
  }
  const int descriptor = dirfd(folder.get());
  errno = 0;
  while (const dirent* item = readdir(folder.get())) {
    if (!mayGoOn(error)) return false;
    struct stat status {};
    // An item that vanished meanwhile is not listed.
    if (!isShownName(item->d_name) || isTemporaryName(item->d_name) ||
        fstatat(descriptor, item->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
      errno = 0;
      continue;
    }
    RemoteEntry entry;
    entry.name = item->d_name;
    entry.type = nodeType(status.st_mode);
    entry.attributes = attributesFromStat(status);
    if (entry.type == kNodeTypeAlias) {
      entry.targetPath = readLinkAt(descriptor, item->d_name);
      entry.resolution = resolveLink(remotePathInFolder(path, item->d_name), nullptr);
    }
    entries->push_back(std::move(entry));
    errno = 0;
  }
  if (errno == 0) return true;
  storeError(error, localServerError(errno, path));
  return false;
}

}  // namespace ombra
