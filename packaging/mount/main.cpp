// mount(8) runs this program for file systems of the type "ombra": mount -t ombra URL /Volumes/NAME
#include <unistd.h>

#include <climits>
#include <cstdio>

#include "packaging/mount/MountOptions.h"
#include "packaging/mount/MountUser.h"
#include "packaging/mount/VolumeMount.h"

namespace {

constexpr const char* kVolumesFolder = "/Volumes";

// "…/bin/ombra" for "…/sbin/mount.ombra".
std::string commandPath() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path);
  if (length <= 0 || length == sizeof path) return "/usr/bin/ombra";
  const std::string own(path, static_cast<size_t>(length));
  const std::string folder = own.substr(0, own.rfind('/'));
  return folder.substr(0, folder.rfind('/')) + "/bin/ombra";
}

}  // namespace

int main(int argc, char** argv) {
  using namespace ombra;
  std::string failure;
  const auto options =
      parseMountHelperOptions({argv + (argc > 0 ? 1 : 0), argv + argc}, kVolumesFolder, &failure);
  if (!options) {
    complain(failure);
    return kMountUsage;
  }
  const auto user = MountUser::find(options->user.value_or(std::to_string(::getuid())), &failure);
  if (!user) {
    complain(failure);
    return kMountUsage;
  }
  if (::geteuid() != 0 && user->uid != ::getuid()) {
    complain("Only an administrator can mount a volume for another user (option uid).");
    return kMountUsage;
  }
  if (options->verbose)
    std::printf("mount.ombra: %s at %s for %s\n", options->source.c_str(), options->mountPoint.c_str(),
                user->name.c_str());
  std::fflush(stdout);
  if (options->fake) return kMountDone;
  return mountVolume(*options, *user, commandPath(), kVolumesFolder);
}
