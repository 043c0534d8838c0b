#include "remote/s3/S3Path.h"

#include <algorithm>
#include <vector>

namespace ombra {

S3Path S3Path::parse(std::string_view path) {
  std::vector<std::string_view> names;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    if (name == "..") {
      if (!names.empty()) names.pop_back();
    } else if (!name.empty() && name != ".") {
      names.push_back(name);
    }
  }
  S3Path result;
  for (size_t i = 0; i < names.size(); ++i) {
    std::string& part = i == 0 ? result.bucket : result.key;
    if (i > 1) part += '/';
    part += names[i];
  }
  return result;
}

S3Path S3Path::parent() const {
  if (key.empty()) return {};
  const size_t slash = key.rfind('/');
  return {bucket, slash == std::string::npos ? std::string() : key.substr(0, slash)};
}

std::string S3Path::text() const {
  if (isRoot()) return "/";
  return key.empty() ? "/" + bucket : "/" + bucket + "/" + key;
}

}  // namespace ombra
