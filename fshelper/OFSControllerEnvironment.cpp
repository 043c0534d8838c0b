#include "fshelper/OFSControllerEnvironment.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

#include "fshelper/DrelFSInstaller.h"
#include "fshelper/OFSControllerApplication.h"
#include "fshelper/OFSPassthroughLock.h"
#include "fshelper/OFSRedirectCache.h"
#include "fshelper/SUUpdater.h"

namespace ombra {
namespace {

// Notifications were flushed when they were posted, so what is left is the transcript. Without the handlers
// of exit(3): transfer workers may still run, and would find the libraries below them torn down.
[[noreturn]] void endProcess(int status) {
  std::fflush(nullptr);
  _exit(status);
}

}  // namespace

OFSControllerEnvironment OFSControllerEnvironment::system() {
  OFSControllerEnvironment environment;
  environment.exit = [](int status) { endProcess(status); };
  environment.modifierFlags = [] { return modifierFlagsOfCurrentEvent(); };
  environment.updateFeed = OMBRA_UPDATE_FEED;
  environment.stagingUpdateFeed = OMBRA_STAGING_UPDATE_FEED;
  environment.lookForUpdates = [] { SUUpdater::sharedUpdater().startUpdater(); };
  environment.removeAbandonedLitter = [] { OFSRedirectCache::removeAbandoned(); };
  environment.shouldFixDrelFSPermissions = [] { return DrelFSInstaller::shouldFixDrelFSPermissions(); };
  environment.fixDrelFSPermissions = [](NSErrorRef* error) {
    return DrelFSInstaller::fixDrelFSPermissions(error);
  };
  environment.makeConnectionPool = [](std::shared_ptr<KCCredentials> credentials, NSErrorRef* error) {
    return KCConnectionPool::initWithCredentials(std::move(credentials), error);
  };
  environment.makeFileSystem = [](GMUserFileSystemDelegate* delegate, bool isThreadSafe) {
    return OFSMount::initWithDelegate(delegate, isThreadSafe);
  };
  environment.lockFile = [](const std::string& path) { return spc_lock_file(path.c_str()); };
  environment.willRequestMount = [] {};
  return environment;
}

}  // namespace ombra
