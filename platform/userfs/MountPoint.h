// The folder that a volume appears in: made for it, and taken away after it.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "platform/userfs/GMUserFileSystem.h"

namespace ombra {

// An error of kGMUserFileSystemErrorDomain: what happened, why, and what to do next.
NSErrorRef mountError(GMUserFileSystemErrorCode code, std::string_view description, std::string_view reason,
                      std::string_view suggestion);

// What the system has mounted at a path, from /proc/self/mountinfo.
struct MountedVolume {
  std::string path;
  std::string type;  // "fuse.ombrafs"
  std::string source;
  std::string device;  // "0:57": names this mount among all
};

// All lines of a mountinfo text; lines that are not of its form are left out.
std::vector<MountedVolume> parseMountInfo(std::string_view text);
std::vector<MountedVolume> mountedVolumes();
// The topmost mount at exactly that path.
std::optional<MountedVolume> mountedVolumeAtPath(std::string_view path);

// True when the mount at `path` answers that the process behind it is gone. A process that is there but does
// not answer within two seconds counts as there.
bool isDisconnected(const std::string& path);

class MountPoint {
 public:
  // The last component of `path` when it names a plain item directly below `volumesFolder`; absent otherwise
  // ("..", an empty name, a deeper path, another folder).
  static std::optional<std::string> nameOfPath(std::string_view path, std::string_view volumesFolder);

  // Makes the folder, or takes an existing one that is empty, no link, and not mounted on; one that a killed
  // helper left is cleared first. Null with an error otherwise.
  static std::unique_ptr<MountPoint> prepare(const std::string& path, const std::string& volumesFolder,
                                             NSErrorRef* error);
  // Removes the folder if `prepare` made it and it still is the same one; nothing must be mounted there any
  // more.
  ~MountPoint();
  MountPoint(const MountPoint&) = delete;
  MountPoint& operator=(const MountPoint&) = delete;

  const std::string& path() const { return iPath; }

  // Takes away every disconnected mount directly below the folder, with the folder it was mounted on.
  static void clearStale(const std::string& volumesFolder);

 private:
  MountPoint(std::string path, bool made, dev_t device, ino_t inode);

  const std::string iPath;
  const bool iMade;
  const dev_t iDevice;
  const ino_t iInode;
};

}  // namespace ombra
