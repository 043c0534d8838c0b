#include "frontend/Volumes.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "frontend/ProcessDescriptor.h"
#include "frontend/SessionBus.h"
#include "frontend/UniqueFd.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

constexpr int kLookMilliseconds = 2000;

Volume volumeOfHelper(const HelperOnBus& helper) {
  const HelperStatus& status = helper.status;
  Volume volume;
  volume.name = status.json.empty() ? helper.traces.nameArgument : status.volumeName;
  volume.mountPath = status.mountPath;
  volume.protocol = status.protocol;
  volume.username = status.username;
  volume.address = status.address;
  volume.identifier = status.passthrough;
  volume.registeredName = status.registeredName;
  volume.state = status.state;
  volume.statusJSON = status.json;
  volume.busAddress = helper.busAddress;
  volume.busName = status.busName;
  volume.pid = status.pid;
  volume.deviceMinor = helper.traces.fuseConnection;
  return volume;
}

Volume volumeOfMount(const MountedVolume& mount) {
  Volume volume;
  volume.name = lastPathComponent(mount.mountPath);
  volume.mountPath = mount.mountPath;
  volume.protocol = mount.protocol;
  volume.username = mount.username;
  volume.address = mount.address;
  volume.identifier = mount.identifier;
  volume.own = mount.owner == geteuid();
  return volume;
}

bool isHelperOfMount(const Volume& volume, const MountedVolume& mount) {
  if (!volume.mountPath.empty()) return canonicallyEqual(volume.mountPath, mount.mountPath);
  if (!volume.statusJSON.empty()) return false;  // it answers, and has not mounted yet
  if (volume.deviceMinor != 0) return volume.deviceMinor == mount.deviceMinor;
  return !volume.name.empty() && canonicallyEqual(volume.name, lastPathComponent(mount.mountPath));
}

void addMount(const MountedVolume& mount, std::vector<Volume>* volumes) {
  auto found = std::find_if(volumes->begin(), volumes->end(),
                            [&mount](const Volume& volume) { return isHelperOfMount(volume, mount); });
  if (found == volumes->end()) found = volumes->insert(volumes->end(), volumeOfMount(mount));
  if (found->statusJSON.empty()) {
    found->name = found->name.empty() ? lastPathComponent(mount.mountPath) : found->name;
    found->protocol = mount.protocol;
    found->username = mount.username;
    found->address = mount.address;
  }
  found->mounted = true;
  found->mountPath = mount.mountPath;
  found->deviceMinor = mount.deviceMinor;
  if (found->identifier.empty()) found->identifier = mount.identifier;
  if (found->state.empty() && !found->busName.empty()) found->state = "mounted";
}

bool isOurs(const MountedVolume& mount) { return geteuid() == 0 || mount.owner == geteuid(); }

Failure notMounted(const std::string& target, const std::vector<Volume>& volumes) {
  std::string names;
  for (const Volume& volume : volumes) names += (names.empty() ? "" : ", ") + inQuotes(volume.name);
  return {kExitNotFound, fmt::format("There is no volume {}.", inQuotes(target)),
          names.empty() ? "Nothing is mounted." : fmt::format("Mounted: {}.", names), "See: ombra list"};
}

}  // namespace

std::string volumesFolder() {
  const char* folder = std::getenv("OMBRAFS_VOLUMES");
  return folder == nullptr || *folder != '/' ? "/Volumes" : folder;
}

std::string Volume::server() const {
  if (!identifier.empty()) return identifier;
  return username.empty() ? address : username + "@" + address;
}

std::vector<Volume> joinVolumes(const std::vector<HelperOnBus>& helpers,
                                const std::vector<MountedVolume>& mounts) {
  std::vector<Volume> volumes;
  std::transform(helpers.begin(), helpers.end(), std::back_inserter(volumes), volumeOfHelper);
  for (const MountedVolume& mount : mounts) addMount(mount, &volumes);
  std::stable_sort(volumes.begin(), volumes.end(),
                   [](const Volume& a, const Volume& b) { return a.name < b.name; });
  return volumes;
}

std::vector<Volume> currentVolumes() {
  std::vector<HelperOnBus> helpers;
  for (const std::string& address : SessionBus::answeringAddresses()) {
    const auto bus = HelperBus::connect(address);
    if (!bus) continue;
    for (HelperStatus& status : bus->helpers()) {
      const HelperTraces traces = status.json.empty() ? tracesOfHelper(status.pid) : HelperTraces();
      helpers.push_back({address, std::move(status), traces});
    }
  }
  std::vector<MountedVolume> mounts = mountedVolumes(volumesFolder());
  std::erase_if(mounts, [](const MountedVolume& mount) { return !isOurs(mount); });
  std::vector<Volume> volumes = joinVolumes(helpers, mounts);
  for (Volume& volume : volumes) {
    if (volume.state.empty()) volume.state = stateOfMount(volume.mountPath);
  }
  return volumes;
}

const Volume* findVolume(const std::vector<Volume>& volumes, const std::string& target,
                         const std::string& currentFolder, Failure* failure) {
  const std::string path = absolutePath(target, currentFolder);
  const Volume* found = nullptr;
  for (const Volume& volume : volumes) {
    if (!volume.mountPath.empty() && canonicallyEqual(volume.mountPath, path)) return &volume;
  }
  for (const Volume& volume : volumes) {
    const bool named =
        canonicallyEqual(volume.name, target) ||
        (!volume.mountPath.empty() && canonicallyEqual(lastPathComponent(volume.mountPath), target));
    if (!named) continue;
    if (found != nullptr) {
      *failure = {
          kExitUsage, fmt::format("There is more than one volume {}.", inQuotes(target)),
          fmt::format("They are at {} and {}.", inQuotes(found->mountPath), inQuotes(volume.mountPath)),
          "Name the one you mean by its path."};
      return nullptr;
    }
    found = &volume;
  }
  if (found == nullptr) *failure = notMounted(target, volumes);
  return found;
}

std::string absolutePath(std::string_view path, std::string_view currentFolder) {
  const std::string whole =
      path.starts_with('/') ? std::string(path) : fmt::format("{}/{}", currentFolder, path);
  std::vector<std::string> kept;
  for (std::string& component : pathComponents(whole)) {
    if (component == ".") continue;
    if (component == "..") {
      if (kept.size() > 1) kept.pop_back();
      continue;
    }
    kept.push_back(std::move(component));
  }
  return pathWithComponents(kept);
}

std::string currentFolder() {
  std::string folder(PATH_MAX, '\0');
  if (getcwd(folder.data(), folder.size()) == nullptr) return "/";
  folder.resize(folder.find('\0'));
  return folder;
}

std::string stateOfMount(const std::string& mountPath) {
  // In a process of its own: a helper that hangs would hold whoever asks.
  const pid_t child = fork();
  if (child < 0) return "mounted";
  if (child == 0) {
    struct stat status {};
    _exit(stat(mountPath.c_str(), &status) == 0 ? 0 : errno == ENOTCONN ? 1 : 2);
  }
  const UniqueFd process = openProcess(child);
  pollfd waiting{process.get(), POLLIN, 0};
  const bool ended = poll(&waiting, 1, kLookMilliseconds) > 0;
  if (!ended) kill(child, SIGKILL);
  int result = 0;
  // One that cannot even be killed is left to the system.
  if (waitpid(child, &result, ended ? 0 : WNOHANG) != child || !WIFEXITED(result)) return "not answering";
  return WEXITSTATUS(result) == 1 ? "dead" : "mounted";
}

}  // namespace ombra
