// Owner, group and mode of the file system's kernel module configuration and its loader.
#pragma once

#include <string>

#include "platform/foundation/NSError.h"

namespace ombra {

class KCAuthorizationManager;

// The items that are checked, all below one folder.
struct DrelFSBundle {
  std::string extension;  // the kernel module's configuration, a folder
  std::string loader;     // the tool that loads the module
  std::string repair;     // what runs the steps of the repair, beside the helper

  // Of the bundle "ombradiskfs.fs" in `folder`.
  static DrelFSBundle bundleInFolder(const std::string& folder);
  // Of the bundle beside the running program.
  static DrelFSBundle mainBundle();
};

class DrelFSInstaller {
 public:
  // True when the owner or the group of either item is not root and wheel, or the loader lacks the
  // set-user-ID bit. The extension's own permissions are not looked at.
  static bool shouldFixDrelFSPermissions(const DrelFSBundle& bundle = DrelFSBundle::mainBundle());

  // Makes it so with administrator rights, in four steps, up to the first that fails. An item that is missing
  // fails its first step, with code 2 of the POSIX domain, before anybody is asked for rights. The question
  // names this program where the bundle's `repair` is root's, as in an installed copy: then one answer does
  // for all steps.
  static bool fixDrelFSPermissions(NSErrorRef* error);
  static bool fixDrelFSPermissions(const DrelFSBundle& bundle, KCAuthorizationManager& authorization,
                                   NSErrorRef* error);

  // Runs the loader, and waits for it, when the system has no /dev/fuse. What comes of it shows when
  // mounting.
  static void loadDrelFSIfNeeded(const DrelFSBundle& bundle = DrelFSBundle::mainBundle());
};

}  // namespace ombra
