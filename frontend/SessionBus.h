// The message bus on which helpers and front ends of a user meet.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "frontend/Failure.h"

namespace ombra {

// The bus of the desktop session, when there is one; else a private one of the user at a fixed place, so that
// the command's work never depends on a desktop.
class SessionBus {
 public:
  // Makes sure that this process and its children have a bus that answers: the session's, else the private
  // one, started when it does not run. Sets DBUS_SESSION_BUS_ADDRESS accordingly. False with the failure
  // filled.
  static bool ensure(Failure* failure);
  // The buses that helpers may be found on: the session's and the private one, as far as they answer. Starts
  // nothing.
  static std::vector<std::string> answeringAddresses();
  // The bus of the desktop session where it answers, else empty: on the private one there is no desktop.
  static std::string desktopAddress();

  // The address of the private bus; empty when the user has no temporary folder.
  static std::string privateAddress();
  // "unix:path=" with the path escaped as bus addresses ask for.
  static std::string addressForPath(std::string_view path);
};

}  // namespace ombra
