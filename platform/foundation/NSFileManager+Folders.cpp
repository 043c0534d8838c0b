// The folders that the system gives each user.
#include <fcntl.h>
#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"

namespace ombra {
namespace {

constexpr std::string_view kProgramFolder = "ombrafs";
constexpr unsigned kPrivateMode = 0700;

// The variable's value when it is an absolute path; relative ones are invalid by the XDG base-directory
// rules.
std::optional<std::string> absoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || !kc_hasCompletePathPrefix(value)) return std::nullopt;
  return value;
}

std::string homeFolder() {
  if (std::optional<std::string> home = absoluteVariable("HOME")) return *home;
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? found->pw_dir : "/";
}

// The program's folder below the one that `variable` names, or below `byDefault` in the home folder.
std::string programFolder(const char* variable, std::string_view byDefault) {
  const std::optional<std::string> base = absoluteVariable(variable);
  return stringByAppendingPathComponent(
      base ? *base : stringByAppendingPathComponent(homeFolder(), byDefault), kProgramFolder);
}

// Makes `path` with the folders above it; logs why it cannot.
bool makePrivateFolder(const std::string& path) {
  NSErrorRef error;
  if (NSFileManager::createDirectoryAtPath(path, true, kPrivateMode, &error)) return true;
  NSLog("cannot make the folder {}: {}", path, error->localizedDescription());
  return false;
}

// True when `path` is a folder of this user, not a link to one, that nobody else can look into afterwards.
// Takes no descriptor as long as all is well: it is asked for each file, also when there are none left.
bool ensureOwnPrivateFolder(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != geteuid())
    return false;
  if ((status.st_mode & 07777U) == kPrivateMode) return true;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) return false;
  const bool isClosed = ::fstat(descriptor, &status) == 0 && status.st_uid == geteuid() &&
                        ::fchmod(descriptor, kPrivateMode) == 0;
  ::close(descriptor);
  return isClosed;
}

std::string userTemporaryFolder() {
  const std::optional<std::string> set = absoluteVariable("OMBRAFS_TMPDIR");
  const std::string path = set ? *set : fmt::format("/var/tmp/{}-{}", kProgramFolder, geteuid());
  // Asked for with each file that is opened: mostly it is there.
  if (ensureOwnPrivateFolder(path)) return path;
  if (::mkdir(path.c_str(), kPrivateMode) != 0 && errno != EEXIST) {
    NSLog("cannot make the temporary folder {}: {}", path, kc_strerror(errno));
    return {};
  }
  if (ensureOwnPrivateFolder(path)) return path;
  // Whoever made it first could read and swap the cache files.
  NSLog("the temporary folder {} is not a folder of this user's own; remove it and try again", path);
  return {};
}

}  // namespace

std::optional<std::string> NSFileManager::kc_applicationSupportSubFolder(std::string_view name) {
  const std::string path =
      stringByAppendingPathComponent(programFolder("XDG_DATA_HOME", ".local/share"), name);
  if (!makePrivateFolder(path)) return std::nullopt;
  return path;
}

std::string NSFileManager::kc_chewableItemsFolderCreate(bool create) {
  const std::string path = programFolder("XDG_STATE_HOME", ".local/state");
  if (create && makePrivateFolder(path)) ensureOwnPrivateFolder(path);
  return path;
}

std::string NSFileManager::kc_confstr(int name) {
  return name == kDarwinUserTempDir ? userTemporaryFolder() : std::string();
}

std::string NSFileManager::configurationFolder() { return programFolder("XDG_CONFIG_HOME", ".config"); }

}  // namespace ombra
