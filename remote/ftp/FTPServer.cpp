#include "remote/ftp/FTPServer.h"

#include <utility>

namespace ombra {

namespace {
// More of them than a session that comes back would want to clear away first.
constexpr size_t kMostLeftovers = 64;
}  // namespace

std::optional<FTPFeatures> FTPServer::features() const {
  MutexLock lock(iLock);
  return iFeatures;
}

void FTPServer::setFeatures(const FTPFeatures& features) {
  MutexLock lock(iLock);
  iFeatures = features;
}

void FTPServer::addLeftover(std::string path) {
  MutexLock lock(iLock);
  if (iLeftovers.size() < kMostLeftovers) iLeftovers.push_back(std::move(path));
}

std::vector<std::string> FTPServer::takeLeftovers() {
  MutexLock lock(iLock);
  return std::exchange(iLeftovers, {});
}

}  // namespace ombra
