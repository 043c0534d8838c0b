#include "tests/fshelper/controller/NotificationService.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace ombra {
namespace {

constexpr const char* kServiceName = "org.freedesktop.Notifications";
constexpr const char* kObject = "/org/freedesktop/Notifications";

int tellCapabilities(sd_bus_message* call, void* service, sd_bus_error*) {
  sd_bus_message* reply = nullptr;
  sd_bus_message_new_method_return(call, &reply);
  sd_bus_message_open_container(reply, 'a', "s");
  for (const std::string& name : static_cast<NotificationService*>(service)->capabilities())
    sd_bus_message_append(reply, "s", name.c_str());
  sd_bus_message_close_container(reply);
  const int sent = sd_bus_send(nullptr, reply, nullptr);
  sd_bus_message_unref(reply);
  return sent;
}

int takeNotification(sd_bus_message* call, void* service, sd_bus_error*) {
  const char* application = "";
  uint32_t replaced = 0;
  const char* icon = "";
  const char* title = "";
  const char* body = "";
  sd_bus_message_read(call, "susss", &application, &replaced, &icon, &title, &body);
  static_cast<NotificationService*>(service)->show({application, icon, title, body});
  return sd_bus_reply_method_return(call, "u", 1U);
}

const sd_bus_vtable kService[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetCapabilities", "", "as", tellCapabilities, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", takeNotification, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

}  // namespace

NotificationService::NotificationService(const PrivateBus& bus, std::vector<std::string> capabilities)
    : iAddress(bus.address()),
      iCapabilities(std::move(capabilities)),
      iStop(::eventfd(0, EFD_CLOEXEC)),
      iThread([this] { run(); }) {
  EXPECT_TRUE(iReady.get_future().get()) << "the service's name cannot be had";
}

NotificationService::~NotificationService() {
  ::eventfd_write(iStop, 1);
  iThread.join();
  ::close(iStop);
}

void NotificationService::run() {
  sd_bus* bus = nullptr;
  sd_bus_new(&bus);
  sd_bus_set_address(bus, iAddress.c_str());
  sd_bus_set_bus_client(bus, 1);
  const bool ready = sd_bus_start(bus) >= 0 &&
                     sd_bus_add_object_vtable(bus, nullptr, kObject, kServiceName, kService, this) >= 0 &&
                     sd_bus_request_name(bus, kServiceName, 0) >= 0;
  iReady.set_value(ready);
  pollfd waiting[2]{{sd_bus_get_fd(bus), 0, 0}, {iStop, POLLIN, 0}};
  while (waiting[1].revents == 0) {
    while (sd_bus_process(bus, nullptr) > 0) {
    }
    waiting[0].events = static_cast<short>(sd_bus_get_events(bus));
    ::poll(waiting, 2, -1);
  }
  sd_bus_flush_close_unref(bus);
}

void NotificationService::show(ShownNotification notification) {
  const ConditionLock lock(iCondition);
  iShown.push_back(std::move(notification));
  iCondition.broadcast();
}

std::vector<ShownNotification> NotificationService::shown(size_t count) {
  const ConditionLock lock(iCondition);
  const NSDate limit = NSDate::dateWithTimeIntervalSinceNow(60);
  while (iShown.size() < count && iCondition.waitUntilDate(limit)) {
  }
  EXPECT_EQ(iShown.size(), count);
  return iShown;
}

}  // namespace ombra
