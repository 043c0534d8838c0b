#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "frontend/ChildProgram.h"
#include "frontend/HelperBus.h"
#include "frontend/LostFiles.h"
#include "frontend/ProcessDescriptor.h"
#include "frontend/UniqueFd.h"
#include "frontend/UnmountVolume.h"

namespace ombra {

namespace {

constexpr std::chrono::seconds kAnswerLimit{10};
constexpr std::chrono::seconds kForcedAnswerLimit{2};
constexpr std::chrono::seconds kProgramLimit{15};
constexpr int kPauseMilliseconds = 100;
constexpr size_t kMaximumUsers = 5;

std::string linkTarget(const std::string& path) {
  std::array<char, PATH_MAX> buffer{};
  const ssize_t count = readlink(path.c_str(), buffer.data(), buffer.size());
  return count > 0 ? std::string(buffer.data(), static_cast<size_t>(count)) : std::string();
}

std::vector<std::string> namesIn(const std::string& folder) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> handle(opendir(folder.c_str()), closedir);
  while (handle) {
    const dirent* entry = readdir(handle.get());
    if (entry == nullptr) break;
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  return names;
}

bool isBelow(const std::string& path, const std::string& folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

// Looks at the links that the system keeps; the volume itself is not asked.
bool processHolds(const std::string& process, const std::string& folder) {
  if (isBelow(linkTarget(process + "/cwd"), folder) || isBelow(linkTarget(process + "/root"), folder))
    return true;
  const auto descriptors = namesIn(process + "/fd");
  return std::any_of(descriptors.begin(), descriptors.end(),
                     [&process, &folder](const std::string& descriptor) {
                       return isBelow(linkTarget(process + "/fd/" + descriptor), folder);
                     });
}

std::string processName(const std::string& process) {
  const UniqueFd file(open((process + "/comm").c_str(), O_RDONLY | O_CLOEXEC));
  std::array<char, 64> buffer{};
  const ssize_t count = file ? read(file.get(), buffer.data(), buffer.size()) : 0;
  return count > 1 ? std::string(buffer.data(), static_cast<size_t>(count - 1)) : std::string("?");
}

class SystemVolumeControl final : public VolumeControl {
 public:
  SystemVolumeControl(const Volume& volume, const Interruption& interruption, std::function<uint64_t()> tick)
      : iVolume(volume),
        iInterruption(interruption),
        iTick(std::move(tick)),
        iHelper(openProcess(volume.pid)),
        iMounts(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)) {}

  bool isMounted() override {
    const auto mounts = mountedVolumes(volumesFolder());
    return std::any_of(mounts.begin(), mounts.end(),
                       [this](const MountedVolume& mount) { return mount.mountPath == iVolume.mountPath; });
  }

  bool helperLives() override {
    pollfd waiting{iHelper.get(), POLLIN, 0};
    return iHelper && poll(&waiting, 1, 0) == 0;
  }

  bool askHelper(bool force, std::string* why) override {
    if (iVolume.busName.empty()) return false;
    const auto bus = HelperBus::connect(iVolume.busAddress);
    return bus && bus->unmount(iVolume.busName, force, force ? kForcedAnswerLimit : kAnswerLimit, why);
  }

  bool detach(bool lazily, std::string* why, bool* inUse) override {
    return geteuid() == 0 ? detachAsRoot(lazily, why, inUse) : detachAsUser(lazily, why, inUse);
  }

  void abortRequests() override {
    if (iVolume.deviceMinor == 0) return;
    const std::string path = fmt::format("/sys/fs/fuse/connections/{}/abort", iVolume.deviceMinor);
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    // Where this is not to be had, killing the helper has the same effect.
    if (file) (void)!write(file.get(), "1", 1);
  }

  void terminateHelper() override { signal(SIGTERM); }
  void killHelper() override { signal(SIGKILL); }

  void removeMountPoint() override {
    // Only ever an empty folder, and only when nothing is mounted there any more.
    if (!iVolume.mountPath.empty() && !isMounted()) rmdir(iVolume.mountPath.c_str());
  }

  std::string users() override {
    std::string result;
    size_t count = 0;
    for (const std::string& name : namesIn("/proc")) {
      const std::string process = "/proc/" + name;
      if (name.find_first_not_of("0123456789") != std::string::npos ||
          !processHolds(process, iVolume.mountPath))
        continue;
      if (++count > kMaximumUsers) return result + ", …";
      result += fmt::format("{}{} ({})", result.empty() ? "" : ", ", printable(processName(process)), name);
    }
    return result;
  }

  bool pause() override {
    if (iTick) iSent = iTick();
    // A change of the table of mounts shows as an error condition on it.
    std::array<pollfd, 3> waiting{{{iMounts.get(), POLLPRI, 0},
                                   {helperLives() ? iHelper.get() : -1, POLLIN, 0},
                                   {iInterruption.fd(), POLLIN, 0}}};
    poll(waiting.data(), waiting.size(), kPauseMilliseconds);
    return !iInterruption.requested();
  }

  uint64_t bytesSent() override { return iSent; }

  uint64_t bytesSaved() override {
    return bytesRecoveredSince(recoveredFolder(iVolume.mountPath), iStart).value_or(0);
  }

  std::chrono::steady_clock::time_point now() override { return std::chrono::steady_clock::now(); }

 private:
  bool detachAsRoot(bool lazily, std::string* why, bool* inUse) {
    if (umount2(iVolume.mountPath.c_str(), UMOUNT_NOFOLLOW | (lazily ? MNT_DETACH : 0)) == 0) return true;
    *inUse = errno == EBUSY;
    *why = std::strerror(errno);
    return false;
  }

  bool detachAsUser(bool lazily, std::string* why, bool* inUse) {
    std::vector<std::string> arguments{"fusermount3", "-u"};
    if (lazily) arguments.emplace_back("-z");
    arguments.insert(arguments.end(), {"--", iVolume.mountPath});
    const auto result = runProgram(arguments, kProgramLimit);
    if (result && result->exitStatus == 0) return true;
    *why = result ? result->output : "The program fusermount3 (package fuse3) could not be run.";
    *inUse = why->find("busy") != std::string::npos;
    return false;
  }

  void signal(int number) { signalProcess(iHelper, number); }

  Volume iVolume;
  const Interruption& iInterruption;
  std::function<uint64_t()> iTick;
  uint64_t iSent = 0;
  const time_t iStart = time(nullptr);
  UniqueFd iHelper;
  UniqueFd iMounts;
};

}  // namespace

std::unique_ptr<VolumeControl> systemVolumeControl(const Volume& volume, const Interruption& interruption,
                                                   std::function<uint64_t()> tick) {
  return std::make_unique<SystemVolumeControl>(volume, interruption, std::move(tick));
}

}  // namespace ombra
