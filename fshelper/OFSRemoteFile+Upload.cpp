// The whole-file upload worker, and how writes hand their bytes to it.

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileLocalCalls.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/NSThread.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {
constexpr const char* kUploadPending = "-[OFSRemoteFile locked_uploadPendingLength:offset:]";
}  // namespace

void OFSRemoteFile::locked_uploadPendingLength(uint64_t length, uint64_t offset) {
  locked_settleBeforeUploadAt(offset);
  if (locked_sendsNothing()) {
    if (iState == kOFSSettled) iBytesRequired = 0;
    return;
  }
  iBytesAvailable = std::min(iBytesAvailable, offset);
  OFS_TRACE_MESSAGE("bytesRequired={}=>{}", iBytesRequired, static_cast<int64_t>(length + offset));
  iBytesRequired = length + offset;
  iNeedsFlush = true;
  if (iState != kOFSUploading) locked_startUpload();
  locked_awaitUploadBefore(offset);
}

// Until the running transfer may take what is written at `offset`, or none runs any more.
void OFSRemoteFile::locked_settleBeforeUploadAt(uint64_t offset) {
  do {
    const bool continues = iBytesUploading <= offset && offset <= iBytesRequired;
    if (!continues) {
      OFS_TRACE_MESSAGE("non-sequential write: offset={}, bytesUploading={}, bytesRequired={}", offset,
                        iBytesUploading, iBytesRequired);
    }
    // Another writer's cancel mark must not be overwritten while the transfer that it is meant for still
    // runs.
    const bool isBeingCancelled = iState != kOFSSettled && iBytesRequired == kCancelMark;
    if (continues && !isBeingCancelled) return;
    locked_cancelTransfer();
    // Not settled: another writer was faster and has started the next one.
  } while (iState != kOFSSettled);
}

void OFSRemoteFile::locked_cancelTransfer() {
  iBytesRequired = kCancelMark;
  iCondition.broadcast();
  locked_waitForEpoch(iEpoch);
}

OFSRemoteFile::Epoch OFSRemoteFile::locked_startUpload() {
  // The error of the stream that this upload stands in for is dealt with; one of an earlier upload is kept
  // aside.
  iLastError.reset();
  iStreamWork.reset();
  locked_setState(kOFSUploading);
  return locked_performSelectorOnWorkerThread(&OFSRemoteFile::uploadOnThread);
}

// The writer may run ahead of the confirmed upload by a factor of two.
void OFSRemoteFile::locked_awaitUploadBefore(uint64_t offset) {
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(0.5 * gHardLimit);
  while (iState == kOFSUploading) {
    if (iBytesAvailable >= offset / 2) return;
    if (iLastError == nullptr) iLastError = std::exchange(iUnreportedError, nullptr);
    if (iLastError != nullptr) {
      OFS_RAISE(kUploadPending, "upload to {} failed: {}", remotePath(), ofs_describeError(iLastError));
    }
    OFS_TRACE_MESSAGE("waiting until {}: bytesAvailable={}, bytesRequired={}", ofs_describeDate(deadline),
                      iBytesAvailable, iBytesRequired);
    if (locked_waitUntilDate(deadline)) continue;
    if (iState != kOFSUploading || iBytesAvailable >= offset / 2) return;
    locked_cancelTransfer();
    iLastError = QuarnKitError::errorWithDomain(NSPOSIXErrorDomain, kEFBIG);
    OFS_RAISE(kUploadPending, "upload to {} terminated: {}", remotePath(), ofs_describeError(iLastError));
  }
}

void OFSRemoteFile::uploadOnThread(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch) {
  const ConditionLock lock(file->iCondition);
  if (!file->locked_beginWorker(epoch)) return;
  while (file->iNeedsFlush && file->locked_uploadPass(epoch)) {
  }
  if (file->iEpoch == epoch) {
    file->locked_setState(kOFSSettled);
    file->iBytesRequired = 0;
  }
  file->locked_endWorker(epoch);
}

bool OFSRemoteFile::locked_uploadPass(Epoch epoch) {
  iNeedsFlush = false;
  iBytesAvailable = 0;
  iLastError.reset();
  locked_doubtServer();
  const uint64_t generation = iLocalGeneration;
  iBytesUploading = iFileHandle->fileLength();
  const std::optional<std::string> snapshot = locked_takeSnapshot();
  NSThread::setName("uploading " + remotePath());
  OFS_TRACE_MESSAGE("began {}", NSThread::name());

  uint64_t transferred = 0;
  NSErrorRef error;
  bool succeeded = false;
  const std::string path = remotePath();
  {
    iTransfer.begin(OFSTransferRecord::Direction::kUpload, iBytesUploading);
    const ConditionRelease released(iCondition);
    succeeded = sendSnapshot(epoch, snapshot, path, &transferred, &error);
  }
  iTransfer.end(path, succeeded ? nullptr : error);
  if (iEpoch != epoch) return false;
  if (path == remotePath()) {
    return locked_finishUploadPass(succeeded, transferred, generation, snapshot.has_value(), error);
  }
  // Moved meanwhile: whatever became of this pass, the file is not there. One more brings it to where it is.
  if (iBytesRequired == kCancelMark) return false;
  iNeedsFlush = true;
  return true;
}

std::optional<std::string> OFSRemoteFile::locked_takeSnapshot() {
  auto& calls = OFSRemoteFileLocalCalls::current();
  std::string path = uniquePath();
  const int descriptor = calls.open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (descriptor < 0) return std::nullopt;
  const bool copied = ofs_copyFile(iFileHandle->fileDescriptor(), descriptor, iBytesUploading);
  ::close(descriptor);
  if (copied) return path;
  ::unlink(path.c_str());
  return std::nullopt;
}

bool OFSRemoteFile::sendSnapshot(Epoch epoch, const std::optional<std::string>& snapshot,
                                 const std::string& path, uint64_t* transferred, NSErrorRef* error) {
  const std::shared_ptr<KCConnectionPool> pool = connectionPool();
  const std::shared_ptr<NSFileHandle> handle = fileHandle();
  StAbstractConnection holder(pool.get(), this);
  AbstractConnection& connection = *holder;
  const bool succeeded =
      lendConnection(epoch, connection) && ofs_runTransfer(error, [&] {
        if (snapshot) return connection.uploadFileAtPath(*snapshot, path, 0, transferred, error);
        // No room for a copy on the local disk. What is written meanwhile may get mixed into this transfer,
        // but it also asks for another pass, and until that one the file does not count as confirmed.
        return connection.uploadFileHandle(*handle, connection.displayStringForRemoteString(path), path, 0,
                                           transferred, error);
      });
  if (snapshot) ::unlink(snapshot->c_str());
  takeConnectionBack(epoch);
  return succeeded;
}

bool OFSRemoteFile::locked_finishUploadPass(bool succeeded, uint64_t transferredBytes, uint64_t generation,
                                            bool hasSnapshot, const NSErrorRef& error) {
  iBytesAvailable = transferredBytes;
  iCondition.broadcast();
  if (succeeded) locked_confirm(generation, !hasSnapshot);
  if (iBytesRequired == kCancelMark) {
    OFS_TRACE_MESSAGE("canceled {}: bytesAvailable={}", NSThread::name(), iBytesAvailable);
    return false;
  }
  OFS_TRACE_MESSAGE("finished {}: bytesAvailable={}, bytesRequired={}", NSThread::name(), iBytesAvailable,
                    iBytesRequired);
  if (succeeded) {
    iUnreportedError.reset();
    return true;
  }
  OFS_TRACE_MESSAGE("error={}", ofs_describeError(error));
  iLastError = error != nullptr ? error : NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO);
  iUnreportedError = iLastError;
  return false;
}

}  // namespace ombra
