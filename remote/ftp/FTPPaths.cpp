#include "remote/ftp/FTPPaths.h"

#include <vector>

#include "remote/KCUUID.h"
#include "remote/RemotePaths.h"

namespace ombra {

namespace {
constexpr std::string_view kTemporaryFTPPrefix = ".ombra-upload-";
constexpr size_t kIdentifierLength = 36;
}  // namespace

std::string ftpNormalPath(std::string_view path) {
  std::vector<std::string_view> components;
  while (!path.empty()) {
    const size_t end = path.find('/');
    const std::string_view component = path.substr(0, end);
    path = end == std::string_view::npos ? std::string_view() : path.substr(end + 1);
    if (component.empty() || component == ".") continue;
    if (component != "..") {
      components.push_back(component);
    } else if (!components.empty()) {
      components.pop_back();
    }
  }
  std::string result;
  for (const std::string_view component : components) result.append("/").append(component);
  return result.empty() ? "/" : result;
}

std::string ftpParentPath(std::string_view path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string_view ftpName(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string temporaryPathBeside(std::string_view path) {
  return remotePathInFolder(ftpParentPath(path),
                            std::string(kTemporaryFTPPrefix) + KCUUID::UUID().stringValue());
}

bool isTemporaryFTPName(std::string_view name) {
  return name.size() == kTemporaryFTPPrefix.size() + kIdentifierLength &&
         name.starts_with(kTemporaryFTPPrefix) &&
         KCUUID::uuidWithString(name.substr(kTemporaryFTPPrefix.size())).has_value();
}

}  // namespace ombra
