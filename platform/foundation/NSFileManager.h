// Local files and the folders that the system gives each user.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"

namespace ombra {

// confstr(3) name of the per-user temporary folder.
inline constexpr int kDarwinUserTempDir = 65537;

// What the default file manager tells of an item.
struct LocalItemAttributes {
  std::string ownerAccountName;
  std::string groupOwnerAccountName;  // group 0 reads as "wheel"
  unsigned posixPermissions = 0;      // the mode's low 12 bits
};

// Stateless; every operation may be called from any thread. Errors are in the POSIX domain.
class NSFileManager {
 public:
  static bool fileExistsAtPath(const std::string& path);
  // Names in a folder without "." and ".."; absent when it cannot be read.
  static std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(const std::string& path,
                                                                           NSErrorRef* error);
  // Makes the folder and, if that is wanted, those above it, with mode `mode`. True when it exists
  // afterwards.
  static bool createDirectoryAtPath(const std::string& path, bool withIntermediateDirectories, unsigned mode,
                                    NSErrorRef* error);
  // Removes a file or a whole folder; never follows a link out of it.
  static bool removeItemAtPath(const std::string& path, NSErrorRef* error);
  static std::optional<LocalItemAttributes> attributesOfItemAtPath(const std::string& path,
                                                                   NSErrorRef* error);

  // $XDG_DATA_HOME/ombrafs/NAME (~/.local/share by default), made when missing. Absent when it cannot be
  // made.
  static std::optional<std::string> kc_applicationSupportSubFolder(std::string_view name);
  // $XDG_STATE_HOME/ombrafs (~/.local/state by default), mode 0700; made when `create`.
  static std::string kc_chewableItemsFolderCreate(bool create);
  // For kDarwinUserTempDir the per-user temporary folder: $OMBRAFS_TMPDIR or /var/tmp/ombrafs-UID, made with
  // mode 0700. Empty, with a log line, when it exists and is not a folder of the user's own; empty for other
  // names.
  static std::string kc_confstr(int name);
  // $XDG_CONFIG_HOME/ombrafs (~/.config by default); not made.
  static std::string configurationFolder();
};

}  // namespace ombra
