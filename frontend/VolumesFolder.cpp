#include "frontend/VolumesFolder.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ombra {

namespace {

constexpr mode_t kMode = 01777;  // anybody may mount; nobody removes another's mount point

bool refuse(const std::string& folder, std::string_view state, std::string why, Failure* failure) {
  *failure = {kExitCannotMount,
              fmt::format("The folder {} {}, so nothing can be mounted.", inQuotes(folder), state),
              std::move(why), fmt::format("Run: sudo install -d -m 1777 {}", shellQuoted(folder))};
  return false;
}

}  // namespace

bool ensureVolumesFolder(const std::string& folder, Failure* failure) {
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    // chmod, since mkdir's mode goes through the umask.
    if (mkdir(folder.c_str(), 0755) != 0 || chmod(folder.c_str(), kMode) != 0) {
      return refuse(folder, "is missing", std::strerror(errno), failure);
    }
    return true;
  }
  if (!S_ISDIR(status.st_mode)) return refuse(folder, "is not a folder", "", failure);
  if (access(folder.c_str(), W_OK | X_OK) != 0) return refuse(folder, "may not be written", "", failure);
  return true;
}

}  // namespace ombra
