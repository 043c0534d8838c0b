#include "fshelper/DrelFSInstaller.h"

#include "fshelper/DrelFSInstallerBundle/BundlePaths.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSProcessInfo.h"
#include "remote/KCAuthorizationManager.h"

namespace ombra {
namespace {

constexpr std::string_view kOwner = "root";
constexpr std::string_view kGroup = "wheel";
constexpr unsigned kSetUserID = 04000;
constexpr unsigned kWritableByOthers = 022;

// What is missing cannot be repaired, and nobody is to be asked for a password for it.
bool isThere(const std::string& path, NSErrorRef* error) {
  if (NSFileManager::attributesOfItemAtPath(path, nullptr)) return true;
  NSDictionary userInfo;
  userInfo.setObject("A part of the program is missing: " + path, NSLocalizedDescriptionKey);
  userInfo.setObject("Install the program again.", NSLocalizedRecoverySuggestionErrorKey);
  storeError(error, NSError::errorWithDomain(NSPOSIXErrorDomain, kENOENT, std::move(userInfo)));
  return false;
}

// Rights are not to be granted to what others than root may have written.
bool isRootsOwn(const std::string& program) {
  const auto attributes = NSFileManager::attributesOfItemAtPath(program, nullptr);
  return attributes && attributes->ownerAccountName == kOwner &&
         (attributes->posixPermissions & kWritableByOthers) == 0;
}

}  // namespace

DrelFSBundle DrelFSBundle::bundleInFolder(const std::string& folder) {
  return {stringByAppendingPathComponent(folder, kDrelFSExtension),
          stringByAppendingPathComponent(folder, kDrelFSLoader),
          stringByAppendingPathComponent(folder, kDrelFSRepair)};
}

DrelFSBundle DrelFSBundle::mainBundle() {
  return bundleInFolder(stringByDeletingLastPathComponent(NSProcessInfo::executablePath()));
}

bool DrelFSInstaller::shouldFixDrelFSPermissions(const DrelFSBundle& bundle) {
  // An item without attributes has no owner, and so not the right one.
  const auto extension = NSFileManager::attributesOfItemAtPath(bundle.extension, nullptr);
  const auto loader = NSFileManager::attributesOfItemAtPath(bundle.loader, nullptr);
  if (!extension || extension->ownerAccountName != kOwner) return true;
  if (extension->groupOwnerAccountName != kGroup) return true;
  if (!loader || loader->ownerAccountName != kOwner) return true;
  if (loader->groupOwnerAccountName != kGroup) return true;
  return (loader->posixPermissions & kSetUserID) == 0;
}

bool DrelFSInstaller::fixDrelFSPermissions(NSErrorRef* error) {
  return fixDrelFSPermissions(DrelFSBundle::mainBundle(), KCAuthorizationManager::sharedInstance(), error);
}

bool DrelFSInstaller::fixDrelFSPermissions(const DrelFSBundle& bundle, KCAuthorizationManager& authorization,
                                           NSErrorRef* error) {
  if (isRootsOwn(bundle.repair)) authorization.setStepProgram(bundle.repair);
  // The loader gets its set-user-ID bit last: a change of the owner would take it away again.
  return isThere(bundle.extension, error) &&
         authorization.chownWithPrivilegesItemAtPath(bundle.extension, kOwner, kGroup, true, error) &&
         authorization.chmodWithPrivilegesItemAtPath(bundle.extension, "go-w", true, error) &&
         isThere(bundle.loader, error) &&
         authorization.chownWithPrivilegesItemAtPath(bundle.loader, kOwner, kGroup, true, error) &&
         authorization.chmodWithPrivilegesItemAtPath(bundle.loader, "u+s", false, error);
}

void DrelFSInstaller::loadDrelFSIfNeeded(const DrelFSBundle& bundle) {
  if (NSFileManager::fileExistsAtPath("/dev/fuse")) return;
  std::string output;
  const int status = KCAuthorizationManager::runCommand({bundle.loader}, &output);
  if (status != 0)
    NSLog("The kernel's fuse module could not be loaded: {} ended with status {}: {}", bundle.loader, status,
          output);
}

}  // namespace ombra
