// A message bus of a desktop session, and somebody on it who keeps secrets.
#pragma once

#include <systemd/sd-bus.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "frontend/UniqueFd.h"
#include "tests/support/ServerProcess.h"
#include "tests/support/TemporaryFolder.h"

namespace ombra {

// A bus on which nobody is started by a message.
class DesktopBus {
 public:
  DesktopBus();
  std::string address() const { return "unix:path=" + (iFolder / "bus"); }
  // As an entry of an environment.
  std::string variable() const { return "DBUS_SESSION_BUS_ADDRESS=" + address(); }

 private:
  TemporaryFolder iFolder;
  ServerProcess iDaemon;
};

// Speaks as much of the Secret Service protocol as a client's library needs, on a thread of its own.
class FakeKeyring {
 public:
  struct Secret {
    std::map<std::string, std::string> attributes;
    std::string label;
    std::string value;
  };
  struct Behaviour {
    bool locked = false;   // all of it
    bool refuses = false;  // the person who is asked to unlock it dismisses the question
    bool silent = false;   // takes calls and answers none
  };

  FakeKeyring(const DesktopBus& bus, Behaviour behaviour);
  explicit FakeKeyring(const DesktopBus& bus) : FakeKeyring(bus, Behaviour{}) {}
  ~FakeKeyring();
  FakeKeyring(const FakeKeyring&) = delete;
  FakeKeyring& operator=(const FakeKeyring&) = delete;

  void add(Secret secret);
  // What is kept now.
  std::vector<Secret> secrets() const;
  // How often a secret was handed out.
  int handedOut() const;

 private:
  friend struct FakeKeyringMethods;
  void serve();
  void publish();

  sd_bus* iBus = nullptr;
  UniqueFd iStop;
  std::thread iThread;
  mutable std::mutex iLock;
  Behaviour iBehaviour;
  std::map<std::string, Secret> iSecrets;  // by object path
  std::vector<std::string> iWaiting;       // objects that a person is asked about
  int iNext = 1;
  int iHandedOut = 0;
};

}  // namespace ombra
