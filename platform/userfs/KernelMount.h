// Asks the system to mount and to unmount: directly as root, through fusermount3 as a user.
#pragma once

#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "platform/userfs/MountOptions.h"
#include "platform/userfs/MountPoint.h"

namespace ombra {

class KernelMount {
 public:
  // The largest request in bytes, in both directions: what the kernel allows without tuning.
  static constexpr unsigned kLargestRequest = 1024 * 1024;

  // Mounts at an existing folder and returns the descriptor that requests arrive on; -1 with an error.
  static int mount(const std::string& path, const MountOptions& options, NSErrorRef* error);
  // Takes the mount out of the tree at once, also when files on it are open; only if that very mount still is
  // the one at its path. True when it is gone.
  static bool detach(const MountedVolume& volume);
  // Lets the kernel read ahead as far as one request reaches. As a user this stays as the system has it.
  static void raiseReadAhead(const MountedVolume& volume);
};

}  // namespace ombra
