#include "remote/local/WholeFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "remote/FilePermissions.h"
#include "remote/TemporaryNames.h"
#include "remote/local/LocalErrors.h"

namespace ombra {
namespace {

// Where the link leads, so that the link itself is not replaced. A dangling one leads to a file to be made.
std::string followLinks(const std::string& path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) != nullptr) return resolved;
  char target[PATH_MAX];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  if (length <= 0) return path;
  const std::string_view text(target, static_cast<size_t>(length));
  if (text.starts_with('/')) return std::string(text);
  return path.substr(0, path.rfind('/') + 1) + std::string(text);
}

}  // namespace

WholeFile::~WholeFile() {
  if (iDescriptor >= 0) close(iDescriptor);
  if (!iTemporaryPath.empty()) unlink(iTemporaryPath.c_str());
}

bool WholeFile::open(const std::string& path, NSErrorRef* error) {
  iPath = followLinks(path);
  struct stat status {};
  const bool exists = lstat(iPath.c_str(), &status) == 0;
  if (exists && S_ISDIR(status.st_mode)) {
    storeError(error, localServerError(EISDIR, path));
    return false;
  }
  // Renaming over it would tear the other names of a file off, or put a plain file in a device's place.
  const bool plain = !exists || (S_ISREG(status.st_mode) && status.st_nlink == 1);
  // A file that may not be written is not to be replaced either.
  const bool mayWrite = !exists || access(iPath.c_str(), W_OK) == 0;
  if (plain && mayWrite &&
      openTemporary(status.st_mode & kPermissionBits, status.st_uid, status.st_gid, exists)) {
    return true;
  }
  iDescriptor = ::open(iPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
  if (iDescriptor >= 0) return true;
  storeError(error, localServerError(errno, path));
  return false;
}

bool WholeFile::openTemporary(mode_t mode, uid_t owner, gid_t group, bool replaces) {
  const std::string path = temporaryPathBeside(iPath);
  iDescriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
  if (iDescriptor < 0) return false;
  iTemporaryPath = path;
  if (!replaces) return true;
  struct stat made {};
  const bool sameOwner = fstat(iDescriptor, &made) == 0 && ((made.st_uid == owner && made.st_gid == group) ||
                                                            fchown(iDescriptor, owner, group) == 0);
  if (sameOwner && fchmod(iDescriptor, mode) == 0) return true;
  // The replacement would belong to somebody else: write into the file that is there.
  close(iDescriptor);
  iDescriptor = -1;
  unlink(path.c_str());
  iTemporaryPath.clear();
  return false;
}

bool WholeFile::commit(NSErrorRef* error) {
  // Some file systems tell of a full disk only now.
  const int closed = close(iDescriptor);
  iDescriptor = -1;
  if (closed != 0 && errno != EINTR) {
    storeError(error, localServerError(errno, iPath));
    return false;
  }
  if (iTemporaryPath.empty()) return true;
  if (rename(iTemporaryPath.c_str(), iPath.c_str()) != 0) {
    storeError(error, localServerError(errno, iPath));
    return false;
  }
  iTemporaryPath.clear();
  return true;
}

}  // namespace ombra
