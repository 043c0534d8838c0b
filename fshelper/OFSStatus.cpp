#include "fshelper/OFSStatus.h"

#include <fmt/format.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "fshelper/OFSController.h"
#include "fshelper/OFSStatusTransfers.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSLog.h"
#include "platform/foundation/RunLoop.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

constexpr const char* kObjectPath = "/org/ombrafs/Helper";
constexpr const char* kInterface = "org.ombrafs.Helper1";

const char* textForState(OFSController::State state) {
  switch (state) {
    case OFSController::State::kStarting:
      return "starting";
    case OFSController::State::kMounting:
      return "mounting";
    case OFSController::State::kMounted:
      return "mounted";
    case OFSController::State::kUnmounting:
      return "unmounting";
  }
  return "";
}

nlohmann::json textOrNull(const std::optional<std::string>& text) {
  return text ? nlohmann::json(*text) : nlohmann::json(nullptr);
}

nlohmann::json errorOrNull(const NSErrorRef& error) {
  constexpr size_t kLongestText = 2000;  // bytes: a server may say a lot
  if (error == nullptr) return nullptr;
  return {{"code", error->domain() == kQuarnKitErrorDomain ? error->code() : 0},
          {"text", error->localizedDescription().substr(0, kLongestText)}};
}

int answerStatus(sd_bus_message* message, void* status, sd_bus_error*) {
  return sd_bus_reply_method_return(message, "s", static_cast<OFSStatus*>(status)->statusText().c_str());
}

int answerUnmount(sd_bus_message* message, void* status, sd_bus_error*) {
  int force = 0;
  const int read = sd_bus_message_read(message, "b", &force);
  if (read < 0) return read;
  // Answered first: an unmount that is quick ends the process.
  const int replied = sd_bus_reply_method_return(message, "");
  sd_bus_flush(sd_bus_message_get_bus(message));
  static_cast<OFSStatus*>(status)->requestUnmount(force != 0);
  return replied;
}

}  // namespace

OFSStatus::OFSStatus(OFSController& controller) : iController(controller) {}
OFSStatus::~OFSStatus() = default;

void OFSStatus::Closer::operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
void OFSStatus::Closer::operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }

bool OFSStatus::start(RunLoop& loop) {
  std::string reason;
  if (connect(loop, &reason)) return true;
  iSlot.reset();
  iBus.reset();
  NSLog("The state of this helper cannot be asked for: {}", reason);
  return false;
}

bool OFSStatus::connect(RunLoop& loop, std::string* reason) {
  static const sd_bus_vtable kMethods[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Status", "", "s", &answerStatus, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_METHOD("Unmount", "b", "", &answerUnmount, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_VTABLE_END,
  };
  const auto fine = [reason](const char* step, int result) {
    if (result < 0) *reason = fmt::format("{}: {}", step, kc_strerror(-result));
    return result >= 0;
  };
  sd_bus* bus = nullptr;
  if (!fine("session bus", sd_bus_open_user(&bus))) return false;
  iBus.reset(bus);
  sd_bus_slot* slot = nullptr;
  if (!fine("object", sd_bus_add_object_vtable(bus, &slot, kObjectPath, kInterface, kMethods, this)))
    return false;
  iSlot.reset(slot);
  if (!fine("name", sd_bus_request_name(bus, fmt::format("org.ombrafs.helper.pid{}", getpid()).c_str(), 0)))
    return false;
  return fine("event loop", sd_bus_attach_event(bus, loop.event(), SD_EVENT_PRIORITY_NORMAL));
}

std::string OFSStatus::statusText() const {
  const auto credentials = iController.credentials();
  nlohmann::json status;
  status["volumeName"] = textOrNull(iController.volumeName());
  status["mountPath"] = textOrNull(iController.mountPath());
  status["registeredName"] = textOrNull(iController.registeredName());
  status["address"] = nullptr;
  status["username"] = nullptr;
  status["protocol"] = nullptr;
  if (credentials != nullptr) {
    status["address"] = credentials->address();
    status["username"] = textOrNull(credentials->username());
    status["protocol"] = OFSController::nameOfProtocol(credentials->protocol());
  }
  status["pid"] = getpid();
  status["state"] = textForState(iController.state());
  status["startFolderError"] = errorOrNull(iController.startFolderError());
  addTransferReport(iController.transferReport(), &status);
  // Names are bytes; what is no UTF-8 would make the bus refuse the answer.
  return status.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void OFSStatus::requestUnmount(bool force) { iController.requestUnmount(force); }

}  // namespace ombra
