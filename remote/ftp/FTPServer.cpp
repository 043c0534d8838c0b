#include "remote/ftp/FTPServer.h"

#include <utility>

namespace ombra {

namespace {
// More of them than a session that comes back would want to clear away first.
constexpr size_t kMostLeftovers = 64;
// Transfers closer to each other than this are one walk through files.
constexpr std::chrono::seconds kPauseOfWalk{10};
}  // namespace

std::optional<FTPFeatures> FTPServer::features() const {
  MutexLock lock(iLock);
  return iFeatures;
}

void FTPServer::setFeatures(const FTPFeatures& features) {
  MutexLock lock(iLock);
  iFeatures = features;
}

bool FTPServer::noteTransfer(std::chrono::steady_clock::time_point now) {
  const auto last = iLastTransfer.exchange(now);
  return last != std::chrono::steady_clock::time_point() && now - last < kPauseOfWalk;
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
