#include "fshelper/SUUpdateSchedule.h"

#include <fcntl.h>
#include <sys/file.h>

#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileHandle.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/NSUserDefaults.h"

namespace ombra {
namespace {

constexpr std::string_view kLastLookKey = "SULastCheckTime";
constexpr double kDay = 24 * 60 * 60;

}  // namespace

// The lock goes with its owner, so that a helper that dies in the middle of a look leaves nothing behind.
std::unique_ptr<NSFileHandle> SUUpdateSchedule::claim() {
  const std::string path = stringByAppendingPathComponent(NSFileManager::kc_chewableItemsFolderCreate(true),
                                                          "SoftwareUpdate.lock");
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600);
  if (descriptor < 0) return nullptr;
  auto claim = std::make_unique<NSFileHandle>(descriptor);
  if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) return nullptr;
  // Another helper may have looked since the settings were read.
  NSUserDefaults::standardUserDefaults().reload();
  if (!isDue()) return nullptr;
  noteLook();
  return claim;
}

// A last look in the future was made while the clock was wrong.
bool SUUpdateSchedule::isDue() const {
  const auto value = NSUserDefaults::standardUserDefaults().objectForKey(kLastLookKey);
  const NSDate* kept = value ? value->asDate() : nullptr;
  for (const NSDate last : {kept == nullptr ? NSDate() : *kept, iLastLook}) {
    const double passed = NSDate::date().timeIntervalSinceDate(last);
    if (passed >= 0 && passed < kDay) return false;
  }
  return true;
}

void SUUpdateSchedule::noteLook() {
  iLastLook = NSDate::date();
  NSErrorRef error;
  if (NSUserDefaults::standardUserDefaults().setObject(iLastLook, kLastLookKey, &error)) return;
  NSLog("When updates were looked for cannot be kept: {}", error == nullptr ? "" : error->description());
}

}  // namespace ombra
