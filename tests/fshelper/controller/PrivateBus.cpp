#include "tests/fshelper/controller/PrivateBus.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

extern char** environ;

namespace ombra {
namespace {

constexpr const char* kPath = "/org/ombrafs/Notifications";
constexpr const char* kNotificationInterface = "org.ombrafs.DistributedNotification";
constexpr const char* kHelperPath = "/org/ombrafs/Helper";
constexpr const char* kHelperInterface = "org.ombrafs.Helper1";
constexpr std::chrono::seconds kWatchdog{60};

std::vector<std::string> readTexts(sd_bus_message* message) {
  std::vector<std::string> texts;
  sd_bus_message_enter_container(message, 'a', "s");
  for (const char* text = nullptr; sd_bus_message_read(message, "s", &text) > 0;) texts.emplace_back(text);
  sd_bus_message_exit_container(message);
  return texts;
}

PropertyValue readValue(sd_bus_message* message, const char* type) {
  PropertyValue value;
  sd_bus_message_enter_container(message, 'v', type);
  if (std::strcmp(type, "s") == 0) {
    const char* text = nullptr;
    sd_bus_message_read(message, "s", &text);
    value = PropertyValue(text);
  } else if (std::strcmp(type, "ay") == 0) {
    const void* bytes = nullptr;
    size_t size = 0;
    sd_bus_message_read_array(message, 'y', &bytes, &size);
    const auto* first = static_cast<const uint8_t*>(bytes);
    value = PropertyValue(NSData(first, first + size));
  } else if (std::strcmp(type, "as") == 0) {
    NSArray texts;
    for (const std::string& text : readTexts(message)) texts.emplace_back(text);
    value = PropertyValue(std::move(texts));
  } else {
    ADD_FAILURE() << "a value of type " << type;
    sd_bus_message_skip(message, type);
  }
  sd_bus_message_exit_container(message);
  return value;
}

BusNotification readNotification(sd_bus_message* message) {
  BusNotification notification;
  const char* name = nullptr;
  const char* object = nullptr;
  int hasObject = 0;
  int hasUserInfo = 0;
  EXPECT_GE(sd_bus_message_read(message, "ssbb", &name, &object, &hasObject, &hasUserInfo), 0);
  notification.name = name;
  if (hasObject != 0) notification.object = object;
  sd_bus_message_enter_container(message, 'a', "{sv}");
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* key = nullptr;
    const char* type = nullptr;
    char container = 0;
    sd_bus_message_read(message, "s", &key);
    sd_bus_message_peek_type(message, &container, &type);
    notification.keys.emplace_back(key);
    notification.userInfo.setObject(readValue(message, type), key);
    sd_bus_message_exit_container(message);
  }
  sd_bus_message_exit_container(message);
  return notification;
}

}  // namespace

PrivateBus::PrivateBus() {
  int ends[2];
  EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 3);
  // It complains of limits that it may not raise.
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  std::string words[] = {"dbus-daemon", "--session",         "--nofork",
                         "--nopidfile", "--print-address=3", "--address=unix:path=" + iFolder.path("bus")};
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  const int failure =
      ::posix_spawn(&iDaemon, "/usr/bin/dbus-daemon", &actions, nullptr, argv.data(), environ);
  EXPECT_EQ(failure, 0) << "dbus-daemon cannot be started: " << std::strerror(failure);
  posix_spawn_file_actions_destroy(&actions);
  ::close(ends[1]);
  // The address is printed when the bus can be reached.
  char byte = 0;
  while (failure == 0 && ::read(ends[0], &byte, 1) == 1 && byte != '\n') iAddress.push_back(byte);
  ::close(ends[0]);
  EXPECT_FALSE(iAddress.empty());
}

PrivateBus::~PrivateBus() {
  if (iDaemon <= 0) return;
  ::kill(iDaemon, SIGTERM);
  ::waitpid(iDaemon, nullptr, 0);
}

BusClient::BusClient(const PrivateBus& bus) {
  EXPECT_GE(sd_bus_new(&iBus), 0);
  EXPECT_GE(sd_bus_set_address(iBus, bus.address().c_str()), 0);
  EXPECT_GE(sd_bus_set_bus_client(iBus, 1), 0);
  EXPECT_GE(sd_bus_start(iBus), 0);
  const auto handler = [](sd_bus_message* message, void* client, sd_bus_error* error) {
    return receive(message, client, error);
  };
  EXPECT_GE(
      sd_bus_match_signal(iBus, nullptr, nullptr, kPath, kNotificationInterface, "Posted", handler, this), 0);
}

BusClient::~BusClient() { sd_bus_flush_close_unref(iBus); }

int BusClient::receive(sd_bus_message* message, void* client, void*) {
  static_cast<BusClient*>(client)->iReceived.push_back(readNotification(message));
  return 0;
}

BusNotification BusClient::next() {
  const auto limit = std::chrono::steady_clock::now() + kWatchdog;
  while (iReceived.empty()) {
    if (std::chrono::steady_clock::now() > limit) {
      ADD_FAILURE() << "no notification has come";
      return {};
    }
    if (sd_bus_process(iBus, nullptr) == 0) sd_bus_wait(iBus, 1000000);
  }
  BusNotification first = std::move(iReceived.front());
  iReceived.erase(iReceived.begin());
  return first;
}

bool BusClient::hasMore() {
  while (sd_bus_process(iBus, nullptr) > 0) {
  }
  return !iReceived.empty();
}

bool BusClient::hasOwner(const std::string& name) {
  return sd_bus_get_name_creds(iBus, name.c_str(), 0, nullptr) >= 0;
}

std::optional<std::string> BusClient::status(const std::string& helper, std::string* error) {
  sd_bus_error failure{};
  sd_bus_message* reply = nullptr;
  const int called =
      sd_bus_call_method(iBus, helper.c_str(), kHelperPath, kHelperInterface, "Status", &failure, &reply, "");
  std::optional<std::string> answer;
  const char* text = nullptr;
  if (called >= 0 && sd_bus_message_read(reply, "s", &text) > 0) answer = text;
  if (error != nullptr && failure.name != nullptr) *error = failure.name;
  sd_bus_message_unref(reply);
  sd_bus_error_free(&failure);
  return answer;
}

bool BusClient::unmount(const std::string& helper, bool force) {
  return sd_bus_call_method(iBus, helper.c_str(), kHelperPath, kHelperInterface, "Unmount", nullptr, nullptr,
                            "b", force ? 1 : 0) >= 0;
}

void BusClient::postInvalidation(const std::vector<std::string>& paths) {
  sd_bus_message* signal = nullptr;
  ASSERT_GE(sd_bus_message_new_signal(iBus, &signal, kPath, kNotificationInterface, "Posted"), 0);
  sd_bus_message_append(signal, "ssbb", "OFSInvalidateCache", "", 0, 1);
  sd_bus_message_open_container(signal, 'a', "{sv}");
  sd_bus_message_open_container(signal, 'e', "sv");
  sd_bus_message_append(signal, "s", "paths");
  sd_bus_message_open_container(signal, 'v', "as");
  sd_bus_message_open_container(signal, 'a', "s");
  for (const std::string& path : paths) sd_bus_message_append(signal, "s", path.c_str());
  for (int container = 0; container < 4; ++container) sd_bus_message_close_container(signal);
  EXPECT_GE(sd_bus_send(iBus, signal, nullptr), 0);
  sd_bus_flush(iBus);
  sd_bus_message_unref(signal);
}

}  // namespace ombra
