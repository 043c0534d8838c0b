// Mounting through the command `ombra`, at exactly the place that was asked for.
#pragma once

#include <string>

#include "packaging/mount/MountOptions.h"
#include "packaging/mount/MountUser.h"

namespace ombra {

// The statuses that mount(8) expects of its helpers.
enum MountStatus { kMountDone = 0, kMountUsage = 1, kMountSystem = 2, kMountFailed = 32 };

// Mounts for `user`, who is the caller unless that is an administrator. The command makes the folder of the
// mount itself, below the folder of volumes, and takes another name where one is in the way: so an empty
// folder is removed before, and a volume that comes to lie elsewhere is unmounted again. With administrator
// rights the mount gets the attributes of the options.
//
// Where something is mounted at the place already (systemd's automount waits there), an administrator's
// volume is put over it: the command then runs with an empty folder of volumes of its own, in a mount
// namespace, and the volume is moved out of there.
MountStatus mountVolume(const MountHelperOptions& options, const MountUser& user, const std::string& command,
                        const std::string& volumesFolder);

// Prints "mount.ombra: TEXT".
void complain(const std::string& text);

}  // namespace ombra
