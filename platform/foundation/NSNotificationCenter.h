// Notifications within the process, and between processes of the user.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSDictionary.h"

namespace ombra {

struct NSNotification {
  std::string name;
  std::optional<std::string> object;     // who it is about; the helper's registration name between processes
  std::optional<NSDictionary> userInfo;  // absent when the poster gave none
};

using NotificationHandler = std::function<void(const NSNotification&)>;

// Within the process: handlers run on the posting thread, in the order of registration. Thread-safe; a
// handler may post, add and remove.
class NSNotificationCenter {
 public:
  static NSNotificationCenter& defaultCenter();

  // Calls `handler` for each notification of that name until `removeObserver(observer)`. `observer` is an
  // identity only and is never dereferenced.
  void addObserver(const void* observer, std::string_view name, NotificationHandler handler) EXCLUDES(iLock);
  // Forgets all handlers of `observer`. One that is running on another thread may still finish.
  void removeObserver(const void* observer) EXCLUDES(iLock);
  void postNotification(const NSNotification& notification) EXCLUDES(iLock);

 private:
  struct Registration {
    const void* observer;
    std::string name;
    NotificationHandler handler;
  };
  Mutex iLock;
  std::vector<std::shared_ptr<const Registration>> iRegistrations GUARDED_BY(iLock);
};

// Between the user's processes: signals on the D-Bus session bus, object path "/org/ombrafs/Notifications",
// interface "org.ombrafs.DistributedNotification", signal "Posted" with signature "ssbba{sv}": name, object,
// whether an object is present, whether a user info is present, user info (values of type s, as, ay).
// Posting uses a connection with a lock of its own and is flushed before it returns, from any thread, also
// while the process ends. Without a session bus posting logs once that nobody can be told and answers false.
class NSDistributedNotificationCenter {
 public:
  virtual ~NSDistributedNotificationCenter() = default;

  // The centre of this process. A test may put its own in its place with setDefaultCenter (nullptr: the bus
  // again).
  static NSDistributedNotificationCenter& defaultCenter();
  static void setDefaultCenter(NSDistributedNotificationCenter* center);

  // True when the signal has left the process.
  virtual bool postNotificationName(std::string_view name, std::optional<std::string> object,
                                    std::optional<NSDictionary> userInfo) = 0;
  // Calls `handler` on the event loop's thread for each notification of that name (any object).
  virtual void addObserver(const void* observer, std::string_view name, NotificationHandler handler) = 0;
  virtual void removeObserver(const void* observer) = 0;
};

}  // namespace ombra
