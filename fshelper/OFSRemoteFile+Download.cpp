// The download worker, progress reports, and reads.

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/KCStringAdditions.h"
#include "platform/foundation/NSFileManager.h"
#include "platform/foundation/NSThread.h"

namespace ombra {
namespace {

constexpr const char* kRead = "-[OFSRemoteFile _readToBuffer:size:offset:error:]";

// Where a range ends, short of the cancel mark.
uint64_t endOfRange(int64_t offset, size_t size) {
  if (offset < 0) return 0;
  const uint64_t begin = static_cast<uint64_t>(offset);
  return begin + std::min<uint64_t>(size, OFSRemoteFile::kCancelMark - 1 - begin);
}

}  // namespace

void OFSRemoteFile::downloadOnThread(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch) {
  NSThread::setName("downloading " + file->remotePath());
  OFS_TRACE_MESSAGE("began {}", NSThread::name());
  NSFileManager::createDirectoryAtPath(stringByDeletingLastPathComponent(file->localPath()), true, 0700,
                                       nullptr);
  const std::shared_ptr<KCConnectionPool> pool = file->connectionPool();
  const std::shared_ptr<NSFileHandle> handle = file->fileHandle();
  StAbstractConnection holder(pool.get(), file.get());
  AbstractConnection& connection = *holder;
  // What is to be changed is fetched at once: others may have written to it just now.
  connection.setTakesAhead(file->isOpenedToRead());

  uint64_t transferred = 0;
  NSErrorRef error;
  file->iTransfer.begin(OFSTransferRecord::Direction::kDownload);
  // A download is never given up.
  const bool succeeded =
      file->lendConnection(epoch, connection) && ofs_runTransfer(&error, [&] {
        return connection.downloadFileAtPath(file->remotePath(), *handle, 0, &transferred, &error);
      });
  handle->synchronizeFile();
  file->iTransfer.end(file->remotePath(), succeeded ? nullptr : error);

  WakingLock lock(file->iCondition);
  OFS_TRACE_MESSAGE("finished {}, bytesAvailable={}", NSThread::name(), file->iBytesAvailable);
  if (!succeeded) OFS_TRACE_MESSAGE("error={}", ofs_describeError(error));
  file->locked_finishDownload(succeeded, transferred);
  file->locked_forgetWorker(epoch);
  lock.wakeAll();
}

bool OFSRemoteFile::isOpenedToRead() {
  const ConditionLock lock(iCondition);
  return (iMode & kO_ACCMODE) == kO_RDONLY;
}

void OFSRemoteFile::locked_finishDownload(bool succeeded, uint64_t transferredBytes) {
  iContentFailed = !succeeded;
  locked_applySeed();
  locked_setState(kOFSSettled);
  iBytesAvailable = transferredBytes;
  iBytesRequired = 0;
}

void OFSRemoteFile::connection(AbstractConnection& connection, uint64_t transferredBytes,
                               double /*throughput*/, bool stalled) {
  if (!stalled) ++iMovements;
  iTransfer.moved(transferredBytes);
  // The worker, whose thread this is, keeps the file until after the broadcast.
  WakingLock lock(iCondition);
  if (locked_isGivenUp(connection)) {
    connection.setShouldCancel(true);
    return;
  }
  if (iBytesRequired == kCancelMark) {
    OFS_TRACE_MESSAGE("should cancel");
    connection.setShouldCancel(true);
  }
  if (iState != kOFSUploading) {
    if (locked_measureCacheFile()) lock.wakeAll();
  } else {
    iBytesAvailable = transferredBytes;
    lock.wakeAll();
  }
}

bool OFSRemoteFile::connectionIsAwaited(AbstractConnection& /*connection*/) {
  const ConditionLock lock(iCondition);
  // Who closes waits for the end of the download, not for what it brings.
  return iState == kOFSNew || iWaiters > iClosers;
}

bool OFSRemoteFile::locked_measureCacheFile() {
  // fstat instead of seeking to the end and back: the position is nobody's, but need not move.
  const uint64_t length = iFileHandle != nullptr ? iFileHandle->fileLength() : 0;
  const bool isFirst = iState == kOFSNew;
  if (isFirst) locked_setState(kOFSDownloading);
  const bool isEnough = iBytesRequired != 0 && iBytesRequired <= length;
  if (isEnough) iBytesRequired = 0;
  iBytesAvailable = length;
  // Also short of what is required: several readers share that field, and each waits for a range of its own.
  // Those that it is not enough for say so again.
  const bool isAwaited = iAwaitedEnd <= length;
  if (isAwaited) iAwaitedEnd = kCancelMark;
  return isFirst || isEnough || isAwaited;
}

int OFSRemoteFile::_readToBuffer(void* buffer, size_t size, int64_t offset, NSErrorRef* error) {
  OFS_TRACE(kRead, "size={}, offset={}", size, offset);
  const ConditionLock lock(iCondition);
  try {
    locked_awaitRange(endOfRange(offset, size), error);
    return locked_read(buffer, size, offset);
  } catch (const KCException& exception) {
    OFS_TRACE_MESSAGE("{} {}", exception.reason(), remotePath());
    storeError(error, ofs_reportedPosixError(kEIO));
    return -1;
  }
}

// Reads never overlap an upload, and wait for a download only as long as it may still bring the range.
void OFSRemoteFile::locked_awaitRange(uint64_t end, NSErrorRef* error) {
  while (iState == kOFSStreaming || iState == kOFSUploading) locked_wait();
  if (iBytesRequired != kCancelMark) iBytesRequired = end;
  if (iBytesAvailable < end && iState == kOFSNew) {
    const uint32_t mode = iMode;
    const ConditionRelease released(iCondition);
    openWithMode(mode, error);
  }
  // An open that came while another one waited for the first byte returns at once, so the download may not
  // have delivered anything yet. And a writer may have been let in between.
  while ((iBytesAvailable < end && locked_downloadRuns()) || iState == kOFSStreaming ||
         iState == kOFSUploading) {
    if (locked_downloadRuns() && iBytesRequired == 0) iBytesRequired = end;
    locked_waitForBytes(end);
  }
}

int OFSRemoteFile::locked_read(void* buffer, size_t size, int64_t offset) {
  if (iFileHandle == nullptr) OFS_RAISE(kRead, "no file for reading at {}", iLocalPath);
  const ssize_t count = OFSRemoteFileLocalCalls::current().pread(iFileHandle->fileDescriptor(), buffer,
                                                                 std::min<size_t>(size, INT_MAX), offset);
  // An interrupted call is told without an error: intended.
  if (count == -1 && errno != EINTR) {
    const int failure = errno;
    OFS_RAISE(kRead, "pread failed, errno = {} ({})", failure, kc_strerror(failure));
  }
  return static_cast<int>(count);
}

}  // namespace ombra
