#include "remote/sftp/SFTPPaths.h"

#include <vector>

namespace ombra {

std::string sftpNormalPath(std::string_view path) {
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

std::string sftpJoinPath(std::string_view base, std::string_view path) {
  if (path.starts_with('/')) return std::string(path);
  std::string result(base);
  if (!result.ends_with('/')) result += '/';
  return result.append(path);
}

std::string sftpParentPath(std::string_view path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

}  // namespace ombra
