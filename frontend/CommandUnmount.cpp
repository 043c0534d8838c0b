#include <algorithm>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>

#include "frontend/Commands.h"
#include "frontend/Spinner.h"
#include "frontend/UndeliveredFiles.h"
#include "frontend/UnmountVolume.h"
#include "frontend/Volumes.h"

namespace ombra {

namespace {

class UnmountCommand {
 public:
  UnmountCommand(const UnmountOptions& options, const Output& output)
      : iOptions(options), iOutput(output), iSpinner(output.err, !output.json) {}

  int run() {
    const std::vector<Volume> volumes = currentVolumes();
    listen(volumes);
    if (iOptions.all) {
      for (const Volume& volume : volumes) {
        // Root sees everybody's; "all" are still one's own.
        if (volume.own) unmount(volume);
      }
    } else {
      for (const std::string& target : iOptions.targets) unmountTarget(volumes, target);
    }
    if (iOutput.json) iOutput.result(nlohmann::json{{"unmounted", iUnmounted}}.dump());
    return iCode;
  }

 private:
  // Helpers say what they could not store on the bus that they are on.
  void listen(const std::vector<Volume>& volumes) {
    const auto reachable = std::find_if(volumes.begin(), volumes.end(),
                                        [](const Volume& volume) { return !volume.busAddress.empty(); });
    if (reachable == volumes.end()) return;
    setenv("DBUS_SESSION_BUS_ADDRESS", reachable->busAddress.c_str(), 1);
    iUndelivered = std::make_unique<UndeliveredFiles>();
  }

  void unmountTarget(const std::vector<Volume>& volumes, const std::string& target) {
    Failure failure;
    const Volume* volume = findVolume(volumes, target, currentFolder(), &failure);
    if (volume == nullptr) {
      note(failure);
    } else {
      unmount(*volume);
    }
  }

  void unmount(const Volume& volume) {
    if (iInterruption.requested()) return;
    Failure failure;
    // A helper whose mount is gone already is only waited for.
    const bool force = iOptions.force || volume.state == "dead";
    iSpinner.setText("Unmounting " + volume.name);
    const auto control = systemVolumeControl(volume, iInterruption, [this] { iSpinner.tick(); });
    const bool done = unmountVolume(*control, volume.name, force, {}, &failure);
    iSpinner.clear();
    if (!done) {
      note(failure);
      return;
    }
    iUnmounted.push_back(printable(volume.mountPath));
    if (iUndelivered && !volume.registeredName.empty() &&
        tellUndelivered(volume.name, iUndelivered->ofHelper(volume.registeredName), iOutput) &&
        iCode == kExitSuccess) {
      iCode = kExitFailure;
    }
    iOutput.remark("Unmounted " + printable(volume.name));
  }

  // The first failure decides the exit code; the other volumes are still seen to.
  void note(const Failure& failure) {
    const int code = Output{iOutput.out, iOutput.err, false}.fail(failure);
    if (iCode == kExitSuccess) iCode = code;
  }

  const UnmountOptions& iOptions;
  const Output& iOutput;
  const Interruption iInterruption;
  Spinner iSpinner;
  std::unique_ptr<UndeliveredFiles> iUndelivered;
  std::vector<std::string> iUnmounted;
  int iCode = kExitSuccess;
};

}  // namespace

int runUnmount(const UnmountOptions& options, const Output& output) {
  return UnmountCommand(options, output).run();
}

}  // namespace ombra
