#include "remote/ftp/FTPServer.h"

namespace ombra {

namespace {
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

}  // namespace ombra
