// A session bus of the test's own, and a client on it.
#pragma once

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/fshelper/controller/ControllerTestSupport.h"

struct sd_bus;
struct sd_bus_message;

namespace ombra {

// A dbus-daemon in a folder of its own, for its lifetime.
class PrivateBus {
 public:
  PrivateBus();
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  const std::string& address() const { return iAddress; }

 private:
  TestFolder iFolder;
  std::string iAddress;
  pid_t iDaemon = -1;
};

// A notification as it went over the bus, with the keys in the order of the message.
struct BusNotification {
  std::string name;
  std::optional<std::string> object;
  std::vector<std::string> keys;
  NSDictionary userInfo;
};

// Listens for notifications and calls helpers. On one thread.
class BusClient {
 public:
  explicit BusClient(const PrivateBus& bus);
  ~BusClient();
  BusClient(const BusClient&) = delete;
  BusClient& operator=(const BusClient&) = delete;

  // Waits for the next notification, whatever its name; fails the test after 60 seconds.
  BusNotification next();
  // True when a notification has come that nobody has taken.
  bool hasMore();
  bool hasOwner(const std::string& name);
  // Helper1.Status, absent with the error's name in `error` when the call fails.
  std::optional<std::string> status(const std::string& helper, std::string* error = nullptr);
  bool unmount(const std::string& helper, bool force);
  // Posts as the front end does: one text array under "paths".
  void postInvalidation(const std::vector<std::string>& paths);
  sd_bus* bus() { return iBus; }

 private:
  static int receive(sd_bus_message* message, void* client, void* error);
  sd_bus* iBus = nullptr;
  std::vector<BusNotification> iReceived;
};

}  // namespace ombra
