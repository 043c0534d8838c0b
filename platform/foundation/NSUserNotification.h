// Messages to the person at the desktop.
#pragma once

#include <string>

namespace ombra {

// What is shown. Both are plain text in UTF-8.
struct NSUserNotification {
  std::string title;
  std::string informativeText;
  // Of the desktop's icon theme; empty for none.
  std::string iconName;
};

class NSUserNotificationCenter {
 public:
  // Hands it to the notification service of the session bus. True when that has taken it; else `reason` says
  // why not, which on a machine without a desktop is no fault. Any thread; takes some seconds at most.
  static bool deliver(const NSUserNotification& notification, std::string* reason);
};

}  // namespace ombra
