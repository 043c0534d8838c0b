#include <fmt/format.h>

#include <cstring>
#include <string>

#include "platform/foundation/BusConnection.h"
#include "platform/foundation/BusMessage.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/RunLoop.h"

namespace ombra {

void BusListener::addObserver(const void* observer, std::string_view name, NotificationHandler handler) {
  iObservers.addObserver(observer, name, std::move(handler));
  openIfNeeded();
}

void BusListener::removeObserver(const void* observer) { iObservers.removeObserver(observer); }

void BusListener::openIfNeeded() {
  MutexLock lock(iLock);
  if (iBus != nullptr) return;
  int result = 0;
  iBus = openSessionBus(&result);
  if (iBus != nullptr) result = subscribe(iBus.get());
  if (result < 0) {
    NSLog(
        "other programs cannot be heard: the session bus is not available ({}). Is DBUS_SESSION_BUS_ADDRESS "
        "set?",
        std::strerror(-result));
    iBus.reset();
    return;
  }
  // From here on the connection belongs to the loop's thread. It holds what arrives until then.
  const std::shared_ptr<sd_bus> shared(sd_bus_ref(iBus.get()), sd_bus_unref);
  RunLoop::mainRunLoop().perform([shared] {
    sd_bus_attach_event(shared.get(), RunLoop::mainRunLoop().event(), SD_EVENT_PRIORITY_NORMAL);
  });
}

// Waits for the bus to take the subscription, so that nothing is missed that is posted after the return.
int BusListener::subscribe(sd_bus* bus) {
  const std::string match = fmt::format("type='signal',path='{}',interface='{}',member='{}'",
                                        kNotificationPath, kNotificationInterface, kNotificationMember);
  const int result = sd_bus_add_match(
      bus, nullptr, match.c_str(),
      [](sd_bus_message* message, void* listener, sd_bus_error*) {
        const std::optional<NSNotification> notification = notificationOfMessage(message);
        if (notification) static_cast<BusListener*>(listener)->iObservers.postNotification(*notification);
        return 0;
      },
      this);
  if (result < 0) return result;
  // The library's own signal to itself; it never reaches the bus.
  return sd_bus_match_signal(
      bus, nullptr, nullptr, "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local", "Disconnected",
      [](sd_bus_message*, void* listener, sd_bus_error*) {
        static_cast<BusListener*>(listener)->didDisconnect();
        return 0;
      },
      this);
}

void BusListener::didDisconnect() {
  NSLog("the session bus has gone; other programs cannot be heard any more");
  // Not here: the connection is in the middle of telling.
  RunLoop::mainRunLoop().perform([this] {
    MutexLock lock(iLock);
    iBus.reset();
  });
}

}  // namespace ombra
