#include <cstring>

#include "platform/foundation/BusConnection.h"
#include "platform/foundation/BusMessage.h"
#include "platform/foundation/NSLog.h"

namespace ombra {

bool BusPoster::post(const NSNotification& notification) {
  MutexLock lock(iLock);
  const bool hadConnection = iBus != nullptr;
  int result = send(notification);
  // A bus that was restarted since the last post leaves a dead connection behind: ask the new one.
  if (result < 0 && hadConnection) result = send(notification);
  if (result < 0 && !iToldOfFailure) {
    NSLog(
        "no other program can be told of \"{}\": the session bus is not available ({}). Is "
        "DBUS_SESSION_BUS_ADDRESS set?",
        notification.name, std::strerror(-result));
  }
  iToldOfFailure = result < 0;
  return result >= 0;
}

int BusPoster::send(const NSNotification& notification) {
  int result = 0;
  if (iBus == nullptr) iBus = openSessionBus(&result);
  if (iBus == nullptr) return result;
  const BusMessageRef message = messageForNotification(iBus.get(), notification, &result);
  if (message != nullptr) result = sd_bus_send(iBus.get(), message.get(), nullptr);
  if (result >= 0) result = confirm();
  if (result < 0) iBus.reset();
  return result;
}

// The bus handles a connection's messages in order: once this call is answered, the signal is on its way to
// everyone who listens, whatever happens to this process.
int BusPoster::confirm() {
  const int result = sd_bus_call_method(iBus.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                        "org.freedesktop.DBus", "GetId", nullptr, nullptr, nullptr);
  if (result < 0) return result;
  // Nobody else takes what arrived meanwhile (the announcement of this connection's name).
  while (sd_bus_process(iBus.get(), nullptr) > 0) {
  }
  return 0;
}

}  // namespace ombra
