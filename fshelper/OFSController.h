// The application: starts one mount, tells the front end what becomes of it, and ends with it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fshelper/OFSControllerApplication.h"
#include "fshelper/OFSControllerEnvironment.h"
#include "fshelper/OFSRedirectCache.h"
#include "fshelper/OmbraFileSystem.h"
#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "remote/KCCredentials.h"

namespace ombra {

// Made by the entry point. `finishLaunching` runs on the main thread and does all of the start; afterwards
// the process serves the file system until the volume is unmounted. Every way to end, failures included, ends
// in exit status 0. The handlers run on whichever thread posts, hence the lock; nothing is called with it
// held.
//
// Launched -> settings, credentials, pool, logs, mount point -> mount requested -> mounted -> ended
//                    |                                               |                       ^
//                    +------------------ failed ---------------------+-----------------------+
class OFSController final : public NSApplication, public OFSMountPathSource {
 public:
  explicit OFSController(OFSControllerEnvironment environment = OFSControllerEnvironment::system());
  ~OFSController() override;
  OFSController(const OFSController&) = delete;
  OFSController& operator=(const OFSController&) = delete;

  // The name that the front end knows this helper by: the object of every notification.
  std::optional<std::string> registeredName() const EXCLUDES(iLock);
  void setRegisteredName(std::optional<std::string> name) EXCLUDES(iLock);
  // The identifier of a mount that is asked for repeatedly; absent for an ordinary one. Empty counts as
  // present.
  std::optional<std::string> passthrough() const EXCLUDES(iLock);
  void setPassthrough(std::optional<std::string> identifier) EXCLUDES(iLock);
  std::optional<std::string> volumeName() const EXCLUDES(iLock);
  void setVolumeName(std::optional<std::string> name) EXCLUDES(iLock);
  // Absent until the mount was announced.
  std::optional<std::string> mountPath() const override EXCLUDES(iLock);
  void setMountPath(std::optional<std::string> path) EXCLUDES(iLock);

  // The whole start. Returns when the mount has been requested; where it fails the process ends in it. May
  // raise KCException, which `launchDidRaise` then answers.
  void finishLaunching() override;
  // The end of a start that raised: logged, announced as a failed mount where a name is known, exit status 0.
  void launchDidRaise(const std::string& reason);

  // "ftp" for 'FTP ': the bytes of the code in reading order, lower-cased, without blanks around.
  static std::string nameOfProtocol(uint32_t protocol);
  // Fetches the credentials of `registeredName` from the front end that listens at the socket path. Null
  // without a listener, or when its answer is no archive of credentials. Blocks until the front end closes
  // the connection. Raises KCException when reading fails.
  static std::shared_ptr<KCCredentials> credentialsForRegisteredName(const std::string& registeredName,
                                                                     const std::string& usingSocketPath);
  // Takes the lock of the pass-through identifier. False when this helper is not to mount; where another one
  // has the identifier mounted and the server can be reached, this is announced and the process ends here.
  // The mount path is not used.
  bool obtainLockForPassthroughWithFileSystem(OmbraFileSystem& fileSystem, const std::string& mountPath,
                                              NSErrorRef* error);

  // Of the framework: the volume is there; it is gone; it could not be mounted. The last two end the process;
  // once one of them has begun to, each is without effect, on any thread.
  void didMount(const NSNotification& notification);
  void didUnmount(const NSNotification& notification);
  void mountFailed(const NSNotification& notification);
  // Of the front end: the folders under "paths" have changed.
  void invalidateDirectoryCache(const NSNotification& notification);

  // Ends the mount because a person or the system asks for it; with `force`, without waiting for the server.
  // During the start this ends the start. Any thread; returns soon (or, during the start, not at all).
  void requestUnmount(bool force);

  // For the status that others can ask for.
  enum class State { kStarting, kMounting, kMounted, kUnmounting };
  State state() const EXCLUDES(iLock);
  std::shared_ptr<const KCCredentials> credentials() const EXCLUDES(iLock);
  // Empty before there is a file system. Never waits for a transfer.
  OFSTransferReport transferReport() const EXCLUDES(iLock);
  // Why the volume does not show the folder that was asked for; null where it does, and before that is known.
  NSErrorRef startFolderError() const EXCLUDES(iLock);

 private:
  // The steps of the start, in their order. Those that answer false have ended it.
  void readTracingDefault();
  void observeFileSystem();
  void observeFrontEnd();
  void startSoftwareUpdate();
  void createFileSystemObject();
  void readCommandLine();
  bool repairFrameworkPermissions();
  void createConnectionPool();
  bool requireConnectionPool();
  void nameVolume();
  void openLogs();
  void createFileSystem();
  void chooseMountPoint();
  bool obtainPassthroughLock();
  void composeOptions();
  bool preflightFileSystem();
  void requestMount();

  void readArgument(const std::string& argument);
  void openConsoleLog(const std::string& path);
  void addRedirectOptions();
  void failStart(const NSErrorRef& error);
  // Whether the caller is the one that ends the process, by whichever of the ways: true for the first to ask,
  // on whichever thread.
  bool beginEnding() { return !iEnding.exchange(true); }
  void endProcess(const NSNotification& notification);
  void announceUndelivered(const NSNotification& notification);
  void expireFolder(OmbraFileSystem& fileSystem, const std::string& path, const std::string& mountPath);
  std::optional<std::string> address() const;
  std::shared_ptr<OmbraFileSystem> fileSystemObject() const EXCLUDES(iLock);
  std::shared_ptr<OFSMount> fileSystem() const EXCLUDES(iLock);
  void post(std::string_view name, NSDictionary userInfo) const;

  const OFSControllerEnvironment iEnvironment;

  // Of the start, on the main thread alone.
  std::unique_ptr<OFSRedirectCache> iRedirectCache;  // absent in a pass-through mount
  std::optional<std::string> iSocketPath;
  std::optional<std::string> iIconPath;
  std::string iMountPoint;
  std::vector<std::string> iOptions;

  std::atomic<bool> iEnding{false};

  mutable Mutex iLock;
  State iState GUARDED_BY(iLock) = State::kStarting;
  bool iUnmountRequested GUARDED_BY(iLock) = false;
  std::optional<std::string> iRegisteredName GUARDED_BY(iLock);
  std::optional<std::string> iPassthrough GUARDED_BY(iLock);
  std::optional<std::string> iVolumeName GUARDED_BY(iLock);
  std::optional<std::string> iMountPath GUARDED_BY(iLock);
  // The folder of the redirect module's disk cache; absent when there is none to remove.
  std::optional<std::string> iRedirectCachesPath GUARDED_BY(iLock);
  // The delegate, and the framework object that it is the delegate of.
  std::shared_ptr<OmbraFileSystem> iFileSystemObject GUARDED_BY(iLock);
  std::shared_ptr<OFSMount> iFileSystem GUARDED_BY(iLock);
};

}  // namespace ombra
