#include "frontend/MountCommon.h"
#include "frontend/Explain.h"

#include <fmt/format.h>
#include <pwd.h>
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>

#include "frontend/SessionBus.h"
#include "frontend/UndeliveredFiles.h"
#include "frontend/UnmountProgress.h"
#include "frontend/UnmountVolume.h"
#include "frontend/Volumes.h"
#include "frontend/VolumesFolder.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSProcessInfo.h"

namespace ombra {

namespace {

constexpr size_t kMaximumName = 200;  // leaves room for what makes a name unique, and for a log's date

bool isPlainName(std::string_view name) {
  return name.size() <= kMaximumName && isValidUTF8(name) &&
         std::none_of(name.begin(), name.end(),
                      [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}

bool refuseOption(std::string what, std::string why, Failure* failure) {
  *failure = {kExitUsage, std::move(what), std::move(why), "See: ombra mount --help"};
  return false;
}

std::string openPath(const MountResult& result) {
  if (result.rootPath.empty() || result.rootPath == "/") return result.mountPath;
  return stringByAppendingPathComponent(result.mountPath, result.rootPath);
}

void tellMounted(const MountResult& result, const Output& output) {
  if (output.json) {
    const nlohmann::json object = {{"volumeName", result.volumeName},
                                   {"mountPath", result.mountPath},
                                   {"openPath", openPath(result)},
                                   {"address", result.address},
                                   {"registeredName", result.registeredName},
                                   {"pid", result.pid},
                                   {"alreadyMounted", result.alreadyMounted}};
    output.result(object.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
    return;
  }
  if (isatty(fileno(output.out)) != 1) {
    output.result(result.mountPath);
    return;
  }
  output.remark(fmt::format("{} {} at {}", result.alreadyMounted ? "Already mounted:" : "Mounted",
                            printable(result.volumeName), printable(result.mountPath)));
  if (openPath(result) != result.mountPath) output.remark("The folder is at " + printable(openPath(result)));
  // The folder's name and not the volume's: where that was taken, two volumes have it.
  output.remark("To unmount: ombra unmount " + shellQuoted(lastPathComponent(result.mountPath)));
}

// Helpers that start at the same time for one server choose the same name for their volumes, where the user
// gave none; who comes second chooses again.
constexpr int kMostOthersAhead = 5;

// Ctrl-C in the foreground takes the volume away; a second one leaves that to the helper.
int unmountInForeground(const MountResult& result, Interruption& interruption, const Output& output) {
  interruption.forget();
  const std::vector<Volume> volumes = currentVolumes();
  const auto found = std::find_if(volumes.begin(), volumes.end(), [&result](const Volume& candidate) {
    return candidate.registeredName == result.registeredName;
  });
  if (found == volumes.end()) return kExitSuccess;
  Failure failure;
  UnmountProgress progress(*found, output);
  const auto control = systemVolumeControl(*found, interruption, [&progress] { return progress.tick(); });
  const bool done = unmountVolume(*control, found->name, false, {}, &failure);
  progress.clear();
  return done ? kExitSuccess : output.fail(failure);
}

// Stays with a volume to its end. A service manager that started the command is told what it waits for.
int stay(MountVolume& mount, const MountResult& result, Interruption& interruption, const Output& output) {
  UndeliveredFiles undelivered;
  int code = kExitSuccess;
  sd_notifyf(0, "READY=1\nSTATUS=Mounted at %s", printable(result.mountPath).c_str());
  if (!mount.waitUntilUnmounted()) {
    sd_notify(0, "STOPPING=1\nSTATUS=Waiting until everything written is on the server");
    code = unmountInForeground(result, interruption, output);
  }
  if (code != kExitSuccess) return code;
  const auto files = undelivered.ofHelper(result.registeredName);
  return tellUndelivered(result.volumeName, files, output) ? kExitFailure : kExitSuccess;
}

}  // namespace

bool checkVolumeOptions(VolumeOptions* options, Failure* failure) {
  if (options->name) {
    const std::string& name = *options->name;
    if (name.empty() || name == "." || name == ".." || !isPlainName(name)) {
      return refuseOption(fmt::format("The name {} cannot be a volume's name.", inQuotes(name)),
                          "It must be 1 to 200 bytes of text without control characters.", failure);
    }
  }
  if (options->passthrough) {
    // It becomes part of a file's name.
    if (!isPlainName(*options->passthrough) || options->passthrough->find('/') != std::string::npos) {
      return refuseOption(
          fmt::format("{} cannot be a pass-through identifier.", inQuotes(*options->passthrough)),
          "It must be at most 200 bytes of text without “/” and control characters.", failure);
    }
  }
  if (options->icon) {
    options->icon = absolutePath(*options->icon, currentFolder());
    struct stat status {};
    const bool isReadable =
        stat(options->icon->c_str(), &status) == 0 && access(options->icon->c_str(), R_OK) == 0;
    const std::string why = isReadable ? "It is no plain file." : std::strerror(errno);
    if (!isReadable || !S_ISREG(status.st_mode))
      return refuseOption(fmt::format("The icon {} cannot be read.", inQuotes(*options->icon)), why, failure);
  }
  return true;
}

std::optional<std::string> prepareMachine(Failure* failure) {
  const std::string helper = helperPathForCommand(NSProcessInfo::executablePath());
  if (access(helper.c_str(), X_OK) != 0) {
    *failure = {kExitCannotMount, fmt::format("The helper {} is missing.", inQuotes(helper)), "",
                "Install the program again."};
    return std::nullopt;
  }
  if (!ensureVolumesFolder(volumesFolder(), failure) || !SessionBus::ensure(failure)) return std::nullopt;
  return helper;
}

int mountAndTell(const std::shared_ptr<KCCredentials>& credentials, const VolumeOptions& options,
                 const std::string& helper, Interruption& interruption, const Output& output,
                 const MountEvents& events) {
  Spinner spinner(output.err, !output.json);
  const MountRequest request{helper, credentials, options.name, options.icon, options.passthrough};
  int othersAhead = kMostOthersAhead;
  while (true) {
    MountVolume mount(request, {}, interruption, spinner);
    MountResult result = mount.run();
    if (!result.mounted) {
      if (!options.name && isMountPointInUse(result.error) && --othersAhead > 0 && !interruption.requested())
        continue;
      if (!interruption.requested() && events.retry && events.retry(&result)) continue;
      return output.fail(result.failure);
    }
    if (events.loggedIn && !result.alreadyMounted) events.loggedIn();
    tellMounted(result, output);
    if (!options.foreground || result.alreadyMounted) return kExitSuccess;
    return stay(mount, result, interruption, output);
  }
}

std::string currentUserName() {
  const passwd* user = getpwuid(geteuid());
  return user == nullptr ? fmt::format("{}", geteuid()) : std::string(user->pw_name);
}

}  // namespace ombra
