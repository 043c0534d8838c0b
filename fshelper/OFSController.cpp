// The life of the controller, and its start up to the name of the volume.
#include "fshelper/OFSController.h"
#include "platform/foundation/ASCII.h"

#include <algorithm>
#include <utility>

#include "fshelper/OFSTracing.h"
#include "fshelper/SUUpdater.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSProcessInfo.h"
#include "platform/foundation/NSUserDefaults.h"
#include "remote/QuarnKitError.h"

namespace ombra {

OFSController::OFSController(OFSControllerEnvironment environment) : iEnvironment(std::move(environment)) {}

OFSController::~OFSController() {
  NSNotificationCenter::defaultCenter().removeObserver(this);
  NSDistributedNotificationCenter::defaultCenter().removeObserver(this);
  const std::shared_ptr<OFSMount> mount = fileSystem();
  if (mount != nullptr) {
    mount->unmount();
    mount->setDelegate(nullptr);
  }
  if (const auto delegate = fileSystemObject()) {
    delegate->setController(nullptr);
    delegate->setInvalidation(nullptr);
  }
  SUUpdater& updater = SUUpdater::sharedUpdater();
  if (updater.delegate() != this) return;
  updater.stop();
  updater.setDelegate(nullptr);
}

void OFSController::finishLaunching() {
  NSApplication::finishLaunching();  // 1
  readTracingDefault();              // 2
  // 3: the file manager keeps no state, so every thread may use it as it is
  observeFileSystem();                        // 4
  observeFrontEnd();                          // 5
  startSoftwareUpdate();                      // 6
  createFileSystemObject();                   // 7
  readCommandLine();                          // 8
  if (!repairFrameworkPermissions()) return;  // 9
  createConnectionPool();                     // 10
  if (!requireConnectionPool()) return;       // 11
  nameVolume();                               // 12, 13
  openLogs();                                 // 14
  createFileSystem();                         // 15
  chooseMountPoint();                         // 16
  if (!obtainPassthroughLock()) return;       // 17
  composeOptions();                           // 18
  if (!preflightFileSystem()) return;         // 19
  requestMount();                             // 20
}

void OFSController::launchDidRaise(const std::string& reason) {
  NSLog("The start has failed: {}", reason);
  if (!registeredName()) {
    if (beginEnding()) iEnvironment.exit(0);
    return;
  }
  NSDictionary details;
  details.setObject(reason, NSLocalizedDescriptionKey);
  const NSErrorRef error = QuarnKitError::errorWithDomain(NSPOSIXErrorDomain, kEIO, std::move(details));
  mountFailed(
      {"OFSMountFailed", registeredName(),
       NSDictionary::dictionaryWithObjectsAndKeys({{std::string(kGMUserFileSystemErrorKey), error}})});
}

void OFSController::readTracingDefault() {
  gTracingEnabled.store(NSUserDefaults::standardUserDefaults().boolForKey("TracingEnabled"));
}

void OFSController::observeFileSystem() {
  NSNotificationCenter& center = NSNotificationCenter::defaultCenter();
  center.addObserver(this, kGMUserFileSystemDidMount, [this](const NSNotification& n) { didMount(n); });
  center.addObserver(this, kGMUserFileSystemDidUnmount, [this](const NSNotification& n) { didUnmount(n); });
  center.addObserver(this, kGMUserFileSystemMountFailed, [this](const NSNotification& n) { mountFailed(n); });
}

void OFSController::observeFrontEnd() {
  NSDistributedNotificationCenter::defaultCenter().addObserver(
      this, "OFSInvalidateCache", [this](const NSNotification& n) { invalidateDirectoryCache(n); });
}

void OFSController::startSoftwareUpdate() {
  constexpr uint32_t kStagingKeys = NSShiftKeyMask | NSAlternateKeyMask | NSCommandKeyMask;
  NSUserDefaults& defaults = NSUserDefaults::standardUserDefaults();
  const std::string feed = defaults.stringForKey("SUFeedURL").value_or(iEnvironment.updateFeed);
  const std::string stagingFeed =
      defaults.stringForKey("SUStagingFeedURL").value_or(iEnvironment.stagingUpdateFeed);
  // The keys choose between the two feeds and do nothing else: with one feed, the X server need not be asked.
  const bool choice = feed != stagingFeed;
  const bool staging = choice && (iEnvironment.modifierFlags() & kStagingKeys) == kStagingKeys;
  SUUpdater& updater = SUUpdater::sharedUpdater();
  updater.setFeedURL(staging ? stagingFeed : feed);
  updater.setDelegate(this);
  updater.setAutomaticallyDownloadsUpdates(false);
  updater.setAutomaticallyChecksForUpdates(true);
}

void OFSController::createFileSystemObject() {
  auto object = std::make_shared<OmbraFileSystem>();
  object->setController(this);
  const MutexLock lock(iLock);
  iFileSystemObject = std::move(object);
}

void OFSController::readCommandLine() {
  try {
    for (const std::string& argument : NSProcessInfo::arguments()) readArgument(argument);
  } catch (const std::exception& exception) {
    // The start goes on with what was read until then.
    OFS_TRACE_MESSAGE("command line: {}", exception.what());
  }
}

void OFSController::readArgument(const std::string& argument) {
  const auto value = [&argument](std::string_view prefix) -> std::optional<std::string> {
    if (!argument.starts_with(prefix)) return std::nullopt;
    return argument.substr(prefix.size());
  };
  if (auto socketPath = value("--sock=")) {
    iSocketPath = std::move(socketPath);
  } else if (auto name = value("--uuid=")) {
    setRegisteredName(std::move(name));
  } else if (auto volume = value("--name=")) {
    setVolumeName(std::move(volume));
  } else if (auto icon = value("--icon=")) {
    iIconPath = std::move(icon);
  } else if (auto identifier = value("--passthrough=")) {
    setPassthrough(std::move(identifier));
  }
}

bool OFSController::repairFrameworkPermissions() {
  if (!iEnvironment.shouldFixDrelFSPermissions()) return true;
  NSErrorRef error;
  if (iEnvironment.fixDrelFSPermissions(&error)) return true;
  if (error != nullptr) NSLog("The file system's components could not be repaired: {}", error->description());
  if (!registeredName()) return true;  // nobody to tell: mounting may work all the same
  NSDictionary userInfo;
  if (error != nullptr)
    userInfo.setObject(QuarnKitError::quarnKitErrorWithError(error), kGMUserFileSystemErrorKey);
  mountFailed({"OFSMountFailed", registeredName(), std::move(userInfo)});
  return false;
}

void OFSController::createConnectionPool() {
  const std::optional<std::string> name = registeredName();
  if (!iSocketPath || !name) return;
  std::shared_ptr<KCCredentials> fetched = credentialsForRegisteredName(*name, *iSocketPath);
  if (fetched == nullptr) return;
  NSErrorRef error;
  const std::shared_ptr<KCConnectionPool> pool = iEnvironment.makeConnectionPool(fetched, &error);
  if (pool == nullptr) {
    NSLog("No connection can be made: {}", error == nullptr ? "no reason was given" : error->description());
    return;
  }
  fileSystemObject()->setConnectionPool(pool);
  pool->setMaximumConnections(0);
  fileSystemObject()->setPoolMaker(
      [make = iEnvironment.makeConnectionPool, credentials = fetched] { return make(credentials, nullptr); });
}

bool OFSController::requireConnectionPool() {
  if (fileSystemObject()->connectionPool() != nullptr) return true;
  ofs_conditionFailed("no connection pool");
  mountFailed({"OFSMountFailed", registeredName(), std::nullopt});
  return false;
}

void OFSController::nameVolume() {
  const std::string name = volumeName().value_or(address().value_or(""));
  setVolumeName(kc_stringByReplacingCharactersInSet(name, "/:,", "-"));
}

std::string OFSController::nameOfProtocol(uint32_t protocol) {
  std::string name;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char byte = static_cast<char>(protocol >> shift & 0xFF);
    if (byte == '\0') break;
    name.push_back(lowercasedASCII(byte));
  }
  constexpr std::string_view kBlanks = " \t\n\v\f\r";
  const size_t first = name.find_first_not_of(kBlanks);
  if (first == std::string::npos) return {};
  return name.substr(first, name.find_last_not_of(kBlanks) - first + 1);
}

std::optional<std::string> OFSController::registeredName() const {
  const MutexLock lock(iLock);
  return iRegisteredName;
}

void OFSController::setRegisteredName(std::optional<std::string> name) {
  const MutexLock lock(iLock);
  iRegisteredName = std::move(name);
}

std::optional<std::string> OFSController::passthrough() const {
  const MutexLock lock(iLock);
  return iPassthrough;
}

void OFSController::setPassthrough(std::optional<std::string> identifier) {
  const MutexLock lock(iLock);
  iPassthrough = std::move(identifier);
}

std::optional<std::string> OFSController::volumeName() const {
  const MutexLock lock(iLock);
  return iVolumeName;
}

void OFSController::setVolumeName(std::optional<std::string> name) {
  const MutexLock lock(iLock);
  iVolumeName = std::move(name);
}

std::optional<std::string> OFSController::mountPath() const {
  const MutexLock lock(iLock);
  return iMountPath;
}

void OFSController::setMountPath(std::optional<std::string> path) {
  const MutexLock lock(iLock);
  iMountPath = std::move(path);
}

OFSController::State OFSController::state() const {
  const MutexLock lock(iLock);
  return iState;
}

std::shared_ptr<OmbraFileSystem> OFSController::fileSystemObject() const {
  const MutexLock lock(iLock);
  return iFileSystemObject;
}

std::shared_ptr<OFSMount> OFSController::fileSystem() const {
  const MutexLock lock(iLock);
  return iFileSystem;
}

OFSTransferReport OFSController::transferReport() const {
  const std::shared_ptr<OmbraFileSystem> object = fileSystemObject();
  return object == nullptr ? OFSTransferReport() : object->transferReport();
}

NSErrorRef OFSController::startFolderError() const {
  const std::shared_ptr<OmbraFileSystem> object = fileSystemObject();
  return object == nullptr ? nullptr : object->startFolderError();
}

std::shared_ptr<const KCCredentials> OFSController::credentials() const {
  const std::shared_ptr<OmbraFileSystem> object = fileSystemObject();
  const auto pool = object == nullptr ? nullptr : object->connectionPool();
  return pool == nullptr ? nullptr : pool->credentials();
}

std::optional<std::string> OFSController::address() const {
  const std::shared_ptr<const KCCredentials> known = credentials();
  if (known == nullptr) return std::nullopt;
  return known->address();
}

}  // namespace ombra
