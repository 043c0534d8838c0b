// Connections to the user's session bus. For this folder's own sources.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NSNotificationCenter.h"

namespace ombra {

struct BusDeleter {
  void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
};
using BusRef = std::unique_ptr<sd_bus, BusDeleter>;

// A connection that has logged in; its calls take 5 seconds at most, and so does this. Null, with a negative
// errno in `result`, without a bus.
BusRef openSessionBus(int* result);

// The posting side: a connection and a lock of its own, so that it works from any thread, whether or not an
// event loop runs, and while the process is about to end.
class BusPoster {
 public:
  // True when the bus has taken the signal. Without a bus one log line, and again after the next success.
  bool post(const NSNotification& notification) EXCLUDES(iLock);

 private:
  int send(const NSNotification& notification) REQUIRES(iLock);
  int confirm() REQUIRES(iLock);

  Mutex iLock;
  BusRef iBus GUARDED_BY(iLock);
  bool iToldOfFailure GUARDED_BY(iLock) = false;
};

// The receiving side: a second connection, opened for the first observer and attached to the main event loop.
class BusListener {
 public:
  // From the return on, each signal of that name reaches `handler` once the loop runs.
  void addObserver(const void* observer, std::string_view name, NotificationHandler handler) EXCLUDES(iLock);
  void removeObserver(const void* observer);

 private:
  void openIfNeeded() EXCLUDES(iLock);
  int subscribe(sd_bus* bus);
  void didDisconnect() EXCLUDES(iLock);

  // Who listens; delivers on the thread of the event loop.
  NSNotificationCenter iObservers;
  // Held while the connection is opened, so that it is opened once. After that only the loop's thread uses
  // it.
  Mutex iLock;
  BusRef iBus GUARDED_BY(iLock);
};

}  // namespace ombra
