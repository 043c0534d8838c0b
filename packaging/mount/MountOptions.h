// What mount(8) hands to the program mount.ombra.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

struct MountHelperOptions {
  std::string source;                  // the URL
  std::string mountPoint;              // "/Volumes/NAME"
  std::string volumeName;              // the last component of it
  std::vector<std::string> arguments;  // of "ombra mount", without URL and name
  std::optional<std::string> user;     // whose volume it is to be: a name or a number
  uint64_t attributes = 0;             // MOUNT_ATTR_… of the mount
  bool fake = false;                   // look at everything, mount nothing
  bool verbose = false;
};

// Reads "SOURCE DIRECTORY [-fnsv] [-o OPTIONS] [-t TYPE]" (without the program's name), with `volumesFolder`
// the folder of all mount points. Absent with a sentence in `failure`.
std::optional<MountHelperOptions> parseMountHelperOptions(const std::vector<std::string>& words,
                                                          std::string_view volumesFolder,
                                                          std::string* failure);

}  // namespace ombra
