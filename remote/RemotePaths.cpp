#include "remote/RemotePaths.h"

#include <algorithm>
#include <vector>

namespace ombra {
namespace {

// Cuts the first component off the path. Empty between two slashes.
std::string_view takeComponent(std::string_view* path) {
  const size_t end = std::min(path->find('/'), path->size());
  const std::string_view name = path->substr(0, end);
  path->remove_prefix(std::min(end + 1, path->size()));
  return name;
}

void appendComponents(std::string& result, std::string_view path) {
  while (!path.empty()) {
    const std::string_view name = takeComponent(&path);
    if (!name.empty() && name != ".") result.append("/").append(name);
  }
}

}  // namespace

std::string absoluteRemotePath(std::string_view path, std::string_view base) {
  std::string result;
  if (!path.starts_with('/')) appendComponents(result, base);
  appendComponents(result, path);
  return result.empty() ? "/" : result;
}

std::string normalRemotePath(std::string_view path) {
  std::vector<std::string_view> components;
  while (!path.empty()) {
    const std::string_view component = takeComponent(&path);
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

std::string parentOfRemotePath(std::string_view path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string_view::npos || slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string_view nameOfRemotePath(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::string remotePathInFolder(std::string_view folder, std::string_view name) {
  std::string result(folder);
  if (!result.ends_with('/')) result += '/';
  return result.append(name);
}

bool isAtOrBelowRemotePath(std::string_view path, std::string_view folder) {
  if (!path.starts_with(folder)) return false;
  return path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/';
}

bool isShownName(std::string_view name) {
  if (name.empty() || name == "." || name == "..") return false;
  return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

}  // namespace ombra
