#include "frontend/HelperBus.h"

#include <systemd/sd-bus.h>

#include <charconv>
#include <nlohmann/json.hpp>

#include "remote/QuarnKitError.h"

namespace ombra {

namespace {

constexpr const char* kPath = "/org/ombrafs/Helper";
constexpr const char* kInterface = "org.ombrafs.Helper1";
constexpr std::string_view kNamePrefix = "org.ombrafs.helper.pid";
constexpr uint64_t kStatusLimitMicroseconds = 3'000'000;
constexpr size_t kMaximumStatus = 64 * 1024;

struct MessageCloser {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageCloser>;

struct CallError {
  sd_bus_error error{};
  ~CallError() { sd_bus_error_free(&error); }
  std::string text(int result) const {
    if (error.message != nullptr) return error.message;
    return result == -ETIMEDOUT ? "the helper does not answer" : strerror(-result);
  }
};

std::string textMember(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

NSErrorRef errorMember(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end() || !found->is_object()) return nullptr;
  const auto code = found->find("code");
  if (code == found->end() || !code->is_number_integer()) return nullptr;
  return NSError::errorWithDomain(kQuarnKitErrorDomain, code->get<int64_t>(),
                                  {{std::string(NSLocalizedDescriptionKey), textMember(*found, "text")}});
}

// The number in "org.ombrafs.helper.pid123"; 0 when the name is another.
pid_t pidInName(std::string_view name) {
  if (!name.starts_with(kNamePrefix)) return 0;
  name.remove_prefix(kNamePrefix.size());
  pid_t pid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
  return error == std::errc() && end == name.data() + name.size() && pid > 0 ? pid : 0;
}

}  // namespace

std::optional<HelperStatus> parseHelperStatus(std::string_view json) {
  if (json.size() > kMaximumStatus) return std::nullopt;
  const nlohmann::json object = nlohmann::json::parse(json, nullptr, false);
  if (!object.is_object()) return std::nullopt;
  HelperStatus status;
  status.volumeName = textMember(object, "volumeName");
  status.mountPath = textMember(object, "mountPath");
  status.registeredName = textMember(object, "registeredName");
  status.address = textMember(object, "address");
  status.username = textMember(object, "username");
  status.protocol = textMember(object, "protocol");
  status.passthrough = textMember(object, "passthrough");
  status.state = textMember(object, "state");
  status.startFolderError = errorMember(object, "startFolderError");
  status.json = object.dump();
  return status;
}

std::string HelperBus::nameOf(pid_t pid) { return std::string(kNamePrefix) + std::to_string(pid); }

void HelperBus::Closer::operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }

HelperBus::HelperBus(sd_bus* bus) : iBus(bus) {}

HelperBus::~HelperBus() = default;

std::unique_ptr<HelperBus> HelperBus::connect(const std::string& address) {
  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return nullptr;
  std::unique_ptr<HelperBus> result(new HelperBus(bus));
  if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
      sd_bus_start(bus) < 0) {
    return nullptr;
  }
  sd_bus_set_method_call_timeout(bus, kStatusLimitMicroseconds);
  const char* name = nullptr;
  // Waits until the bus has let us in; a socket that nobody serves fails here.
  if (sd_bus_get_unique_name(bus, &name) < 0) return nullptr;
  return result;
}

std::vector<std::string> HelperBus::helperNames() {
  char** names = nullptr;
  std::vector<std::string> found;
  if (sd_bus_list_names(iBus.get(), &names, nullptr) < 0) return found;
  for (char** name = names; name != nullptr && *name != nullptr; ++name) {
    if (pidInName(*name) != 0) found.emplace_back(*name);
    free(*name);
  }
  free(names);
  return found;
}

pid_t HelperBus::processOf(const std::string& busName) {
  sd_bus_creds* creds = nullptr;
  pid_t pid = 0;
  if (sd_bus_get_name_creds(iBus.get(), busName.c_str(), SD_BUS_CREDS_PID, &creds) >= 0) {
    if (sd_bus_creds_get_pid(creds, &pid) < 0) pid = 0;
    sd_bus_creds_unref(creds);
  }
  return pid;
}

HelperStatus HelperBus::statusOf(const std::string& busName, pid_t pid) {
  CallError error;
  sd_bus_message* raw = nullptr;
  const char* text = nullptr;
  std::optional<HelperStatus> status;
  const int result =
      sd_bus_call_method(iBus.get(), busName.c_str(), kPath, kInterface, "Status", &error.error, &raw, "");
  const Message reply(raw);
  if (result >= 0 && sd_bus_message_read(reply.get(), "s", &text) >= 0) status = parseHelperStatus(text);
  if (!status) {
    status.emplace();
    status->state = "not answering";
  }
  status->busName = busName;
  status->pid = pid;
  return *status;
}

std::vector<HelperStatus> HelperBus::helpers() {
  std::vector<HelperStatus> found;
  for (const std::string& name : helperNames()) {
    const pid_t pid = processOf(name);
    // Signals go to that number later: it must be the one of the process that holds the name.
    if (pid == 0 || pid != pidInName(name)) continue;
    found.push_back(statusOf(name, pid));
  }
  return found;
}

bool HelperBus::unmount(const std::string& busName, bool force, std::chrono::milliseconds limit,
                        std::string* why) {
  sd_bus_message* raw = nullptr;
  int result =
      sd_bus_message_new_method_call(iBus.get(), &raw, busName.c_str(), kPath, kInterface, "Unmount");
  const Message call(raw);
  if (result >= 0) result = sd_bus_message_append(call.get(), "b", force ? 1 : 0);
  CallError error;
  if (result >= 0) {
    sd_bus_message* rawReply = nullptr;
    result = sd_bus_call(iBus.get(), call.get(), static_cast<uint64_t>(limit.count()) * 1000, &error.error,
                         &rawReply);
    const Message reply(rawReply);
  }
  if (result < 0) *why = error.text(result);
  return result >= 0;
}

bool HelperBus::invalidateCache(const std::vector<std::string>& paths) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_signal(iBus.get(), &raw, "/org/ombrafs/Notifications",
                                "org.ombrafs.DistributedNotification", "Posted") < 0) {
    return false;
  }
  const Message message(raw);
  std::vector<char*> items;
  for (const std::string& path : paths) items.push_back(const_cast<char*>(path.c_str()));
  items.push_back(nullptr);
  // Name, object, whether there is an object, whether there is a user info, the user info.
  const bool built = sd_bus_message_append(raw, "ssbb", "OFSInvalidateCache", "", 0, 1) >= 0 &&
                     sd_bus_message_open_container(raw, 'a', "{sv}") >= 0 &&
                     sd_bus_message_open_container(raw, 'e', "sv") >= 0 &&
                     sd_bus_message_append_basic(raw, 's', "paths") >= 0 &&
                     sd_bus_message_open_container(raw, 'v', "as") >= 0 &&
                     sd_bus_message_append_strv(raw, items.data()) >= 0 &&
                     sd_bus_message_close_container(raw) >= 0 && sd_bus_message_close_container(raw) >= 0 &&
                     sd_bus_message_close_container(raw) >= 0;
  return built && sd_bus_send(iBus.get(), raw, nullptr) >= 0 && sd_bus_flush(iBus.get()) >= 0;
}

}  // namespace ombra
