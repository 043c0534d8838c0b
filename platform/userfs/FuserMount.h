// The setuid helper of the fuse package, which mounts and unmounts for users.
#pragma once

#include <string>

namespace ombra {

class FuserMount {
 public:
  // Mounts at `path` with that option list. The descriptor that requests arrive on, or -1 with the helper's
  // own words (or why it could not be run) in `words`.
  static int mount(const std::string& path, const std::string& options, std::string* words);
  // Takes the mount out of the tree, lazily.
  static bool detach(const std::string& path, std::string* words);
};

}  // namespace ombra
