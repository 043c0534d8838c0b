#include "platform/userfs/KernelMount.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/userfs/FuserMount.h"

namespace ombra {

namespace {

constexpr const char* kDevice = "/dev/fuse";
constexpr const char* kSubtype = "ombrafs";

NSErrorRef deviceError(int number) {
  return mountError(kGMNoFuseDevice, fmt::format("\"{}\" could not be opened.", kDevice), kc_strerror(number),
                    number == ENOENT || number == ENODEV || number == ENXIO
                        ? "Load the kernel's fuse module: sudo modprobe fuse"
                        : "Let users open it: sudo chmod 666 /dev/fuse");
}

NSErrorRef refusedError(const std::string& path, std::string_view reason, std::string_view suggestion) {
  return mountError(kGMMountRefused, fmt::format("The system refused to mount at \"{}\".", path), reason,
                    suggestion);
}

int mountAsRoot(const std::string& path, const MountOptions& options, NSErrorRef* error) {
  const int device = open(kDevice, O_RDWR | O_CLOEXEC);
  if (device < 0) {
    storeError(error, deviceError(errno));
    return -1;
  }
  const std::string data =
      fmt::format("fd={},rootmode=40000,user_id={},group_id={},max_read={}{}", device, getuid(), getgid(),
                  KernelMount::kLargestRequest, options.allowRoot ? ",allow_other" : "");
  const std::string type = std::string("fuse.") + kSubtype;
  if (::mount(options.fsname.c_str(), path.c_str(), type.c_str(), MS_NOSUID | MS_NODEV, data.c_str()) != 0) {
    const int number = errno;
    close(device);
    storeError(error, refusedError(path, kc_strerror(number),
                                   number == EPERM ? "The process needs the right to mount (CAP_SYS_ADMIN)."
                                                   : "See the kernel's log (dmesg) for more."));
    return -1;
  }
  return device;
}

int mountAsUser(const std::string& path, const MountOptions& options, NSErrorRef* error) {
  // fusermount3 opens the device itself; asking first gives the clearer message.
  if (access(kDevice, F_OK) != 0) {
    storeError(error, deviceError(errno));
    return -1;
  }
  const std::string list =
      fmt::format("fsname={},subtype={},nosuid,nodev,max_read={}{}", options.fsname, kSubtype,
                  KernelMount::kLargestRequest, options.allowRoot ? ",allow_other" : "");
  std::string words;
  const int device = FuserMount::mount(path, list, &words);
  if (device < 0) {
    storeError(error,
               refusedError(path, words, "Check that you own the folder and that fuse3 is installed."));
  }
  return device;
}

}  // namespace

int KernelMount::mount(const std::string& path, const MountOptions& options, NSErrorRef* error) {
  return geteuid() == 0 ? mountAsRoot(path, options, error) : mountAsUser(path, options, error);
}

bool KernelMount::detach(const MountedVolume& volume) {
  // Somebody may have unmounted it by hand and mounted another there since.
  const auto present = mountedVolumeAtPath(volume.path);
  if (!present || present->device != volume.device) return true;
  if (geteuid() == 0) {
    if (umount2(volume.path.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) return true;
    NSLog("\"{}\" could not be unmounted: {}", volume.path, kc_strerror(errno));
    return false;
  }
  std::string words;
  if (FuserMount::detach(volume.path, &words)) return true;
  NSLog("\"{}\" could not be unmounted: {}", volume.path, words);
  return false;
}

void KernelMount::raiseReadAhead(const MountedVolume& volume) {
  if (geteuid() != 0) return;
  std::ofstream setting(fmt::format("/sys/class/bdi/{}/read_ahead_kb", volume.device));
  // Best effort: with a read-only /sys (in a container) files are read in smaller steps.
  setting << kLargestRequest / 1024 << '\n';
}

}  // namespace ombra
