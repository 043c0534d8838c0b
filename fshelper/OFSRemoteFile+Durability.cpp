// The ledger: what the server has, what it has not, and what to do about that.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "fshelper/OFSRemoteFileScopes.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnection.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {
constexpr const char* kSynchronize = "-[OFSRemoteFile synchronize:]";

// The server has understood, and does not want it. Anything else may be different the next time.
bool isRefusal(const NSErrorRef& error) {
  for (const QuarnKitErrorCode code : {kQuarnKitNoSuchItem, kQuarnKitOutOfSpace, kQuarnKitItemExists,
                                       kQuarnKitPermissionDenied, kQuarnKitRefused, kQuarnKitNotSupported,
                                       kQuarnKitNotAFolder, kQuarnKitNameInvalid, kQuarnKitReadOnly}) {
    if (QuarnKitError::isCode(error, code)) return true;
  }
  return false;
}

// Mode and date of `changes`, as far as it has them.
void overlay(NSFileAttributes& attributes, const NSFileAttributes& changes) {
  if (changes.posixPermissions) attributes.posixPermissions = changes.posixPermissions;
  if (changes.modificationDate) attributes.modificationDate = changes.modificationDate;
}

// A failure leaves the cache file with the attributes that it has: less good, but of no consequence for the
// content.
void setAttributesOfCacheFile(int descriptor, const NSFileAttributes& attributes) {
  if (attributes.posixPermissions)
    (void)OFSRemoteFileLocalCalls::current().fchmod(descriptor, *attributes.posixPermissions);
  if (!attributes.modificationDate) return;
  const timespec times[2] = {{0, UTIME_OMIT}, kc_timespec(*attributes.modificationDate)};
  (void)::futimens(descriptor, times);
}

}  // namespace

void OFSRemoteFile::locked_noteLocalChange(uint64_t from) {
  ++iLocalGeneration;
  iUnsentFrom = std::min(iUnsentFrom, from);
  locked_publishLedger();
}

void OFSRemoteFile::locked_confirm(uint64_t generation, bool isSentFromCacheFile) {
  iConfirmedGeneration = std::max(iConfirmedGeneration, generation);
  locked_publishLedger();
  if (iConfirmedGeneration != iLocalGeneration) return;
  iUnsentFrom = kCancelMark;
  if (iFileHandle == nullptr) return;
  UnconfirmedExtents& extents = *iFileHandle->extents();
  if (isSentFromCacheFile) {
    extents.clearSent();
  } else {
    extents.clear();
  }
}

// The record of extents is left alone: what was sent in place may still turn out not to be stored.
void OFSRemoteFile::locked_confirmInPlace() {
  iConfirmedGeneration = iLocalGeneration;
  iUnsentFrom = kCancelMark;
  locked_publishLedger();
}

void OFSRemoteFile::locked_publishLedger() {
  using Ledger = OFSTransferRecord::Ledger;
  iTransfer.setLedger(iAbandoned                                 ? Ledger::kAbandoned
                      : iConfirmedGeneration != iLocalGeneration ? Ledger::kUnsent
                                                                 : Ledger::kCovered);
}

bool OFSRemoteFile::locked_isSettledInPlace() const {
  return iFileHandle == nullptr || iFileHandle->extents()->isSettled();
}

bool OFSRemoteFile::locked_finishInPlace(StAbstractConnection& holder, NSErrorRef* error) {
  NSErrorRef failure;
  bool isFinished = true;
  if (!locked_isSettledInPlace()) {
    HeldTransfer held(*this);
    iTransfer.beginPiece();
    isFinished = held.end((*holder).finishUploads(*iFileHandle, remotePath(), &failure));
  }
  iTransfer.end(remotePath(), isFinished ? nullptr : failure);
  if (!isFinished) storeError(error, failure);
  return isFinished;
}

void OFSRemoteFile::locked_doubtServer() {
  if (iConfirmedGeneration == iLocalGeneration) ++iLocalGeneration;
  iUnsentFrom = 0;
  locked_publishLedger();
  if (iFileHandle != nullptr) iFileHandle->noteWritten({0, iFileHandle->fileLength()});
}

bool OFSRemoteFile::synchronize(NSErrorRef* error) {
  OFS_TRACE(kSynchronize, "remotePath={}", remotePath());
  const OFSTransferRecord::LastBytes lastBytes(iTransfer);
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection holder(pool.get(), nullptr);
  const ConditionLock lock(iCondition);
  if (iAbandoned) return true;
  // A worker that is about to send again what the server has puts that in doubt: it is waited for as well.
  const bool isSending = iState == kOFSStreaming || iState == kOFSUploading;
  if (iConfirmedGeneration == iLocalGeneration && !isSending && locked_isSettledInPlace()) return true;
  const Synchronizer synchronizer(*this);
  const SettleWaiter waiter(*this);
  return locked_synchronize(holder, error);
}

// Bounded: an attempt that does not end by itself was ended by one of the writers that were under way before
// this call held up the others.
bool OFSRemoteFile::locked_synchronize(StAbstractConnection& holder, NSErrorRef* error) {
  // Asked once the running transfer has ended: until then it may still put in doubt what was confirmed.
  locked_waitUntilIdle();
  uint64_t wanted = iLocalGeneration;
  Attempt attempt = Attempt::kUndecided;
  while (attempt == Attempt::kUndecided) {
    locked_waitUntilIdle();
    if (iAbandoned) return true;
    const bool isConfirmed = iConfirmedGeneration >= wanted;
    if (isConfirmed && locked_finishInPlace(holder, nullptr)) return true;
    if (iSuperseded) return locked_failSuperseded(error);
    if (isConfirmed) {
      // The server has refused what it had been sent. One more way is left: the whole file anew.
      locked_doubtServer();
      wanted = iLocalGeneration;
    }
    attempt = locked_storeWholeFile(holder, wanted);
  }
  return attempt == Attempt::kStored || locked_failSynchronization(error);
}

OFSRemoteFile::Attempt OFSRemoteFile::locked_storeWholeFile(StAbstractConnection& holder, uint64_t wanted) {
  if (iFileHandle == nullptr || iContentFailed) return Attempt::kFailed;
  iBytesAvailable = 0;
  iBytesRequired = iFileHandle->fileLength();
  iNeedsFlush = true;
  Epoch epoch = 0;
  try {
    epoch = locked_startUpload();
  } catch (const KCException& exception) {
    OFS_TRACE_MESSAGE("{} {}", exception.reason(), remotePath());
    return Attempt::kFailed;
  }
  locked_waitForEpoch(epoch);
  if (iConfirmedGeneration < wanted) {
    return iEpoch == epoch && iLastError != nullptr ? Attempt::kFailed : Attempt::kUndecided;
  }
  if (locked_isSettledInPlace()) return Attempt::kStored;
  // Sent from the cache file itself, for want of room for a copy: the server has yet to close it. Not tried
  // once more when that fails, which would have no end where every close is refused.
  NSErrorRef failure;
  if (locked_finishInPlace(holder, &failure)) return Attempt::kStored;
  locked_doubtServer();
  iLastError = std::move(failure);
  return Attempt::kFailed;
}

bool OFSRemoteFile::locked_failSynchronization(NSErrorRef* error) {
  // Told here; no later write need be told again.
  iUnreportedError.reset();
  iRefusal = !iContentFailed && isRefusal(iLastError) ? iLastError : nullptr;
  iRefusedGeneration = iLocalGeneration;
  storeError(error, ofs_reportedPosixError(kEIO, iLastError));
  return false;
}

bool OFSRemoteFile::locked_failSuperseded(NSErrorRef* error) {
  storeError(error, ofs_reportedPosixError(kEIO, ofs_supersededError()));
  return false;
}

GMContentState OFSRemoteFile::contentState() {
  const ConditionLock lock(iCondition);
  if (locked_downloadRuns()) return GMContentState::kArriving;
  return iContentFailed ? GMContentState::kFailed : GMContentState::kComplete;
}

void OFSRemoteFile::waitForContent(uint64_t seen) {
  const ConditionLock lock(iCondition);
  while (locked_downloadRuns() && iBytesAvailable <= seen) locked_waitForBytes(seen + 1);
}

void OFSRemoteFile::seedCacheAttributes(const NSFileAttributes& attributes) {
  const ConditionLock lock(iCondition);
  if (iFileHandle == nullptr) return;
  {
    const MutexLock pathLock(iPathLock);
    if (iSeed) return;
    iSeed = attributes;
    // Changed since the caller looked at the item.
    overlay(*iSeed, iShown);
  }
  locked_applySeed();
}

void OFSRemoteFile::locked_applySeed() {
  const MutexLock lock(iPathLock);
  if (!iSeed || iOpenFile == nullptr) return;
  NSFileAttributes seed = *iSeed;
  // What was changed here has a date of its own.
  if (iLocalGeneration != 0) seed.modificationDate.reset();
  setAttributesOfCacheFile(iOpenFile->fileDescriptor(), seed);
}

void OFSRemoteFile::showAttributes(const NSFileAttributes& attributes) {
  const MutexLock lock(iPathLock);
  overlay(iShown, attributes);
  if (iSeed) overlay(*iSeed, attributes);
  if (iOpenFile != nullptr) setAttributesOfCacheFile(iOpenFile->fileDescriptor(), attributes);
}

std::optional<NSDate> OFSRemoteFile::seededDate() const {
  const MutexLock lock(iPathLock);
  return iSeed ? iSeed->modificationDate : std::nullopt;
}

void OFSRemoteFile::abandon() {
  const ConditionLock lock(iCondition);
  iAbandoned = true;
  locked_publishLedger();
  locked_stopSending();
}

void OFSRemoteFile::supersede() {
  const ConditionLock lock(iCondition);
  iSuperseded = true;
  locked_stopSending();
}

void OFSRemoteFile::locked_stopSending() {
  iNeedsFlush = false;
  iCondition.broadcast();
  // A download goes on: handles may still want to read what is yet to come.
  if (iState == kOFSNew || iState == kOFSDownloading) return;
  if (iState != kOFSSettled) {
    locked_giveUpWorkers();
    locked_setState(kOFSSettled);
    iBytesRequired = 0;
    iStreamWork.reset();
    iCondition.broadcast();
  }
  locked_waitUntilIdle();
}

void OFSRemoteFile::reclaim() {
  const ConditionLock lock(iCondition);
  iAbandoned = false;
  locked_publishLedger();
}

void OFSRemoteFile::holdWrites() {
  const ConditionLock lock(iCondition);
  ++iMoves;
}

void OFSRemoteFile::letWritesGo() {
  const ConditionLock lock(iCondition);
  --iMoves;
  iCondition.broadcast();
}

std::string OFSRemoteFile::remotePathAfterMoves() {
  const ConditionLock lock(iCondition);
  while (iMoves > 0) locked_wait();
  return remotePath();
}

bool OFSRemoteFile::isMakingInDoubt() const {
  const std::shared_ptr<NSFileHandle> handle = fileHandle();
  return handle != nullptr && handle->extents()->isInDoubt();
}

bool OFSRemoteFile::isNewAndEmpty() {
  if (iHeldTransfers != 0) return false;
  const ConditionLock lock(iCondition);
  return (iMode & kO_CREAT) != 0 && iFileHandle != nullptr && iFileHandle->fileLength() == 0;
}

bool OFSRemoteFile::hasBeenChanged() {
  const ConditionLock lock(iCondition);
  return !iAbandoned && iLocalGeneration != 0;
}

bool OFSRemoteFile::isCovered() {
  if (iHeldTransfers != 0) return false;
  const ConditionLock lock(iCondition);
  return locked_isCovered();
}

bool OFSRemoteFile::locked_isCovered() const {
  const bool idle = iWorkers.empty() && (iState == kOFSSettled || iState == kOFSNew);
  return idle && (iAbandoned || (iConfirmedGeneration == iLocalGeneration && locked_isSettledInPlace()));
}

bool OFSRemoteFile::isCoveredOnceIdle() {
  const ConditionLock lock(iCondition);
  const SettleWaiter waiter(*this);
  while (!iWorkers.empty()) locked_wait();
  return locked_isCovered();
}

NSErrorRef OFSRemoteFile::refusal() {
  if (iHeldTransfers != 0) return nullptr;
  const ConditionLock lock(iCondition);
  const bool isIdle = iState == kOFSSettled && iWorkers.empty() && !locked_sendsNothing();
  const bool isUnsent = iConfirmedGeneration != iLocalGeneration;
  return isIdle && isUnsent && iRefusedGeneration == iLocalGeneration ? iRefusal : nullptr;
}

bool OFSRemoteFile::downloadFailed() {
  const ConditionLock lock(iCondition);
  return iContentFailed;
}

void OFSRemoteFile::cancelDownload() {
  // A call that holds the condition is never a download, and none runs beside it.
  if (iHeldTransfers != 0) return;
  const ConditionLock lock(iCondition);
  locked_cancelDownload();
}

void OFSRemoteFile::locked_cancelDownload() {
  if (!locked_downloadRuns()) return;
  iBytesRequired = kCancelMark;
  locked_stopRunningConnection();
  iCondition.broadcast();
}

bool OFSRemoteFile::saveContentAs(const std::string& path) {
  const std::shared_ptr<NSFileHandle> handle = fileHandle();
  if (handle == nullptr) {
    errno = EBADF;
    return false;
  }
  const int descriptor = OFSRemoteFileLocalCalls::current().open(
      path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (descriptor < 0) return false;
  // On the disk before the process ends: nobody else has these bytes.
  const bool saved =
      ofs_copyFile(handle->fileDescriptor(), descriptor, handle->fileLength()) && ::fsync(descriptor) == 0;
  const int failure = errno;
  ::close(descriptor);
  if (saved) return true;
  ::unlink(path.c_str());
  errno = failure;
  return false;
}

uint64_t OFSRemoteFile::cacheSize() {
  const std::shared_ptr<NSFileHandle> handle = fileHandle();
  struct stat status {};
  if (handle == nullptr || ::fstat(handle->fileDescriptor(), &status) != 0) return 0;
  return static_cast<uint64_t>(status.st_blocks) * 512;
}

}  // namespace ombra
