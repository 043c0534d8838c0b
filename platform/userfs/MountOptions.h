// What the option list of a mount means.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ombra {

// Of the module that keeps desktop litter on this machine.
struct RedirectOptions {
  std::string folder;
  bool hashesNames = false;
  std::optional<std::string> icon;  // shown by file managers
};

struct MountOptions {
  std::string fsname = "ombrafs";           // shown as the device; holds nothing that begins a further option
  std::optional<std::string> volumeName;    // shown by file managers
  bool debug = false;                       // libfuse's own trace
  bool allowRoot = false;                   // root may look as well, beside the user who mounted
  bool jailSymlinks = false;                // absolute targets lead below the mount point
  bool nativeXattr = false;                 // extended-attribute calls are answered
  std::optional<RedirectOptions> redirect;  // absent: litter goes to the server like everything else
  std::vector<std::string> ignored;         // understood by other systems, or of a module that is off
  std::vector<std::string> unknown;         // dropped

  // Whether the system lets this user share a mount with root, and what a log line says when it does not.
  struct Permission {
    bool isRoot = false;
    bool userAllowOther = false;
  };
  // Never fails: what is not known, not permitted or not complete is left out, and the log says so.
  static MountOptions parse(const std::vector<std::string>& options, Permission permission);
  // What is true of this process; reads `fuseConf`.
  static Permission permission(const char* fuseConf = "/etc/fuse.conf");

 private:
  // False for an option that is not one of the volume's own.
  bool take(std::string_view option);
};

// Whether the text of a fuse.conf has the line "user_allow_other".
bool allowsUserAllowOther(std::string_view fuseConf);

// `value` without the characters that would end it within an option list (comma, backslash) or a line.
std::string cleanedOptionValue(std::string_view value);

}  // namespace ombra
