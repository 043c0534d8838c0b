// Notifications as bus messages, and back. For this folder's own sources.
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <optional>

#include "platform/foundation/NSNotificationCenter.h"

namespace ombra {

inline constexpr char kNotificationPath[] = "/org/ombrafs/Notifications";
inline constexpr char kNotificationInterface[] = "org.ombrafs.DistributedNotification";
inline constexpr char kNotificationMember[] = "Posted";

struct BusMessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using BusMessageRef = std::unique_ptr<sd_bus_message, BusMessageDeleter>;

// The signal for `notification`. Texts travel as valid UTF-8: other bytes, and NUL, become U+FFFD. Of the
// user info, texts, arrays of texts and data travel; a value of another type is left out with a log line.
// Null, with a negative errno in `result`, when the bus library refuses it.
BusMessageRef messageForNotification(sd_bus* bus, const NSNotification& notification, int* result);

// The notification that a signal carries; absent when it is not one. Values of unknown types are left out.
std::optional<NSNotification> notificationOfMessage(sd_bus_message* message);

}  // namespace ombra
