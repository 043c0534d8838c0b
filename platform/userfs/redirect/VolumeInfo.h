// What file managers show of a volume: its name and its icon.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/userfs/redirect/LitterStore.h"

namespace ombra {

// The files at the top of a volume that file managers look for: ".xdg-volume-info" (GNOME and its relatives),
// ".directory" (KDE, for the icon alone), and the icon itself. They are found by their names and not listed,
// so that a copy of the volume does not take them along.
class VolumeInfo {
 public:
  static constexpr std::string_view kInfoPath = "/.xdg-volume-info";
  static constexpr std::string_view kFolderPath = "/.directory";
  static constexpr size_t kLargestIcon = 16 * 1024 * 1024;

  // Puts them into the store; what somebody else has made under these names stays. Null, or why the icon
  // cannot be used: the volume has the usual one then.
  static std::optional<std::string> publish(LitterStore& store, std::string_view volumeName,
                                            const std::optional<std::string>& iconPath);

  // "" for a volume without a name of its own or without an icon.
  static std::string info(std::string_view volumeName, std::string_view iconName);
  // What the icon at that path is called in the volume.
  static std::string iconName(std::string_view iconPath);
};

}  // namespace ombra
