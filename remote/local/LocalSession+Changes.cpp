// Changes of names and attributes.
#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "remote/FilePermissions.h"
#include "remote/QuarnKitError.h"
#include "remote/local/LocalErrors.h"
#include "remote/local/LocalSession.h"

namespace ombra {
namespace {

bool answer(int result, std::string_view path, NSErrorRef* error) {
  if (result == 0) return true;
  storeError(error, localServerError(errno, path));
  return false;
}

bool answerChange(int result, std::string_view path, NSErrorRef* error) {
  if (result == 0) return true;
  storeError(error, localAttributeError(errno, path));
  return false;
}

bool leadsNowhere(const char* path) {
  struct stat status {};
  return stat(path, &status) != 0 && errno == ENOENT && lstat(path, &status) == 0;
}

int renameWithoutReplacing(const char* from, const char* to) {
  if (renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return -1;
  // A file system without that promise: look first.
  struct stat status {};
  if (lstat(to, &status) == 0) {
    errno = EEXIST;
    return -1;
  }
  return rename(from, to);
}

}  // namespace

bool LocalSession::createFolder(std::string_view path, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  return answer(mkdir(std::string(path).c_str(), 0777), path, error);
}

bool LocalSession::createSymbolicLink(std::string_view path, std::string_view target, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  return answer(symlink(std::string(target).c_str(), std::string(path).c_str()), path, error);
}

bool LocalSession::move(std::string_view from, bool /*isDirectory*/, std::string_view to, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  // What is in the way was removed before if it was known; what appeared since then is somebody's.
  return answer(renameWithoutReplacing(std::string(from).c_str(), std::string(to).c_str()), from, error);
}

bool LocalSession::remove(std::string_view path, bool isDirectory, NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  const std::string whole(path);
  return answer(isDirectory ? rmdir(whole.c_str()) : unlink(whole.c_str()), path, error);
}

bool LocalSession::changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                                    NSErrorRef* error) {
  if (!mayGoOn(error)) return false;
  const bool hasOwner = attributes.ownerAccountID || attributes.groupOwnerAccountID;
  if (attributes.creationDate && !hasOwner && !attributes.posixPermissions && !attributes.modificationDate) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported,
                                                   "the system has no creation dates to be set"));
    return false;
  }
  const std::string whole(path);
  // Of a link that leads nowhere the link itself is meant; it has owner and dates, but no mode of its own.
  const int flags = !attributes.posixPermissions && leadsNowhere(whole.c_str()) ? AT_SYMLINK_NOFOLLOW : 0;
  // Before the mode: a change of owner takes the set-ID bits away.
  const uid_t owner = attributes.ownerAccountID.value_or(static_cast<uid_t>(-1));
  const gid_t group = attributes.groupOwnerAccountID.value_or(static_cast<gid_t>(-1));
  if (hasOwner && !answerChange(fchownat(AT_FDCWD, whole.c_str(), owner, group, flags), path, error)) {
    return false;
  }
  if (attributes.posixPermissions &&
      !answerChange(chmod(whole.c_str(), *attributes.posixPermissions & kPermissionBits), path, error)) {
    return false;
  }
  if (!attributes.modificationDate) return true;
  const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, kc_timespec(*attributes.modificationDate)};
  return answerChange(utimensat(AT_FDCWD, whole.c_str(), times.data(), flags), path, error);
}

}  // namespace ombra
