// A desktop's notification service.
#pragma once

#include <future>
#include <string>
#include <thread>
#include <vector>

#include "platform/foundation/NSCondition.h"
#include "tests/fshelper/controller/PrivateBus.h"

namespace ombra {

struct ShownNotification {
  std::string application;
  std::string icon;
  std::string title;
  std::string body;
};

// Owns the service's name on a bus and keeps what it is given, on a thread of its own that ends with the
// object.
class NotificationService {
 public:
  // `capabilities`: what it claims to be able to do.
  NotificationService(const PrivateBus& bus, std::vector<std::string> capabilities);
  ~NotificationService();
  NotificationService(const NotificationService&) = delete;
  NotificationService& operator=(const NotificationService&) = delete;

  // Waits until so many have come; all of them then. Fails the test after 60 seconds.
  std::vector<ShownNotification> shown(size_t count) EXCLUDES(iCondition);

  // For the bus's calls.
  const std::vector<std::string>& capabilities() const { return iCapabilities; }
  void show(ShownNotification notification) EXCLUDES(iCondition);

 private:
  void run();

  const std::string iAddress;
  const std::vector<std::string> iCapabilities;
  std::promise<bool> iReady;
  int iStop = -1;
  NSCondition iCondition;
  std::vector<ShownNotification> iShown GUARDED_BY(iCondition);
  std::thread iThread;
};

}  // namespace ombra
