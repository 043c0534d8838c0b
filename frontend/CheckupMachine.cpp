// What mounting needs.
#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "frontend/Checkup.h"
#include "frontend/Failure.h"
#include "frontend/HelperProcess.h"
#include "frontend/LoginSecrets.h"
#include "frontend/MountTable.h"
#include "frontend/SavedSecrets.h"
#include "frontend/StatusText.h"
#include "frontend/UniqueFd.h"
#include "frontend/Volumes.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSProcessInfo.h"

namespace ombra {

namespace {

using State = Finding::State;

constexpr uint64_t kMegabyte = 1'000'000;
// Below the first little works, below the second large files do not.
constexpr uint64_t kTooLittleSpace = 100 * kMegabyte;
constexpr uint64_t kLittleSpace = 2000 * kMegabyte;

std::string environmentOr(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value == nullptr || *value == '\0' ? otherwise : value;
}

// Folders that mount points were, empty and of this user.
std::vector<std::string> emptyFoldersOfUser(const std::string& folder) {
  std::vector<std::string> found;
  const std::vector<MountedVolume> mounts = mountedVolumes(folder);
  for (const std::string& name :
       NSFileManager::contentsOfDirectoryAtPath(folder, nullptr).value_or(std::vector<std::string>())) {
    std::string path = stringByAppendingPathComponent(folder, name);
    // A mounted one is not touched: its helper might not answer.
    if (std::any_of(mounts.begin(), mounts.end(),
                    [&path](const MountedVolume& mount) { return mount.mountPath == path; }))
      continue;
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != geteuid()) continue;
    const auto content = NSFileManager::contentsOfDirectoryAtPath(path, nullptr);
    if (content && content->empty()) found.push_back(std::move(path));
  }
  return found;
}

std::string wordList(const std::vector<std::string>& words) {
  std::string result;
  for (const std::string& word : words) result += " " + shellQuoted(word);
  return result;
}

}  // namespace

CheckupPlaces CheckupPlaces::ofThisMachine() {
  const LoginSurroundings login = LoginSurroundings::ofThisProcess();
  CheckupPlaces places;
  places.searchPath = environmentOr("PATH", "/usr/local/bin:/usr/bin:/bin");
  places.volumes = volumesFolder();
  places.helper = helperPathForCommand(NSProcessInfo::executablePath());
  places.keyring = keyringProgram();
  places.homeFolder = login.homeFolder;
  places.agentSocket = login.agentSocket;
  places.cacheFolder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  places.authorityFile = environmentOr("SSL_CERT_FILE", X509_get_default_cert_file());
  places.authorityFolder = environmentOr("SSL_CERT_DIR", X509_get_default_cert_dir());
  places.isRoot = geteuid() == 0;
  return places;
}

std::string programInPath(const std::string& name, std::string_view searchPath) {
  while (!searchPath.empty()) {
    const size_t end = std::min(searchPath.find(':'), searchPath.size());
    std::string path = std::string(searchPath.substr(0, end)) + "/" + name;
    searchPath.remove_prefix(std::min(end + 1, searchPath.size()));
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

Finding checkFuseDevice(const CheckupPlaces& places) {
  constexpr const char* kSubject = "fuse device";
  const std::string name = inQuotes(places.fuseDevice);
  const UniqueFd device(open(places.fuseDevice.c_str(), O_RDWR | O_CLOEXEC));
  if (device) return {kSubject, State::kGood, fmt::format("{} can be opened.", name), ""};
  if (errno == EACCES) {
    return {kSubject, State::kWrong, fmt::format("{} may not be opened by this user.", name),
            "Run: sudo chmod 666 " + shellQuoted(places.fuseDevice)};
  }
  return {kSubject, State::kWrong, fmt::format("{} cannot be opened. {}", name, sentence(strerror(errno))),
          "Run: sudo modprobe fuse   (in a container, start it with --device /dev/fuse --cap-add SYS_ADMIN)"};
}

Finding checkUnmounter(const CheckupPlaces& places) {
  constexpr const char* kSubject = "fusermount3";
  const std::string path = programInPath("fusermount3", places.searchPath);
  if (path.empty()) {
    return {kSubject, State::kWrong, "The program fusermount3, which mounts for users, is missing.",
            "Run: sudo apt install fuse3"};
  }
  struct stat status {};
  const bool mayMount =
      stat(path.c_str(), &status) == 0 && status.st_uid == 0 && (status.st_mode & S_ISUID) != 0;
  if (mayMount || places.isRoot) return {kSubject, State::kGood, path + " is there.", ""};
  return {kSubject, State::kWrong, path + " lacks the right to mount.",
          "Run: sudo chown root " + shellQuoted(path) + " && sudo chmod u+s " + shellQuoted(path)};
}

Finding checkVolumesFolder(const CheckupPlaces& places) {
  constexpr const char* kSubject = "mount points";
  const std::string name = inQuotes(places.volumes);
  const std::string todo = "Run: sudo install -d -m 1777 " + shellQuoted(places.volumes);
  struct stat status {};
  if (stat(places.volumes.c_str(), &status) != 0) {
    if (places.isRoot)
      return {kSubject, State::kNote, fmt::format("{} is made by the first mount.", name), ""};
    return {kSubject, State::kWrong, fmt::format("The folder {} is missing.", name), todo};
  }
  if (!S_ISDIR(status.st_mode))
    return {kSubject, State::kWrong, fmt::format("{} is not a folder.", name), "Move it away. " + todo};
  if (access(places.volumes.c_str(), W_OK | X_OK) != 0)
    return {kSubject, State::kWrong, fmt::format("{} may not be written by this user.", name), todo};
  return {kSubject, State::kGood, fmt::format("{} can be written.", name), ""};
}

Finding checkHelper(const CheckupPlaces& places) {
  for (const std::string& program : {places.helper, places.keyring}) {
    if (access(program.c_str(), X_OK) == 0) continue;
    return {"helper", State::kWrong, fmt::format("The program {} is missing.", inQuotes(program)),
            "Install ombra again."};
  }
  return {"helper", State::kGood, "All programs are in their places.", ""};
}

// It is run where the kernel's module is not loaded yet, and can do that for others than root.
Finding checkLoader(const CheckupPlaces& places) {
  constexpr const char* kSubject = "fuse loader";
  constexpr const char* kBundle =
      "ombradiskfs.fs/Contents/Resources/org.ombrafs.filesystems.ombradiskfs.components/load_drelfs";
  const std::string loader =
      stringByAppendingPathComponent(stringByDeletingLastPathComponent(places.helper), kBundle);
  struct stat status {};
  if (stat(loader.c_str(), &status) != 0)
    return {kSubject, State::kWrong, fmt::format("The program {} is missing.", inQuotes(loader)),
            "Install ombra again."};
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return {kSubject, State::kWrong, fmt::format("Others may change the program {}.", inQuotes(loader)),
            "Run: sudo chmod go-w " + shellQuoted(loader)};
  }
  const bool mayLoad = status.st_uid == 0 && (status.st_mode & S_ISUID) != 0;
  if (mayLoad) return {kSubject, State::kGood, "It may load the kernel's module.", ""};
  // Nobody needs it where the module is there.
  const bool isNeeded = access(places.fuseDevice.c_str(), F_OK) != 0;
  return {kSubject, isNeeded ? State::kWrong : State::kNote, "It may not load the kernel's module.",
          fmt::format("Run: sudo chown root:root {0} && sudo chmod u+s {0}", shellQuoted(loader))};
}

Finding checkLeftovers(const CheckupPlaces& places) {
  constexpr const char* kSubject = "leftovers";
  std::vector<std::string> dead;
  for (const Volume& volume : currentVolumes()) {
    if (volume.own && volume.mounted && volume.state == "dead") dead.push_back(volume.mountPath);
  }
  if (!dead.empty()) {
    return {kSubject, State::kWrong, "The helper of a mounted volume is gone.",
            "Run: ombra unmount --force" + wordList(dead)};
  }
  const std::vector<std::string> empty = emptyFoldersOfUser(places.volumes);
  if (empty.empty()) return {kSubject, State::kGood, "No volume was left behind.", ""};
  return {kSubject, State::kNote,
          fmt::format("{} has mount points that nobody uses.", inQuotes(places.volumes)),
          "Run: rmdir" + wordList(empty)};
}

Finding checkCacheFolder(const CheckupPlaces& places) {
  constexpr const char* kSubject = "cache";
  struct statvfs space {};
  if (places.cacheFolder.empty() || access(places.cacheFolder.c_str(), W_OK | X_OK) != 0 ||
      statvfs(places.cacheFolder.c_str(), &space) != 0) {
    return {
        kSubject, State::kWrong, "The folder for local copies of files cannot be used.",
        fmt::format("Look at the folder /var/tmp/ombrafs-{}: it must be yours alone. Or set OMBRAFS_TMPDIR.",
                    geteuid())};
  }
  const uint64_t free = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
  const std::string text =
      fmt::format("{} has {} left for local copies.", inQuotes(places.cacheFolder), bytesText(free));
  if (free >= kLittleSpace) return {kSubject, State::kGood, text, ""};
  return {kSubject, free < kTooLittleSpace ? State::kWrong : State::kNote, text,
          "Make room on that disk, or set OMBRAFS_TMPDIR to a folder on a larger one."};
}

}  // namespace ombra
