#include "remote/s3/S3Path.h"

#include <algorithm>

#include "remote/RemotePaths.h"

namespace ombra {

S3Path S3Path::parse(std::string_view path) {
  const std::string normal = normalRemotePath(path);
  const size_t slash = std::min(normal.find('/', 1), normal.size());
  return {normal.substr(1, slash - 1), normal.substr(std::min(slash + 1, normal.size()))};
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
