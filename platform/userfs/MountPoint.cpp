#include "platform/userfs/MountPoint.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "platform/foundation/DirectoryStream.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSLog.h"
#include "platform/userfs/DetachedThread.h"
#include "platform/userfs/KernelMount.h"

namespace ombra {

namespace {

constexpr double kProbeSeconds = 2;

// mountinfo writes blank, tab, newline and backslash as three octal digits.
std::string unescaped(std::string_view text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto digit = [&](size_t at) { return at < text.size() && text[at] >= '0' && text[at] <= '7'; };
    if (text[i] == '\\' && digit(i + 1) && digit(i + 2) && digit(i + 3)) {
      result += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      result += text[i];
    }
  }
  return result;
}

// The system lists mounts by their real paths, and the volumes folder may be a link.
std::string resolvedFolder(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
  return resolved != nullptr ? std::string(resolved.get()) : path;
}

bool isEmptyFolder(const std::string& path) {
  const DirectoryStream folder(opendir(path.c_str()));
  if (folder == nullptr) return false;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") return false;
  }
  return true;
}

NSErrorRef folderError(const std::string& path, const std::string& volumesFolder, int number) {
  const bool isMissing = number == ENOENT || number == ENOTDIR;
  return mountError(
      kGMMountPointMissing, fmt::format("The folder for the volume could not be made at \"{}\".", path),
      isMissing ? fmt::format("\"{}\" does not exist.", volumesFolder) : kc_strerror(number),
      fmt::format("Make the folder that holds all volumes: sudo mkdir -m 1777 \"{}\"", volumesFolder));
}

NSErrorRef inUseError(const std::string& path, std::string_view reason) {
  return mountError(kGMMountPointInUse, fmt::format("\"{}\" is in use.", path), reason,
                    "Unmount or remove what is there, or choose another name for the volume.");
}

// What stands at the path is not a folder that may be mounted on.
NSErrorRef objectionToExisting(const std::string& path, const struct stat& item, const struct stat& parent) {
  if (!S_ISDIR(item.st_mode)) {
    return mountError(kGMMountPointInvalid, fmt::format("\"{}\" is not a folder.", path),
                      "A volume can only appear in a folder.",
                      "Remove it, or choose another name for the volume.");
  }
  if (item.st_dev != parent.st_dev || mountedVolumeAtPath(path)) {
    return inUseError(path, "Something is mounted there already.");
  }
  if (!isEmptyFolder(path)) return inUseError(path, "The folder has contents, which the volume would hide.");
  return nullptr;
}

}  // namespace

NSErrorRef mountError(GMUserFileSystemErrorCode code, std::string_view description, std::string_view reason,
                      std::string_view suggestion) {
  return NSError::errorWithDomain(
      kGMUserFileSystemErrorDomain, code,
      {{std::string(NSLocalizedDescriptionKey), fmt::format("{} {} {}", description, reason, suggestion)},
       {std::string(NSLocalizedFailureReasonErrorKey), reason},
       {std::string(NSLocalizedRecoverySuggestionErrorKey), suggestion}});
}

std::vector<MountedVolume> parseMountInfo(std::string_view text) {
  // "36 35 98:0 /root /mount/point options [optional fields] - type source super-options"
  std::vector<MountedVolume> volumes;
  std::istringstream lines{std::string(text)};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string identifier;
    std::string parent;
    std::string root;
    std::string word;
    MountedVolume volume;
    if (!(words >> identifier >> parent >> volume.device >> root >> volume.path)) continue;
    while (words >> word && word != "-") {
    }
    if (!(words >> volume.type >> volume.source)) continue;
    volume.path = unescaped(volume.path);
    volume.source = unescaped(volume.source);
    volumes.push_back(std::move(volume));
  }
  return volumes;
}

std::vector<MountedVolume> mountedVolumes() {
  std::ifstream file("/proc/self/mountinfo");
  return parseMountInfo(std::string(std::istreambuf_iterator<char>(file), {}));
}

std::optional<MountedVolume> mountedVolumeAtPath(std::string_view path) {
  // The last component is not resolved: that would ask the file system which is mounted there.
  const std::string place =
      path == "/" ? "/"
                  : stringByAppendingPathComponent(resolvedFolder(stringByDeletingLastPathComponent(path)),
                                                   lastPathComponent(path));
  std::optional<MountedVolume> topmost;
  for (MountedVolume& volume : mountedVolumes()) {
    if (volume.path == place) topmost = std::move(volume);
  }
  return topmost;
}

bool isDisconnected(const std::string& path) {
  struct Probe {
    NSCondition condition;
    std::optional<bool> disconnected GUARDED_BY(condition);
  };
  const auto probe = std::make_shared<Probe>();
  // On a thread that can be left behind: a file system that does not answer would hold this one for as long.
  const bool started = startDetachedThread("mount probe", [probe, path] {
    struct stat item {};
    const bool gone = lstat(path.c_str(), &item) != 0 && errno == ENOTCONN;
    ConditionLock lock(probe->condition);
    probe->disconnected = gone;
    probe->condition.broadcast();
  });
  if (!started) return false;
  const NSDate limit = NSDate::dateWithTimeIntervalSinceNow(kProbeSeconds);
  ConditionLock lock(probe->condition);
  while (!probe->disconnected) {
    if (!probe->condition.waitUntilDate(limit)) break;
  }
  return probe->disconnected.value_or(false);
}

std::optional<std::string> MountPoint::nameOfPath(std::string_view path, std::string_view volumesFolder) {
  if (volumesFolder.empty() || path.size() <= volumesFolder.size() + 1) return std::nullopt;
  if (path.substr(0, volumesFolder.size()) != volumesFolder || path[volumesFolder.size()] != '/')
    return std::nullopt;
  const std::string_view name = path.substr(volumesFolder.size() + 1);
  if (name.empty() || name == "." || name == "..") return std::nullopt;
  if (name.find('/') != std::string_view::npos || name.find('\0') != std::string_view::npos)
    return std::nullopt;
  return std::string(name);
}

std::unique_ptr<MountPoint> MountPoint::prepare(const std::string& path, const std::string& volumesFolder,
                                                NSErrorRef* error) {
  if (!nameOfPath(path, volumesFolder)) {
    storeError(error,
               mountError(kGMMountPointInvalid, fmt::format("\"{}\" cannot be a volume.", path),
                          fmt::format("A volume is a plain folder directly below \"{}\".", volumesFolder),
                          "Choose another name for the volume."));
    return nullptr;
  }
  if (const auto mounted = mountedVolumeAtPath(path); mounted && isDisconnected(path)) {
    NSLog("\"{}\" was left behind by a process that is gone; it is cleared.", path);
    KernelMount::detach(*mounted);
    rmdir(path.c_str());
  }
  const bool made = mkdir(path.c_str(), 0700) == 0;
  if (!made && errno != EEXIST) {
    storeError(error, folderError(path, volumesFolder, errno));
    return nullptr;
  }
  struct stat item {};
  struct stat parent {};
  if (lstat(path.c_str(), &item) != 0 || stat(volumesFolder.c_str(), &parent) != 0) {
    storeError(error, inUseError(path, kc_strerror(errno)));
    return nullptr;
  }
  if (NSErrorRef objection = made ? nullptr : objectionToExisting(path, item, parent)) {
    storeError(error, objection);
    return nullptr;
  }
  return std::unique_ptr<MountPoint>(new MountPoint(path, made, item.st_dev, item.st_ino));
}

MountPoint::MountPoint(std::string path, bool made, dev_t device, ino_t inode)
    : iPath(std::move(path)), iMade(made), iDevice(device), iInode(inode) {}

MountPoint::~MountPoint() {
  if (!iMade || mountedVolumeAtPath(iPath)) return;
  struct stat item {};
  if (lstat(iPath.c_str(), &item) != 0 || item.st_dev != iDevice || item.st_ino != iInode) return;
  if (rmdir(iPath.c_str()) != 0)
    NSLog("The folder \"{}\" could not be removed: {}", iPath, kc_strerror(errno));
}

void MountPoint::clearStale(const std::string& volumesFolder) {
  const std::string folder = resolvedFolder(volumesFolder);
  for (const MountedVolume& volume : mountedVolumes()) {
    if (volume.type.substr(0, 4) != "fuse" || !nameOfPath(volume.path, folder)) continue;
    if (!isDisconnected(volume.path)) continue;
    NSLog("\"{}\" was left behind by a process that is gone; it is cleared.", volume.path);
    KernelMount::detach(volume);
    if (rmdir(volume.path.c_str()) != 0) {
      NSLog("The folder \"{}\" could not be removed: {}", volume.path, kc_strerror(errno));
    }
  }
}

}  // namespace ombra
