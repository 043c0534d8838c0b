#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <nlohmann/json.hpp>

#include "frontend/Commands.h"
#include "frontend/LostFiles.h"
#include "frontend/UndeliveredFiles.h"
#include "frontend/UnmountProgress.h"
#include "frontend/UnmountVolume.h"
#include "frontend/Volumes.h"

namespace ombra {

namespace {

class UnmountCommand {
 public:
  UnmountCommand(const UnmountOptions& options, const Output& output) : iOptions(options), iOutput(output) {}

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
    if (iOutput.json) {
      iOutput.result(nlohmann::json{{"unmounted", iUnmounted}, {"notStored", iNotStored}}.dump(
          -1, ' ', false, nlohmann::json::error_handler_t::replace));
    }
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
    const time_t start = time(nullptr);
    UnmountProgress progress(volume, iOutput);
    const auto control = systemVolumeControl(volume, iInterruption, [&progress] { return progress.tick(); });
    const bool done = unmountVolume(*control, volume.name, force, {}, &failure);
    progress.clear();
    if (!done) {
      note(failure);
      return;
    }
    iUnmounted.push_back(printable(volume.mountPath));
    if (tellNotStored(volume, force, progress, start) && iCode == kExitSuccess) iCode = kExitFailure;
    iOutput.remark("Unmounted " + printable(volume.name));
  }

  // A helper that came to its end has said what it could not store, and where it kept that. Of one that was
  // ended by force before, what it told last is known.
  bool tellNotStored(const Volume& volume, bool force, const UnmountProgress& progress, time_t start) {
    std::vector<UndeliveredFile> files;
    bool hasEnded = false;
    if (iUndelivered && !volume.registeredName.empty()) {
      files = iUndelivered->ofHelper(volume.registeredName);
      hasEnded = iUndelivered->hasEnded(volume.registeredName);
    }
    for (const UndeliveredFile& file : files) noteNotStored(volume, file.path, file.copy, file.reason);
    if (hasEnded || !files.empty() || !force) return tellUndelivered(volume.name, files, iOutput);
    if (!progress.lastStatus()) {
      // A helper that hung: there is no better word.
      if (volume.pid != 0)
        iOutput.warning(
            fmt::format("Nobody knows whether all of {} is on its server: its helper did not answer.",
                        inQuotes(volume.name)));
      return false;
    }
    for (const std::string& path : progress.lastStatus()->unsentPaths()) noteNotStored(volume, path, "", "");
    return tellLost(volume, *progress.lastStatus(), start, iOutput);
  }

  void noteNotStored(const Volume& volume, const std::string& path, const std::string& copy,
                     const std::string& reason) {
    const auto textOrNull = [](const std::string& text) {
      return text.empty() ? nlohmann::json(nullptr) : nlohmann::json(text);
    };
    iNotStored.push_back({{"volumeName", volume.name},
                          {"path", path},
                          {"copy", textOrNull(copy)},
                          {"reason", textOrNull(reason)}});
  }

  // The first failure decides the exit code; the other volumes are still seen to.
  void note(const Failure& failure) {
    const int code = Output{iOutput.out, iOutput.err, false}.fail(failure);
    if (iCode == kExitSuccess) iCode = code;
  }

  const UnmountOptions& iOptions;
  const Output& iOutput;
  const Interruption iInterruption;
  std::unique_ptr<UndeliveredFiles> iUndelivered;
  std::vector<std::string> iUnmounted;
  nlohmann::json iNotStored = nlohmann::json::array();
  int iCode = kExitSuccess;
};

}  // namespace

int runUnmount(const UnmountOptions& options, const Output& output) {
  return UnmountCommand(options, output).run();
}

}  // namespace ombra
