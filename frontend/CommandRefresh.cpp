#include <fmt/format.h>

#include <map>

#include "frontend/Commands.h"
#include "frontend/HelperBus.h"
#include "frontend/Volumes.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {

namespace {

// The volume that a path lies in; null when it lies in none.
const Volume* volumeOfPath(const std::vector<Volume>& volumes, const std::string& path) {
  for (const Volume& volume : volumes) {
    if (volume.mountPath.empty()) continue;
    const std::string prefix =
        kc_commonPathPrefix(decomposedStringWithCanonicalMapping(path), volume.mountPath);
    if (prefix == volume.mountPath) return &volume;
  }
  return nullptr;
}

// The mount path as the helper knows it, then the rest as given: names below it keep their bytes.
std::string pathForHelper(const Volume& volume, const std::string& path) {
  const size_t mountComponents = pathComponents(volume.mountPath).size();
  const std::vector<std::string> components = pathComponents(path);
  std::string result = volume.mountPath;
  for (size_t i = mountComponents; i < components.size(); ++i) {
    result = stringByAppendingPathComponent(result, components[i]);
  }
  return result;
}

}  // namespace

int runRefresh(const std::vector<std::string>& paths, const Output& output) {
  const std::vector<Volume> volumes = currentVolumes();
  std::map<std::string, std::vector<std::string>> pathsByBus;
  int code = kExitSuccess;
  for (const std::string& path : paths) {
    const std::string absolute = absolutePath(path, currentFolder());
    const Volume* volume = volumeOfPath(volumes, absolute);
    if (volume == nullptr || volume->busAddress.empty()) {
      code = output.fail({kExitNotFound, fmt::format("{} cannot be refreshed.", inQuotes(absolute)),
                          volume == nullptr ? "It is in no mounted volume."
                                            : "The helper of its volume is on no message bus.",
                          "See: ombra list"});
      continue;
    }
    pathsByBus[volume->busAddress].push_back(pathForHelper(*volume, absolute));
  }
  for (const auto& [address, known] : pathsByBus) {
    const auto bus = HelperBus::connect(address);
    if (bus && bus->invalidateCache(known)) continue;
    code = output.fail(
        {kExitFailure, "The helper could not be told.", "The message bus does not answer.", "Try again."});
  }
  return code;
}

}  // namespace ombra
