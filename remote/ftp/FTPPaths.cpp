#include "remote/ftp/FTPPaths.h"

#include "remote/KCUUID.h"
#include "remote/RemotePaths.h"

namespace ombra {

namespace {
constexpr std::string_view kTemporaryFTPPrefix = ".ombra-upload-";
constexpr size_t kIdentifierLength = 36;
}  // namespace

std::string temporaryPathBeside(std::string_view path) {
  return remotePathInFolder(parentOfRemotePath(path),
                            std::string(kTemporaryFTPPrefix) + KCUUID::UUID().stringValue());
}

bool isTemporaryFTPName(std::string_view name) {
  return name.size() == kTemporaryFTPPrefix.size() + kIdentifierLength &&
         name.starts_with(kTemporaryFTPPrefix) &&
         KCUUID::uuidWithString(name.substr(kTemporaryFTPPrefix.size())).has_value();
}

}  // namespace ombra
