// What the controller reaches outside itself.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "fshelper/OFSControllerMount.h"
#include "remote/KCConnectionPool.h"

namespace ombra {

// The collaborators of the controller. `system()` is the real set; a test replaces single ones.
struct OFSControllerEnvironment {
  // Ends the process. Does not return; a test's raises something of its own instead.
  std::function<void(int status)> exit;
  // NSEventModifierFlags of the moment of the launch.
  std::function<uint32_t()> modifierFlags;
  // Where updates are announced; empty in a self-built copy. The user's defaults "SUFeedURL" and
  // "SUStagingFeedURL" take their place.
  std::string updateFeed;
  std::string stagingUpdateFeed;
  // Begins to look for updates, now that the volume is mounted. Does not wait.
  std::function<void()> lookForUpdates;
  // Begins to remove the litter of volumes whose helpers were killed. Does not wait.
  std::function<void()> removeAbandonedLitter;
  std::function<bool()> shouldFixDrelFSPermissions;
  std::function<bool(NSErrorRef* error)> fixDrelFSPermissions;
  std::function<std::shared_ptr<KCConnectionPool>(std::shared_ptr<KCCredentials>, NSErrorRef* error)>
      makeConnectionPool;
  std::function<std::shared_ptr<OFSMount>(GMUserFileSystemDelegate*, bool isThreadSafe)> makeFileSystem;
  // As spc_lock_file.
  std::function<int(const std::string& path)> lockFile;
  // Called just before the mount is asked for, when everything that could fail at start has gone well.
  std::function<void()> willRequestMount;

  static OFSControllerEnvironment system();
};

}  // namespace ombra
