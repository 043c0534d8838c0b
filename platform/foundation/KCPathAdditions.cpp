// The path operations of KCStringAdditions.h.
#include "platform/foundation/KCStringAdditions.h"

#include <algorithm>

namespace ombra {
namespace {

// `path` without the slashes at its end; an all-slash path becomes "/".
std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

}  // namespace

std::vector<std::string> pathComponents(std::string_view path) {
  std::vector<std::string> components;
  if (kc_hasCompletePathPrefix(path)) components.emplace_back("/");
  size_t begin = 0;
  while (begin < path.size()) {
    const size_t end = std::min(path.find('/', begin), path.size());
    if (end > begin) components.emplace_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return components;
}

std::string pathWithComponents(const std::vector<std::string>& components) {
  std::string path;
  for (const std::string& component : components) {
    if (!path.empty() && path.back() != '/') path += '/';
    path += component;
  }
  return path;
}

std::string stringByAppendingPathComponent(std::string_view path, std::string_view component) {
  const std::string_view folder = withoutTrailingSlashes(path);
  if (!folder.empty()) component.remove_prefix(std::min(component.find_first_not_of('/'), component.size()));
  std::string result(folder);
  if (!component.empty() && !folder.empty() && folder.back() != '/') result += '/';
  result += component;
  return result;
}

std::string stringByDeletingLastPathComponent(std::string_view path) {
  const std::string_view whole = withoutTrailingSlashes(path);
  const size_t slash = whole.rfind('/');
  if (slash == std::string_view::npos) return {};
  return std::string(withoutTrailingSlashes(whole.substr(0, std::max<size_t>(slash, 1))));
}

std::string lastPathComponent(std::string_view path) {
  const std::string_view whole = withoutTrailingSlashes(path);
  if (whole == "/") return "/";
  const size_t slash = whole.rfind('/');
  return std::string(slash == std::string_view::npos ? whole : whole.substr(slash + 1));
}

std::string kc_commonPathPrefix(std::string_view path, std::string_view other) {
  std::vector<std::string> components = pathComponents(path);
  components.resize(kc_indexOfFirstMismatchedObjectInArray(components, pathComponents(other)));
  return pathWithComponents(components);
}

size_t kc_indexOfFirstMismatchedObjectInArray(const std::vector<std::string>& array,
                                              const std::vector<std::string>& other) {
  const auto mismatch = std::mismatch(array.begin(), array.end(), other.begin(), other.end());
  return static_cast<size_t>(mismatch.first - array.begin());
}

bool kc_hasCompletePathPrefix(std::string_view path) { return !path.empty() && path.front() == '/'; }

}  // namespace ombra
