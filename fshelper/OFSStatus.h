// The state of this helper, for others of the user's processes to ask for.
#pragma once

#include <memory>
#include <string>

struct sd_bus;
struct sd_bus_slot;

namespace ombra {

class OFSController;
class RunLoop;

// An object on the session bus: name "org.ombrafs.helper.pid<PID>", path "/org/ombrafs/Helper", interface
// "org.ombrafs.Helper1" with
//
//   Status() -> s          a JSON object of less than 64 KiB (docs/status.md): volumeName, mountPath,
//                          registeredName, address, username, protocol (texts, or null while unknown), pid,
//                          state ("starting", "mounting", "mounted", "unmounting"), startFolderError (null,
//                          or {code, text}: why the volume does not show the folder that was asked for), and
//                          what `addTransferReport` adds
//   Unmount(b force)       asks for an unmount and answers at once; with force without waiting for the server
//
// Answers on the event loop, so not before it runs. Used on the loop's thread alone.
class OFSStatus {
 public:
  // `controller` must outlive this object.
  explicit OFSStatus(OFSController& controller);
  ~OFSStatus();
  OFSStatus(const OFSStatus&) = delete;
  OFSStatus& operator=(const OFSStatus&) = delete;

  // Appears on the bus. False, with a log line, when there is no session bus: the helper works without.
  bool start(RunLoop& loop);
  // What Status answers. Never waits for a transfer.
  std::string statusText() const;
  // What Unmount does.
  void requestUnmount(bool force);

 private:
  struct Closer {
    void operator()(sd_bus* bus) const;
    void operator()(sd_bus_slot* slot) const;
  };
  bool connect(RunLoop& loop, std::string* reason);

  OFSController& iController;
  std::unique_ptr<sd_bus, Closer> iBus;
  std::unique_ptr<sd_bus_slot, Closer> iSlot;
};

}  // namespace ombra
