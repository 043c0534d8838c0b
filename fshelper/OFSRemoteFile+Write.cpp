// Writes, uploads in place, truncation.

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "fshelper/OFSRemoteFileScopes.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {
constexpr const char* kWrite = "-[OFSRemoteFile _writeFromBuffer:size:offset:error:]";
constexpr const char* kUploadInPlace = "-[OFSRemoteFile locked_uploadWithConnection:offset:]";
constexpr const char* kTruncate = "-[OFSRemoteFile _truncateToOffset:error:]";

// The server does not let this user write the file, so it has not touched it either.
bool isProhibited(const NSErrorRef& error) {
  return QuarnKitError::isCode(error, kQuarnKitPermissionDenied) ||
         QuarnKitError::isCode(error, kQuarnKitReadOnly);
}
}  // namespace

int OFSRemoteFile::_writeFromBuffer(const void* buffer, size_t size, int64_t offset, NSErrorRef* error) {
  OFS_TRACE(kWrite, "size={}, offset={}", size, offset);
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection holder(pool.get(), nullptr);
  const ConditionLock lock(iCondition);
  locked_awaitTurnToWrite();
  try {
    return locked_write(*holder, buffer, size, offset);
  } catch (const KCException& exception) {
    locked_failWrite(exception, error);
    return -1;
  }
}

// A write never overlaps a download, also not one that has yet to deliver its first byte. And it does not
// overtake a synchroniser, which would have no end if each of its attempts were outdated by further writes.
void OFSRemoteFile::locked_awaitTurnToWrite() {
  while (locked_downloadRuns() || iSynchronizers > 0 || iMoves > 0) locked_wait();
}

int OFSRemoteFile::locked_write(AbstractConnection& connection, const void* buffer, size_t size,
                                int64_t offset) {
  if (iFileHandle == nullptr) OFS_RAISE(kWrite, "no file handle for writing");
  if (iContentFailed) {
    OFS_RAISE(kWrite, "writing to {} refused: its content has not arrived as a whole, open it again",
              remotePath());
  }
  const bool inPlace = connection.supportsUploadByteOffset();
  // A whole-file upload that still runs could overwrite what is sent in place with an older state of it.
  if (inPlace) {
    const SettleWaiter waiter(*this);
    locked_waitUntilIdle();
  }
  const ssize_t count = locked_writeCacheFile(buffer, size, offset);
  // Nothing was written (an interrupted call is told without an error: intended), so there is nothing to
  // send. A stream of nothing would even empty the file on the server.
  if (count <= 0) return static_cast<int>(count);

  const uint64_t begin = static_cast<uint64_t>(offset);
  const uint64_t length = static_cast<uint64_t>(count);
  iFileHandle->noteWritten({begin, begin + length});
  locked_noteLocalChange(begin);
  if (locked_sendsNothing()) return static_cast<int>(count);
  if (inPlace) {
    locked_sendInPlace(connection, buffer, {begin, begin + length});
  } else if (!gStreamingSupported || !locked_streamBytes(buffer, length, begin, iLocalGeneration)) {
    if (gUploadingSupported) locked_uploadPendingLength(length, begin);
  }
  return static_cast<int>(count);
}

ssize_t OFSRemoteFile::locked_writeCacheFile(const void* buffer, size_t size, int64_t offset) {
  const ssize_t count = OFSRemoteFileLocalCalls::current().pwrite(iFileHandle->fileDescriptor(), buffer,
                                                                  std::min<size_t>(size, INT_MAX), offset);
  if (count == -1 && errno != EINTR) {
    const int failure = errno;
    OFS_RAISE(kWrite, "pwrite failed, errno = {} ({})", failure, kc_strerror(failure));
  }
  return count;
}

void OFSRemoteFile::locked_sendInPlace(AbstractConnection& connection, const void* buffer,
                                       FileExtent extent) {
  iFileHandle->synchronizeFile();
  // The lock is held until this piece is on its way.
  const NSFileHandle::RecentWrite recent(*iFileHandle, buffer, extent);
  iTransfer.beginPiece();
  locked_uploadWithConnection(connection, extent.begin);
  iTransfer.endPiece(extent.end - extent.begin);
  locked_setState(kOFSSettled);
  iCondition.broadcast();
}

void OFSRemoteFile::locked_failWrite(const KCException& exception, NSErrorRef* error) {
  // Whatever runs is given up: it neither takes from the next queue nor settles the next state.
  locked_giveUpWorkers();
  // A new object has never seen its content; settled it would pass for an empty file.
  if (iState == kOFSNew) iContentFailed = true;
  locked_setState(kOFSSettled);
  iBytesAvailable = 0;
  iBytesRequired = 0;
  iStreamWork.reset();
  iCondition.broadcast();
  OFS_TRACE_MESSAGE("{} {}", exception.reason(), remotePath());
  storeError(error, ofs_reportedPosixError(kEIO, iLastError));
}

bool OFSRemoteFile::locked_sendCacheFile(AbstractConnection& connection, uint64_t offset,
                                         uint64_t* transferred, NSErrorRef* error) {
  HeldTransfer held(*this);
  NSFileHandle& handle = *iFileHandle;
  std::string path = remotePath();
  while (true) {
    const bool succeeded = held.end(ofs_runTransfer(error, [&] {
      return connection.uploadFileHandle(handle, connection.displayStringForRemoteString(path), path, offset,
                                         transferred, error);
    }));
    // Moved meanwhile: nobody knows where these bytes are now, so all of them go to where the file is.
    const std::string now = remotePath();
    if (now == path) return succeeded;
    path = now;
    offset = 0;
    locked_doubtServer();
    storeError(error, nullptr);
  }
}

void OFSRemoteFile::locked_uploadWithConnection(AbstractConnection& connection, uint64_t offset) {
  uint64_t transferred = 0;
  NSErrorRef error;
  // The next write need not wait until the server has acknowledged this one. It, or the synchronisation,
  // tells what became of it.
  connection.setWritesBehind(true);
  if (!locked_sendCacheFile(connection, offset, &transferred, &error)) {
    iLastError = error;
    iTransfer.end(remotePath(), error);
    OFS_RAISE(kUploadInPlace, "upload to {} failed: {}", remotePath(), ofs_describeError(error));
  }
  iBytesAvailable = transferred;
  // Everything from the offset on is there; an earlier write that failed may still be missing before it.
  if (iUnsentFrom >= offset) locked_confirmInPlace();
}

bool OFSRemoteFile::_truncateToOffset(int64_t offset, NSErrorRef* error) {
  return truncate(offset, false, error);
}

bool OFSRemoteFile::truncate(int64_t offset, bool isNew, NSErrorRef* error) {
  OFS_TRACE(kTruncate, "offset={}", offset);
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  StAbstractConnection holder(pool.get(), nullptr);
  const ConditionLock lock(iCondition);
  try {
    locked_truncate(holder, offset, isNew);
    return true;
  } catch (const KCException& exception) {
    locked_failTruncation(exception, error);
    return false;
  }
}

// Until no transfer runs and no move is under way: either may begin while the other is waited for.
void OFSRemoteFile::locked_awaitTurnToTruncate(int64_t offset) {
  const SettleWaiter waiter(*this);
  while (true) {
    // A new object that nobody opens would never settle.
    const bool neverOpened = iState == kOFSNew && iFileHandle == nullptr;
    const bool isIdle = neverOpened || (iState == kOFSSettled && iWorkers.empty());
    if (isIdle && (locked_sendsNothing() || iMoves == 0)) return;
    // Overwriting a large file that has just been looked at need not wait for bytes that are thrown away.
    if (offset == 0) locked_cancelDownload();
    locked_wait();
  }
}

// Whether the server has all that was sent to it in place. Waits for its word, which may still be missing.
bool OFSRemoteFile::locked_isStoredInPlace(StAbstractConnection& holder) {
  return locked_finishInPlace(holder, nullptr) && iFileHandle->unconfirmedExtents(0).empty();
}

void OFSRemoteFile::locked_truncate(StAbstractConnection& holder, int64_t offset, bool isNew) {
  locked_awaitTurnToTruncate(offset);
  if (iFileHandle == nullptr) OFS_RAISE(kTruncate, "no file handle for truncating");
  if (iContentFailed && offset != 0) {
    OFS_RAISE(kTruncate, "truncating {} refused: its content has not arrived as a whole, open it again",
              remotePath());
  }
  const bool wasCovered = iConfirmedGeneration == iLocalGeneration;
  const bool wasStored = !locked_sendsNothing() && wasCovered && locked_isStoredInPlace(holder);
  if (OFSRemoteFileLocalCalls::current().ftruncate(iFileHandle->fileDescriptor(), offset) == -1 &&
      errno != EINTR) {
    const int failure = errno;
    OFS_RAISE(kTruncate, "ftruncate failed, errno = {} ({})", failure, kc_strerror(failure));
  }
  const uint64_t length = iFileHandle->fileLength();
  iFileHandle->noteTruncated(length);
  locked_noteLocalChange(length);
  uint64_t transferred = length;
  if (!locked_sendsNothing()) {
    NSErrorRef failure;
    // The close tells what becomes of it, if not the first write does.
    (*holder).setPutsOffNewFiles(isNew);
    iTransfer.begin(OFSTransferRecord::Direction::kUpload, length);
    const bool isSent = locked_sendCacheFile(*holder, 0, &transferred, &failure);
    iTransfer.end(remotePath(), isSent ? nullptr : failure);
    if (!isSent) {
      locked_doubtServer();
      if (offset == 0 ? wasCovered : wasStored && isProhibited(failure)) locked_discardContent();
      OFS_RAISE(kTruncate, "upload to {} failed: {}", remotePath(), ofs_describeError(failure));
    }
    locked_confirm(iLocalGeneration, true);
  }
  if (offset == 0) iContentFailed = false;
  locked_setState(kOFSSettled);
  iBytesAvailable = transferred;
  iBytesRequired = 0;
  iCondition.broadcast();
}

// After a truncation that failed: the caller was told, so the file must not be cut later on its own. What the
// cache file has lost comes back with the next open. Not for a file that was to keep some of its bytes and
// may have lost them on the server half way: these are then here alone, and are sent again.
void OFSRemoteFile::locked_discardContent() {
  locked_confirm(iLocalGeneration);
  iContentFailed = true;
}

void OFSRemoteFile::locked_failTruncation(const KCException& exception, NSErrorRef* error) {
  if (iState == kOFSNew) iContentFailed = true;
  locked_setState(kOFSSettled);
  iBytesAvailable = 0;
  iBytesRequired = 0;
  iCondition.broadcast();
  OFS_TRACE_MESSAGE("{} {}", exception.reason(), remotePath());
  storeError(error, ofs_reportedPosixError(kEIO));
}

}  // namespace ombra
