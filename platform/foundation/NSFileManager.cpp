#include "platform/foundation/NSFileManager.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/foundation/DirectoryStream.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {

constexpr size_t kAccountBufferSize = 16384;

void storeErrno(NSErrorRef* slot, int errorNumber, std::string_view path) {
  storeError(slot, NSError::errorWithDomain(NSPOSIXErrorDomain, errorNumber, {{"NSFilePath", path}}));
}

bool isDotOrDotDot(std::string_view name) { return name == "." || name == ".."; }

// The numbers stand in for accounts without a name.
std::string ownerName(uid_t user) {
  std::vector<char> buffer(kAccountBufferSize);
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? std::string(found->pw_name) : fmt::format("{}", user);
}

std::string groupName(gid_t number) {
  if (number == 0) return "wheel";
  std::vector<char> buffer(kAccountBufferSize);
  struct group entry {};
  struct group* found = nullptr;
  getgrgid_r(number, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? std::string(found->gr_name) : fmt::format("{}", number);
}

bool isFolder(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Makes one folder; one that is there already will do.
bool makeFolder(const std::string& path, unsigned mode, NSErrorRef* error) {
  if (::mkdir(path.c_str(), mode) == 0) return true;
  const int reason = errno;
  if (reason == EEXIST && isFolder(path)) return true;
  storeErrno(error, reason, path);
  return false;
}

}  // namespace

bool NSFileManager::fileExistsAtPath(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

std::optional<std::vector<std::string>> NSFileManager::contentsOfDirectoryAtPath(const std::string& path,
                                                                                 NSErrorRef* error) {
  const DirectoryStream folder(::opendir(path.c_str()));
  if (folder == nullptr) {
    storeErrno(error, errno, path);
    return std::nullopt;
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* entry = ::readdir(folder.get())) {
    if (!isDotOrDotDot(entry->d_name)) names.emplace_back(entry->d_name);
    errno = 0;
  }
  if (errno == 0) return names;
  storeErrno(error, errno, path);
  return std::nullopt;
}

bool NSFileManager::createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories,
                                          unsigned mode, NSErrorRef* error) {
  if (!withIntermediateDirectories) return makeFolder(path, mode, error);
  if (isFolder(path)) return true;
  std::string made;
  for (const std::string& component : pathComponents(path)) {
    made = stringByAppendingPathComponent(made, component);
    if (!makeFolder(made, mode, error)) return false;
  }
  if (!made.empty()) return true;
  storeErrno(error, ENOENT, path);
  return false;
}

std::optional<LocalItemAttributes> NSFileManager::attributesOfItemAtPath(const std::string& path,
                                                                         NSErrorRef* error) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    storeErrno(error, errno, path);
    return std::nullopt;
  }
  return LocalItemAttributes{ownerName(status.st_uid), groupName(status.st_gid), status.st_mode & 07777U};
}

}  // namespace ombra
