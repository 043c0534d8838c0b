#include "platform/foundation/NSUserNotification.h"

#include <cstring>

#include "platform/foundation/BusConnection.h"
#include "platform/foundation/BusMessage.h"

namespace ombra {
namespace {

constexpr const char* kService = "org.freedesktop.Notifications";
constexpr const char* kPath = "/org/freedesktop/Notifications";
constexpr const char* kApplication = "Ombra";
constexpr int32_t kUsualTime = -1;  // as long as the desktop usually shows one

// Whether the service reads the text as markup: then it must not find any.
bool readsMarkup(sd_bus* bus) {
  sd_bus_message* raw = nullptr;
  const int result = sd_bus_call_method(bus, kService, kPath, kService, "GetCapabilities", nullptr, &raw, "");
  const BusMessageRef reply(raw);
  if (result < 0 || sd_bus_message_enter_container(reply.get(), 'a', "s") < 0) return false;
  for (const char* name = nullptr; sd_bus_message_read(reply.get(), "s", &name) > 0;) {
    if (std::strcmp(name, "body-markup") == 0) return true;
  }
  return false;
}

std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '&') {
      result += "&amp;";
    } else if (c == '<') {
      result += "&lt;";
    } else if (c == '>') {
      result += "&gt;";
    } else {
      result += c;
    }
  }
  return result;
}

int notify(sd_bus* bus, const NSUserNotification& notification, sd_bus_error* error) {
  const std::string body =
      readsMarkup(bus) ? escaped(notification.informativeText) : notification.informativeText;
  return sd_bus_call_method(bus, kService, kPath, kService, "Notify", error, nullptr, "susssasa{sv}i",
                            kApplication, 0U, notification.iconName.c_str(), notification.title.c_str(),
                            body.c_str(), 0U, 0U, kUsualTime);
}

}  // namespace

bool NSUserNotificationCenter::deliver(const NSUserNotification& notification, std::string* reason) {
  int result = 0;
  const BusRef bus = openSessionBus(&result);
  sd_bus_error error{};
  if (bus != nullptr) result = notify(bus.get(), notification, &error);
  if (result < 0) *reason = error.message != nullptr ? error.message : std::strerror(-result);
  sd_bus_error_free(&error);
  return result >= 0;
}

}  // namespace ombra
