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

FTPServer::Passive FTPServer::passive() const {
  MutexLock lock(iLock);
  return iPassive;
}

void FTPServer::setPassive(Passive passive) {
  MutexLock lock(iLock);
  iPassive = passive;
}

FTPServer::Answer FTPServer::listsAll() const {
  MutexLock lock(iLock);
  return iListsAll;
}

void FTPServer::setListsAll(Answer answer) {
  MutexLock lock(iLock);
  iListsAll = answer;
}

FTPServer::Answer FTPServer::stats() const {
  MutexLock lock(iLock);
  return iStats;
}

void FTPServer::setStats(Answer answer) {
  MutexLock lock(iLock);
  iStats = answer;
}

FTPServer::Answer FTPServer::changesModes() const {
  MutexLock lock(iLock);
  return iChangesModes;
}

void FTPServer::setChangesModes(Answer answer) {
  MutexLock lock(iLock);
  iChangesModes = answer;
}

FTPServer::Answer FTPServer::renamesOver() const {
  MutexLock lock(iLock);
  return iRenamesOver;
}

void FTPServer::setRenamesOver(Answer answer) {
  MutexLock lock(iLock);
  iRenamesOver = answer;
}

FTPServer::Answer FTPServer::usesTemporaries() const {
  MutexLock lock(iLock);
  return iUsesTemporaries;
}

void FTPServer::setUsesTemporaries(Answer answer) {
  MutexLock lock(iLock);
  iUsesTemporaries = answer;
}

bool FTPServer::mayPipeline() const {
  MutexLock lock(iLock);
  return iMayPipeline;
}

void FTPServer::stopPipelining() {
  MutexLock lock(iLock);
  iMayPipeline = false;
}

std::optional<uint16_t> FTPServer::modeOfNewFiles() const {
  MutexLock lock(iLock);
  return iModeOfNewFiles;
}

void FTPServer::setModeOfNewFiles(uint16_t mode) {
  MutexLock lock(iLock);
  iModeOfNewFiles = mode;
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
