// The start from the logs to the request to mount.
#include <fcntl.h>
#include <unistd.h>

#include <utility>

#include "fshelper/OFSController.h"
#include "fshelper/OFSTracing.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSDateFormatter.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSUserDefaults.h"
#include "remote/KCUUID.h"

namespace ombra {
namespace {

constexpr unsigned kLogFolderMode = 0700;
constexpr mode_t kConsoleLogMode = 0644;

// The volume's name as the name of a folder: never one that stands for another place, and nothing that a
// terminal or the mount table would take for more than a character. The name that is shown stays as it is.
std::string mountPointName(std::string name) {
  for (char& byte : name) {
    if (static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F) byte = '-';
  }
  if (name.empty()) return "OmbraFS";
  if (name == "." || name == "..") return ofs_times("-", name.size());
  return name;
}

// Whether the text is worth an entry of its own in a list that stops at the first absent value.
std::optional<PropertyValue> present(const NSErrorRef& error) {
  if (error == nullptr) return std::nullopt;
  return PropertyValue(error);
}

}  // namespace

void OFSController::openLogs() {
  const std::string folder =
      stringByAppendingPathComponent(NSFileManager::kc_chewableItemsFolderCreate(true), "OmbraFSHelperLogs");
  // Not a folder for each volume: the logs of all of them lie side by side.
  if (!NSFileManager::createDirectoryAtPath(folder, true, kLogFolderMode, nullptr)) return;
  const std::shared_ptr<OmbraFileSystem> object = fileSystemObject();
  const std::string prefix = stringByAppendingPathComponent(
      folder, fmt::format("{}_{}_", volumeName().value_or(""),
                          NSDateFormatter("yyyy-MM-dd-HHmmss").stringFromDate(object->mountDate())));
  object->openTranscriptLogAtPath(prefix + "Transcript.log");
  openConsoleLog(prefix + "Console.log");
}

void OFSController::openConsoleLog(const std::string& path) {
  const int console = ::open(path.c_str(), O_WRONLY | O_CREAT, kConsoleLogMode);
  if (console < 0) return;
  ::dup2(console, STDERR_FILENO);
  if (console != STDERR_FILENO) ::close(console);
}

void OFSController::createFileSystem() {
  const std::shared_ptr<OmbraFileSystem> object = fileSystemObject();
  std::shared_ptr<OFSMount> mount = iEnvironment.makeFileSystem(object.get(), true);
  object->setInvalidation(mount.get());
  const MutexLock lock(iLock);
  iFileSystem = std::move(mount);
}

void OFSController::chooseMountPoint() {
  // For tests: a folder other than "/Volumes", which only an administrator can make.
  if (auto folder = NSUserDefaults::standardUserDefaults().stringForKey("VolumesFolder")) {
    GMUserFileSystem::setVolumesFolder(std::move(*folder));
  }
  GMUserFileSystem::clearStaleMountPoints();
  const std::string& volumes = GMUserFileSystem::volumesFolder();
  const auto taken = NSFileManager::contentsOfDirectoryAtPath(volumes, nullptr);
  const std::string name = kc_stringUniqueToArray(mountPointName(volumeName().value_or("")),
                                                  taken.value_or(std::vector<std::string>()), std::nullopt);
  iMountPoint = decomposedStringWithCanonicalMapping(stringByAppendingPathComponent(volumes, name));
}

bool OFSController::obtainPassthroughLock() {
  if (passthrough().value_or("").empty()) return true;
  NSErrorRef error;
  if (obtainLockForPassthroughWithFileSystem(*fileSystemObject(), iMountPoint, &error)) return true;
  failStart(error);
  return false;
}

void OFSController::composeOptions() {
  const std::shared_ptr<const KCCredentials> login = credentials();
  const std::optional<std::string> identifier = passthrough();
  iOptions.clear();
  if (KCDebugLoggingIsEnabled()) iOptions.emplace_back("debug");
  const std::string source =
      identifier ? *identifier : fmt::format("{}@{}", login->username().value_or(""), login->address());
  iOptions.push_back(fmt::format("fsname={}/{}#{}", "OmbraFS", nameOfProtocol(login->protocol()), source));
  iOptions.push_back(fmt::format("volname={}", volumeName().value_or("")));
  // "native_xattr" comes twice: so does the framework expect it.
  for (const char* option :
       {"native_xattr", "cloudfs", "native_xattr", "jail_symlinks", "netfs", "allow_root"}) {
    iOptions.emplace_back(option);
  }
  addRedirectOptions();
  if (iIconPath) iOptions.push_back(fmt::format("redirect_volicon={}", *iIconPath));
}

void OFSController::addRedirectOptions() {
  const std::optional<std::string> identifier = passthrough();
  const std::string cacheIdentifier = identifier ? *identifier : KCUUID::UUID().stringValue();
  const auto caches = NSFileManager::kc_applicationSupportSubFolder("OmbraDiskCache");
  if (!caches) return;
  const std::string path = stringByAppendingPathComponent(*caches, cacheIdentifier);
  iOptions.emplace_back("modules=redirect");
  iOptions.emplace_back("redirect_sha1");
  iOptions.push_back(fmt::format("redirect_folder={}", path));
  if (!identifier) iRedirectCache = std::make_unique<OFSRedirectCache>(path);
  const MutexLock lock(iLock);
  iRedirectCachesPath = path;
}

bool OFSController::preflightFileSystem() {
  NSErrorRef error;
  if (fileSystemObject()->preflight(&error)) return true;
  if (error != nullptr) NSLog("The server cannot be used: {}", error->description());
  failStart(error);
  return false;
}

void OFSController::failStart(const NSErrorRef& error) {
  mountFailed(
      {"OFSMountFailed", registeredName(),
       NSDictionary::dictionaryWithObjectsAndKeys({{"mountPath", iMountPoint},
                                                   {"volumeName", volumeName()},
                                                   {std::string(kGMUserFileSystemErrorKey), present(error)},
                                                   {"address", address()}})});
}

void OFSController::requestMount() {
  iEnvironment.willRequestMount();
  {
    const MutexLock lock(iLock);
    if (iState != State::kStarting) return;  // asked to end just now, on another thread
    iState = State::kMounting;
  }
  fileSystem()->mountAtPath(iMountPoint, iOptions, true, true);
}

}  // namespace ombra
