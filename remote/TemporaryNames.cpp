#include "remote/TemporaryNames.h"

#include "remote/KCUUID.h"
#include "remote/RemotePaths.h"

namespace ombra {

namespace {
constexpr std::string_view kTemporaryPrefix = ".ombra-upload-";
constexpr size_t kUUIDLength = 36;
}  // namespace

std::string makeTemporaryName() { return std::string(kTemporaryPrefix) + KCUUID::UUID().stringValue(); }

std::string temporaryPathBeside(std::string_view path) {
  return remotePathInFolder(parentOfRemotePath(path), makeTemporaryName());
}

bool isTemporaryName(std::string_view name) {
  return name.size() == kTemporaryPrefix.size() + kUUIDLength && name.starts_with(kTemporaryPrefix) &&
         KCUUID::uuidWithString(name.substr(kTemporaryPrefix.size())).has_value();
}

}  // namespace ombra
