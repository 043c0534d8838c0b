#include "tests/frontend/FakeKeyring.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>

#include "tests/frontend/Surroundings.h"

namespace ombra {

namespace {

constexpr const char* kService = "/org/freedesktop/secrets";
constexpr const char* kCollection = "/org/freedesktop/secrets/collection/test";
constexpr const char* kItems = "/org/freedesktop/secrets/collection/test/items";
constexpr const char* kAlias = "/org/freedesktop/secrets/aliases/default";
constexpr const char* kSession = "/org/freedesktop/secrets/session/one";
constexpr const char* kPrompt = "/org/freedesktop/secrets/prompt/one";
constexpr const char* kNothing = "/";

using Attributes = std::map<std::string, std::string>;

Attributes readAttributes(sd_bus_message* message) {
  Attributes result;
  sd_bus_message_enter_container(message, 'a', "{ss}");
  const char* name = nullptr;
  const char* value = nullptr;
  while (sd_bus_message_enter_container(message, 'e', "ss") > 0) {
    if (sd_bus_message_read(message, "ss", &name, &value) >= 0) result[name] = value;
    sd_bus_message_exit_container(message);
  }
  sd_bus_message_exit_container(message);
  return result;
}

std::vector<std::string> readPaths(sd_bus_message* message) {
  std::vector<std::string> result;
  sd_bus_message_enter_container(message, 'a', "o");
  const char* path = nullptr;
  while (sd_bus_message_read(message, "o", &path) > 0) result.emplace_back(path);
  sd_bus_message_exit_container(message);
  return result;
}

void appendPaths(sd_bus_message* message, const std::vector<std::string>& paths) {
  sd_bus_message_open_container(message, 'a', "o");
  for (const std::string& path : paths) sd_bus_message_append(message, "o", path.c_str());
  sd_bus_message_close_container(message);
}

// (session, parameters, value, content type)
void appendSecret(sd_bus_message* message, const std::string& value) {
  sd_bus_message_open_container(message, 'r', "oayays");
  sd_bus_message_append(message, "o", kSession);
  sd_bus_message_append_array(message, 'y', nullptr, 0);
  sd_bus_message_append_array(message, 'y', value.data(), value.size());
  sd_bus_message_append(message, "s", "text/plain");
  sd_bus_message_close_container(message);
}

class Reply {
 public:
  explicit Reply(sd_bus_message* call) { sd_bus_message_new_method_return(call, &iMessage); }
  ~Reply() { sd_bus_message_unref(iMessage); }
  Reply(const Reply&) = delete;
  Reply& operator=(const Reply&) = delete;
  operator sd_bus_message*() const { return iMessage; }
  int send() const { return sd_bus_send(nullptr, iMessage, nullptr); }

 private:
  sd_bus_message* iMessage = nullptr;
};

}  // namespace

// The protocol's methods; `self` is the keyring.
struct FakeKeyringMethods {
  static FakeKeyring& keyring(void* self) { return *static_cast<FakeKeyring*>(self); }

  static int openSession(sd_bus_message* call, void*, sd_bus_error* error) {
    const char* algorithm = nullptr;
    sd_bus_message_read(call, "s", &algorithm);
    // The client falls back to it from its own encryption.
    if (std::string(algorithm) != "plain")
      return sd_bus_error_set(error, "org.freedesktop.DBus.Error.NotSupported", "Only plain");
    return sd_bus_reply_method_return(call, "vo", "s", "", kSession);
  }

  static int searchItems(sd_bus_message* call, void* self, sd_bus_error*) {
    const Attributes wanted = readAttributes(call);
    FakeKeyring& target = keyring(self);
    const std::lock_guard guard(target.iLock);
    std::vector<std::string> found;
    for (const auto& [path, secret] : target.iSecrets) {
      const Attributes& has = secret.attributes;
      if (std::includes(has.begin(), has.end(), wanted.begin(), wanted.end())) found.push_back(path);
    }
    const Reply reply(call);
    appendPaths(reply, target.iBehaviour.locked ? std::vector<std::string>() : found);
    appendPaths(reply, target.iBehaviour.locked ? found : std::vector<std::string>());
    return reply.send();
  }

  static int unlock(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const std::vector<std::string> objects = readPaths(call);
    const std::lock_guard guard(target.iLock);
    const Reply reply(call);
    if (target.iBehaviour.locked) target.iWaiting = objects;
    appendPaths(reply, target.iBehaviour.locked ? std::vector<std::string>() : objects);
    sd_bus_message_append(reply, "o", target.iBehaviour.locked ? kPrompt : kNothing);
    return reply.send();
  }

  static int prompt(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const int result = sd_bus_reply_method_return(call, "");
    const std::lock_guard guard(target.iLock);
    const bool dismissed = target.iBehaviour.refuses;
    if (!dismissed) target.iBehaviour.locked = false;
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(target.iBus, &signal, kPrompt, "org.freedesktop.Secret.Prompt", "Completed");
    sd_bus_message_append(signal, "b", dismissed ? 1 : 0);
    sd_bus_message_open_container(signal, 'v', "ao");
    appendPaths(signal, dismissed ? std::vector<std::string>() : target.iWaiting);
    sd_bus_message_close_container(signal);
    sd_bus_send(target.iBus, signal, nullptr);
    sd_bus_message_unref(signal);
    return result;
  }

  static int dismiss(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "");
  }

  static int readAlias(sd_bus_message* call, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(call, "o", kCollection);
  }

  static int getSecrets(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const std::vector<std::string> paths = readPaths(call);
    const std::lock_guard guard(target.iLock);
    const Reply reply(call);
    sd_bus_message_open_container(reply, 'a', "{o(oayays)}");
    for (const std::string& path : paths) {
      sd_bus_message_open_container(reply, 'e', "o(oayays)");
      sd_bus_message_append(reply, "o", path.c_str());
      appendSecret(reply, target.iSecrets[path].value);
      sd_bus_message_close_container(reply);
    }
    sd_bus_message_close_container(reply);
    ++target.iHandedOut;
    return reply.send();
  }

  static int getSecret(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const std::lock_guard guard(target.iLock);
    const Reply reply(call);
    appendSecret(reply, target.iSecrets[sd_bus_message_get_path(call)].value);
    ++target.iHandedOut;
    return reply.send();
  }

  // {label, attributes}, as properties of an item.
  static void readProperties(sd_bus_message* call, FakeKeyring::Secret* secret) {
    sd_bus_message_enter_container(call, 'a', "{sv}");
    while (sd_bus_message_enter_container(call, 'e', "sv") > 0) {
      const char* name = nullptr;
      sd_bus_message_read(call, "s", &name);
      const std::string property = name;
      if (property == "org.freedesktop.Secret.Item.Attributes") {
        sd_bus_message_enter_container(call, 'v', "a{ss}");
        secret->attributes = readAttributes(call);
        sd_bus_message_exit_container(call);
      } else if (property == "org.freedesktop.Secret.Item.Label") {
        const char* label = nullptr;
        sd_bus_message_read(call, "v", "s", &label);
        secret->label = label;
      } else {
        sd_bus_message_skip(call, "v");
      }
      sd_bus_message_exit_container(call);
    }
    sd_bus_message_exit_container(call);
  }

  static int createItem(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    FakeKeyring::Secret secret;
    readProperties(call, &secret);
    const void* bytes = nullptr;
    size_t size = 0;
    const char* session = nullptr;
    sd_bus_message_enter_container(call, 'r', "oayays");
    sd_bus_message_read(call, "o", &session);
    sd_bus_message_read_array(call, 'y', &bytes, &size);
    sd_bus_message_read_array(call, 'y', &bytes, &size);
    secret.value.assign(static_cast<const char*>(bytes), size);
    const std::lock_guard guard(target.iLock);
    std::string path;
    for (const auto& [existing, item] : target.iSecrets) {
      if (item.attributes == secret.attributes) path = existing;
    }
    if (path.empty()) path = std::string(kItems) + "/" + std::to_string(target.iNext++);
    target.iSecrets[path] = secret;
    return sd_bus_reply_method_return(call, "oo", path.c_str(), kNothing);
  }

  static int deleteItem(sd_bus_message* call, void* self, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const std::lock_guard guard(target.iLock);
    target.iSecrets.erase(sd_bus_message_get_path(call));
    return sd_bus_reply_method_return(call, "o", kNothing);
  }

  static int isLocked(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                      sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const std::lock_guard guard(target.iLock);
    return sd_bus_message_append(reply, "b", target.iBehaviour.locked ? 1 : 0);
  }

  static int collections(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                         sd_bus_error*) {
    return sd_bus_message_append(reply, "ao", 1, kCollection);
  }

  static int items(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                   sd_bus_error*) {
    return sd_bus_message_append(reply, "ao", 0);
  }

  static int label(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                   sd_bus_error*) {
    return sd_bus_message_append(reply, "s", "Test");
  }

  static int itemAttributes(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                            sd_bus_error*) {
    return sd_bus_message_append(reply, "a{ss}", 0);
  }

  // Below the collection only what is kept exists.
  static int findItem(sd_bus*, const char* path, const char*, void* self, void** found, sd_bus_error*) {
    FakeKeyring& target = keyring(self);
    const std::lock_guard guard(target.iLock);
    *found = self;
    return target.iSecrets.count(path) == 0 ? 0 : 1;
  }
};

namespace {

using Methods = FakeKeyringMethods;

const std::array kServiceTable = std::to_array<sd_bus_vtable>(
    {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("OpenSession", "sv", "vo", &Methods::openSession, 0),
     SD_BUS_METHOD("SearchItems", "a{ss}", "aoao", &Methods::searchItems, 0),
     SD_BUS_METHOD("Unlock", "ao", "aoo", &Methods::unlock, 0),
     SD_BUS_METHOD("ReadAlias", "s", "o", &Methods::readAlias, 0),
     SD_BUS_METHOD("GetSecrets", "aoo", "a{o(oayays)}", &Methods::getSecrets, 0),
     SD_BUS_PROPERTY("Collections", "ao", &Methods::collections, 0, 0), SD_BUS_VTABLE_END});

const std::array kCollectionTable = std::to_array<sd_bus_vtable>(
    {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("CreateItem", "a{sv}(oayays)b", "oo", &Methods::createItem, 0),
     SD_BUS_PROPERTY("Locked", "b", &Methods::isLocked, 0, 0),
     SD_BUS_PROPERTY("Items", "ao", &Methods::items, 0, 0),
     SD_BUS_PROPERTY("Label", "s", &Methods::label, 0, 0), SD_BUS_VTABLE_END});

const std::array kItemTable = std::to_array<sd_bus_vtable>(
    {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Delete", "", "o", &Methods::deleteItem, 0),
     SD_BUS_METHOD("GetSecret", "o", "(oayays)", &Methods::getSecret, 0),
     SD_BUS_PROPERTY("Locked", "b", &Methods::isLocked, 0, 0),
     SD_BUS_PROPERTY("Attributes", "a{ss}", &Methods::itemAttributes, 0, 0),
     SD_BUS_PROPERTY("Label", "s", &Methods::label, 0, 0), SD_BUS_VTABLE_END});

const std::array kPromptTable = std::to_array<sd_bus_vtable>(
    {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Prompt", "s", "", &Methods::prompt, 0),
     SD_BUS_METHOD("Dismiss", "", "", &Methods::dismiss, 0), SD_BUS_SIGNAL("Completed", "bv", 0),
     SD_BUS_VTABLE_END});

}  // namespace

DesktopBus::DesktopBus() {
  writeFile(iFolder / "conf",
            "<busconfig><type>session</type><listen>" + address() +
                "</listen><policy context=\"default\"><allow send_destination=\"*\"/><allow "
                "receive_sender=\"*\"/><allow own=\"*\"/><allow user=\"*\"/></policy></busconfig>\n");
  EXPECT_TRUE(iDaemon.start(
      {"dbus-daemon", "--nofork", "--nopidfile", "--print-address=1", "--config-file=" + (iFolder / "conf")},
      "unix:", 0))
      << iDaemon.log();
}

FakeKeyring::FakeKeyring(const DesktopBus& bus, Behaviour behaviour)
    : iStop(eventfd(0, EFD_CLOEXEC)), iBehaviour(behaviour) {
  EXPECT_GE(sd_bus_new(&iBus), 0);
  EXPECT_GE(sd_bus_set_address(iBus, bus.address().c_str()), 0);
  sd_bus_set_bus_client(iBus, 1);
  EXPECT_GE(sd_bus_start(iBus), 0);
  if (!iBehaviour.silent) publish();
  // From here on a client's calls are kept until they are answered.
  EXPECT_GE(sd_bus_request_name(iBus, "org.freedesktop.secrets", 0), 0);
  if (!iBehaviour.silent) iThread = std::thread([this] { serve(); });
}

FakeKeyring::~FakeKeyring() {
  const uint64_t one = 1;
  EXPECT_EQ(write(iStop.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
  if (iThread.joinable()) iThread.join();
  sd_bus_close_unref(iBus);
}

void FakeKeyring::publish() {
  const auto add = [this](const char* path, const char* interface, const sd_bus_vtable* table) {
    const std::string name = std::string("org.freedesktop.Secret.") + interface;
    EXPECT_GE(sd_bus_add_object_vtable(iBus, nullptr, path, name.c_str(), table, this), 0) << path;
  };
  add(kService, "Service", kServiceTable.data());
  add(kCollection, "Collection", kCollectionTable.data());
  add(kAlias, "Collection", kCollectionTable.data());
  add(kPrompt, "Prompt", kPromptTable.data());
  EXPECT_GE(sd_bus_add_fallback_vtable(iBus, nullptr, kItems, "org.freedesktop.Secret.Item",
                                       kItemTable.data(), &Methods::findItem, this),
            0);
}

void FakeKeyring::serve() {
  while (true) {
    while (sd_bus_process(iBus, nullptr) > 0) {
    }
    std::array<pollfd, 2> waiting{{{sd_bus_get_fd(iBus), POLLIN, 0}, {iStop.get(), POLLIN, 0}}};
    if (poll(waiting.data(), waiting.size(), -1) > 0 && waiting[1].revents != 0) return;
  }
}

void FakeKeyring::add(Secret secret) {
  const std::lock_guard guard(iLock);
  secret.attributes["xdg:schema"] = "org.ombrafs.Password";
  iSecrets[std::string(kItems) + "/" + std::to_string(iNext++)] = std::move(secret);
}

std::vector<FakeKeyring::Secret> FakeKeyring::secrets() const {
  const std::lock_guard guard(iLock);
  std::vector<Secret> result;
  for (const auto& entry : iSecrets) result.push_back(entry.second);
  return result;
}

int FakeKeyring::handedOut() const {
  const std::lock_guard guard(iLock);
  return iHandedOut;
}

}  // namespace ombra
