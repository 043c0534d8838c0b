// Helpers as they show themselves on a message bus.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"

struct sd_bus;

namespace ombra {

// What a helper tells of itself.
struct HelperStatus {
  std::string busName;
  pid_t pid = 0;
  std::string volumeName;
  std::string mountPath;
  std::string registeredName;
  std::string address;
  std::string username;
  std::string protocol;
  std::string passthrough;
  std::string state;
  // Why the volume does not show the folder that was asked for; null where it does.
  NSErrorRef startFolderError;
  std::string json;  // the whole answer, a checked object
};

// Reads a helper's answer: a JSON object of at most 64 KiB. Members of the wrong type count as absent; absent
// when it is no object.
std::optional<HelperStatus> parseHelperStatus(std::string_view json);

// A client's connection to one bus. One thread at a time.
class HelperBus {
 public:
  // Null when nobody answers at that address ("unix:path=…").
  static std::unique_ptr<HelperBus> connect(const std::string& address);
  ~HelperBus();
  HelperBus(const HelperBus&) = delete;
  HelperBus& operator=(const HelperBus&) = delete;

  // All helpers of this user that answer. One that owns a name but does not answer in time is told with its
  // process number and the state "not answering".
  std::vector<HelperStatus> helpers();
  // The name of the helper that is that process.
  static std::string nameOf(pid_t pid);
  // What one helper tells; its state is "not answering" when it does not in time.
  HelperStatus statusOf(const std::string& busName, pid_t pid);
  // Asks a helper to unmount. False, with `why` filled, when it refuses or does not answer.
  bool unmount(const std::string& busName, bool force, std::chrono::milliseconds limit, std::string* why);
  // Sends "OFSInvalidateCache" with these paths to all helpers on this bus. False when it could not be sent.
  bool invalidateCache(const std::vector<std::string>& paths);

 private:
  explicit HelperBus(sd_bus* bus);
  std::vector<std::string> helperNames();
  pid_t processOf(const std::string& busName);

  struct Closer {
    void operator()(sd_bus* bus) const;
  };
  std::unique_ptr<sd_bus, Closer> iBus;
};

}  // namespace ombra
