#include "fshelper/OFSRemoteFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <cassert>
#include <utility>

#include "fshelper/OFSTracing.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSLog.h"
#include "remote/KCUUID.h"

namespace ombra {

std::atomic<double> gHardLimit{60.0};
std::atomic<bool> gStreamingSupported{true};
std::atomic<bool> gUploadingSupported{true};

namespace {

// The drawing above OFSTransferState, as a table.
[[maybe_unused]] bool isLegalTransition(OFSTransferState from, OFSTransferState to) {
  switch (to) {
    case kOFSNew:
      return false;
    case kOFSDownloading:
      return from == kOFSNew;
    case kOFSStreaming:
      return from == kOFSSettled;
    case kOFSUploading:
      return from == kOFSSettled || from == kOFSStreaming;
    case kOFSSettled:
      return true;
  }
  return false;
}

}  // namespace

std::shared_ptr<OFSRemoteFile> OFSRemoteFile::remoteFileForPath(std::string path) {
  return std::make_shared<OFSRemoteFile>(std::move(path));
}

std::string OFSRemoteFile::uniquePath() {
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  // A name without a folder would end up in whatever the current folder is.
  if (folder.empty()) return folder;
  std::string path;
  do {
    path = stringByAppendingPathComponent(folder, KCUUID::UUID().stringValue());
  } while (NSFileManager::fileExistsAtPath(path));
  return path;
}

OFSRemoteFile::OFSRemoteFile(std::string path) : iLocalPath(uniquePath()), iRemotePath(std::move(path)) {
  iCondition.setName(fmt::format("condition ({})", static_cast<const void*>(this)));
}

// May run on a worker, which held the last reference. No other worker is left then, so the state is settled
// (or new) and close has nothing to wait for or to start.
OFSRemoteFile::~OFSRemoteFile() {
  try {
    close();
  } catch (const KCException& exception) {
    NSLog("closing {} failed: {}", remotePath(), exception.reason());
  }
  const ConditionLock lock(iCondition);
  assert(iWorkers.empty());
  if (!iAbandoned && iConfirmedGeneration != iLocalGeneration) {
    NSLog("{} was let go while changes from byte {} on were not on the server: synchronise it before",
          remotePath(), iUnsentFrom);
  }
}

std::shared_ptr<KCConnectionPool> OFSRemoteFile::connectionPool() const {
  const MutexLock lock(iPathLock);
  return iConnectionPool;
}

void OFSRemoteFile::setConnectionPool(std::shared_ptr<KCConnectionPool> pool) {
  const MutexLock lock(iPathLock);
  iConnectionPool.swap(pool);
}

std::string OFSRemoteFile::remotePath() const {
  const MutexLock lock(iPathLock);
  return iRemotePath;
}

void OFSRemoteFile::setRemotePath(std::string path) {
  const MutexLock lock(iPathLock);
  iRemotePath = std::move(path);
}

// Calls that hold the condition have no delegate: of them the record of extents knows.
uint64_t OFSRemoteFile::movements() const {
  const std::shared_ptr<NSFileHandle> handle = fileHandle();
  return iMovements.load() + (handle == nullptr ? 0 : handle->extents()->progress());
}

uint16_t OFSRemoteFile::mode() const {
  const ConditionLock lock(iCondition);
  return static_cast<uint16_t>(iMode);
}

std::shared_ptr<NSFileHandle> OFSRemoteFile::fileHandle() const {
  const MutexLock lock(iPathLock);
  return iOpenFile;
}

bool OFSRemoteFile::isOpen() const { return fileHandle() != nullptr; }

int32_t OFSRemoteFile::state() const {
  const ConditionLock lock(iCondition);
  return iState;
}

uint64_t OFSRemoteFile::bytesAvailable() const {
  const ConditionLock lock(iCondition);
  return iBytesAvailable;
}

uint64_t OFSRemoteFile::bytesRequired() const {
  const ConditionLock lock(iCondition);
  return iBytesRequired;
}

NSErrorRef OFSRemoteFile::lastError() const {
  const ConditionLock lock(iCondition);
  return iLastError;
}

std::optional<std::vector<uint64_t>> OFSRemoteFile::streamWork() const {
  const ConditionLock lock(iCondition);
  if (!iStreamWork) return std::nullopt;
  std::vector<uint64_t> lengths;
  for (const StreamPiece& piece : *iStreamWork) lengths.push_back(piece.length());
  return lengths;
}

bool OFSRemoteFile::needsFlush() const {
  const ConditionLock lock(iCondition);
  return iNeedsFlush;
}

uint64_t OFSRemoteFile::bytesUploading() const {
  const ConditionLock lock(iCondition);
  return iBytesUploading;
}

size_t OFSRemoteFile::waiterCount() const {
  const ConditionLock lock(iCondition);
  return iWaiters;
}

bool OFSRemoteFile::connection(AbstractConnection& /*connection*/, const TrustQuestion& /*isWorthyTrust*/) {
  return true;
}

void OFSRemoteFile::setFileHandle(std::shared_ptr<NSFileHandle> handle) {
  iFileHandle = handle;
  const MutexLock lock(iPathLock);
  iOpenFile = std::move(handle);
}

void OFSRemoteFile::locked_setState(OFSTransferState state) {
  assert(isLegalTransition(iState, state));
  iState = state;
}

void OFSRemoteFile::locked_wait() {
  ++iWaiters;
  iCondition.wait();
  --iWaiters;
}

bool OFSRemoteFile::locked_waitUntilDate(NSDate limit) {
  ++iWaiters;
  const bool woken = iCondition.waitUntilDate(limit);
  --iWaiters;
  return woken;
}

void OFSRemoteFile::locked_waitForBytes(uint64_t end) {
  iAwaitedEnd = std::min(iAwaitedEnd, end);
  locked_wait();
}

void OFSRemoteFile::locked_waitForState(OFSTransferState state) {
  while (iState != state) locked_wait();
}

void OFSRemoteFile::locked_waitUntilIdle() {
  while (iState != kOFSSettled || !iWorkers.empty()) locked_wait();
}

void OFSRemoteFile::locked_waitForEpoch(Epoch epoch) {
  while (iState != kOFSSettled && iEpoch == epoch) locked_wait();
}

}  // namespace ombra
