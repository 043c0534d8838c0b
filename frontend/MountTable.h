// The system's table of mounts, as far as it concerns volumes.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// A mounted volume as the kernel shows it.
struct MountedVolume {
  std::string mountPath;
  std::string source;    // "OmbraFS/sftp#anna@nas"
  std::string protocol;  // "sftp"; empty when the source is of another form
  std::string username;  // of a source "protocol#user@address"
  std::string address;
  std::string identifier;    // what stands after the "#" of a pass-through mount, which has no "@"
  uid_t owner = 0;           // the user that the mount belongs to
  unsigned deviceMinor = 0;  // the number of the connection below /sys/fs/fuse/connections
};

// The volumes in the text of /proc/self/mountinfo: fuse mounts directly below `volumesFolder` whose source
// begins with "OmbraFS/". Malformed lines are passed over. Where several are stacked on one point, the last
// one, which is on top.
std::vector<MountedVolume> parseMountInfo(std::string_view text, std::string_view volumesFolder);

// The volumes of this machine now.
std::vector<MountedVolume> mountedVolumes(std::string_view volumesFolder);

// "\040" and its like undone.
std::string decodeMountField(std::string_view field);

}  // namespace ombra
