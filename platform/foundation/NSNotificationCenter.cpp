#include "platform/foundation/NSNotificationCenter.h"

#include <algorithm>

#include "platform/foundation/NeverDestroyed.h"

namespace ombra {

NSNotificationCenter& NSNotificationCenter::defaultCenter() {
  static NeverDestroyed<NSNotificationCenter> sCenter;
  return *sCenter;
}

void NSNotificationCenter::addObserver(const void* observer, std::string_view name,
                                       NotificationHandler handler) {
  auto registration =
      std::make_shared<const Registration>(Registration{observer, std::string(name), std::move(handler)});
  MutexLock lock(iLock);
  iRegistrations.push_back(std::move(registration));
}

void NSNotificationCenter::removeObserver(const void* observer) {
  MutexLock lock(iLock);
  std::erase_if(iRegistrations,
                [observer](const auto& registration) { return registration->observer == observer; });
}

void NSNotificationCenter::postNotification(const NSNotification& notification) {
  std::vector<std::shared_ptr<const Registration>> present;
  {
    MutexLock lock(iLock);
    present = iRegistrations;
  }
  for (const auto& registration : present) {
    if (registration->name != notification.name) continue;
    {
      // An earlier handler of this very notification may have taken it away.
      MutexLock lock(iLock);
      if (std::find(iRegistrations.begin(), iRegistrations.end(), registration) == iRegistrations.end())
        continue;
    }
    registration->handler(notification);
  }
}

}  // namespace ombra
