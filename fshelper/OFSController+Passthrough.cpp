// One mount per pass-through identifier.
#include "fshelper/OFSController.h"
#include "fshelper/OFSTracing.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

constexpr int kLocked = 1;
constexpr int kLockError = -1;

}  // namespace

bool OFSController::obtainLockForPassthroughWithFileSystem(OmbraFileSystem& object,
                                                           const std::string& mountPoint, NSErrorRef* error) {
  static_cast<void>(mountPoint);
  const std::string identifier = passthrough().value_or("");
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  const std::string lockPath =
      stringByAppendingPathComponent(folder, fmt::format("{}.{}.pid", "OmbraFS", identifier));
  OFS_TRACE_MESSAGE("lockPath={}", lockPath);
  // Without a folder of the user's own, a lock would be taken wherever the process happens to be.
  const int result = folder.empty() ? kLockError : iEnvironment.lockFile(lockPath);
  if (result == kLocked) return true;
  OFS_TRACE_MESSAGE("could not obtain lock for {}", identifier);
  if (result == kLockError) {
    const NSErrorRef failure = QuarnKitError::errorWithDomain(kQuarnKitErrorDomain, kQuarnKitLockFailed);
    OFS_REPORT_ERROR(failure);
    storeError(error, failure);
    return false;
  }
  if (!object.preflight(error)) return false;
  // A signal may have ended the start meanwhile, and has told of that then.
  if (!beginEnding()) return false;
  // The mount of the other helper stays as it is, and so does everything that belongs to it.
  post("OFSAlreadyMounted", NSDictionary::dictionaryWithObjectsAndKeys(
                                {{"rootPath", object.initialPath()}, {"passthrough", passthrough()}}));
  iEnvironment.exit(0);
  return false;
}

}  // namespace ombra
