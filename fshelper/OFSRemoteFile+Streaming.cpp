// Streaming upload of sequential writes.

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "fshelper/OFSRemoteFile.h"
#include "fshelper/OFSRemoteFileSupport.h"
#include "fshelper/OFSTracing.h"
#include "fshelper/StAbstractConnection.h"
#include "platform/foundation/NSThread.h"

namespace ombra {
namespace {
constexpr const char* kStream = "-[OFSRemoteFile locked_streamBytes:length:offset:]";
}  // namespace

bool OFSRemoteFile::locked_streamBytes(const void* bytes, uint64_t length, uint64_t offset,
                                       uint64_t generation) {
  // The stream may end, or another writer may begin a new one, while this write waits for room in the queue.
  // Then it begins again: its bytes must not fall into a queue that is gone or that they do not continue.
  bool queueIsReady = false;
  while (!queueIsReady && !locked_sendsNothing()) {
    if (!locked_continuesStreamAt(offset)) {
      locked_endStreamBefore(offset);
      if (iState != kOFSSettled) continue;
      iStreamWork.reset();
    }
    if (!iStreamWork) locked_beginStreamWork(offset);
    if (!locked_synchronizeStreamWorkRemaining(1)) {
      OFS_RAISE(kStream, "streaming to {} failed: {}", remotePath(), ofs_describeError(iLastError));
    }
    queueIsReady = iStreamWork && locked_continuesStreamAt(offset);
  }
  if (locked_sendsNothing()) return true;

  locked_queueStreamBytes(bytes, length, offset, generation);
  if (iState == kOFSStreaming) {
    iCondition.broadcast();
    return true;
  }
  return locked_startStream(offset + length);
}

uint64_t OFSRemoteFile::locked_streamWorkLength() const {
  uint64_t length = 0;
  if (iStreamWork) {
    for (const StreamPiece& piece : *iStreamWork) length += piece.length();
  }
  return length;
}

// A stream that is being cancelled, or whose end the library knows already, is continued by nothing; nor is a
// whole-file upload.
bool OFSRemoteFile::locked_continuesStreamAt(uint64_t offset) const {
  if (iState == kOFSUploading) return false;
  if (iState == kOFSStreaming && (iStreamEnding || iBytesRequired == kCancelMark)) return false;
  return iBytesAvailable + locked_streamWorkLength() == offset;
}

void OFSRemoteFile::locked_endStreamBefore(uint64_t offset) {
  if (iState == kOFSStreaming && iStreamEnding) {
    // It took everything that was queued and only has to be answered by the server.
    locked_waitForEpoch(iEpoch);
    return;
  }
  OFS_TRACE_MESSAGE("canceling: offset={}, bytesAvailable={}", offset, iBytesAvailable);
  locked_cancelTransfer();
}

void OFSRemoteFile::locked_beginStreamWork(uint64_t offset) {
  iStreamWork.emplace();
  iBytesAvailable = 0;
  if (offset == 0) return;
  iFileHandle->synchronizeFile();
  // As a range: the head of a huge file is never in memory as a whole.
  iStreamWork->push_back(StreamPiece{{}, {0, offset}, 0});
  OFS_TRACE_MESSAGE("added work up to {}", offset);
}

bool OFSRemoteFile::locked_synchronizeStreamWorkRemaining(size_t count) {
  OFS_TRACE_MESSAGE("sync to {} remaining", count);
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(0.2 * gHardLimit);
  const auto queued = [this]() NO_THREAD_SAFETY_ANALYSIS { return iStreamWork ? iStreamWork->size() : 0; };
  while (iState == kOFSStreaming && queued() > count) {
    const bool woken = locked_waitUntilDate(deadline);
    if (!woken && iState == kOFSStreaming && queued() > count) return false;
    if (iLastError != nullptr) return false;
  }
  OFS_TRACE_MESSAGE("now has {} remaining", queued());
  return true;
}

// The stream confirms a state of the file only if each change up to it is in the stream: those before the
// first write through the head, which is read from the cache file, those after it because they come one by
// one.
void OFSRemoteFile::locked_queueStreamBytes(const void* bytes, uint64_t length, uint64_t offset,
                                            uint64_t generation) {
  const uint64_t end = offset + length;
  if (iState != kOFSStreaming) {
    iStreamGeneration = generation == iLocalGeneration ? generation : 0;
    iStreamLength = iFileHandle->fileLength();
  } else {
    const bool follows = iStreamGeneration != 0 && generation == iStreamGeneration + 1;
    iStreamGeneration = follows ? generation : 0;
    iStreamLength = std::max(iStreamLength, end);
  }
  iStreamWork->push_back(StreamPiece{std::string(static_cast<const char*>(bytes), length), {}, 0});
  iBytesRequired = end;
}

bool OFSRemoteFile::locked_startStream(uint64_t end) {
  // The worker clears these as well; until it runs they must not be taken for this stream's.
  iLastError.reset();
  iBytesAvailable = 0;
  iStreamTaken = 0;
  iStreamEnding = false;
  iStreamFailure.reset();
  locked_doubtServer();
  locked_setState(kOFSStreaming);
  const Epoch epoch = locked_performSelectorOnWorkerThread(&OFSRemoteFile::streamOnThread);
  locked_synchronizeStreamWorkRemaining(0);
  // A stream that ended before it took this write has not been able to start. One that only is slow goes on.
  if (iEpoch != epoch || iLastError == nullptr || iStreamTaken >= end) return true;
  OFS_TRACE_MESSAGE("stream fallback");
  gStreamingSupported = false;
  return false;
}

void OFSRemoteFile::streamOnThread(const std::shared_ptr<OFSRemoteFile>& file, Epoch epoch) {
  NSThread::setName("streaming " + file->remotePath());
  OFS_TRACE_MESSAGE("began {}", NSThread::name());
  const std::shared_ptr<KCConnectionPool> pool = file->connectionPool();
  StAbstractConnection holder(pool.get(), file.get());
  {
    const ConditionLock lock(file->iCondition);
    if (!file->locked_beginWorker(epoch)) return;
    file->iBytesAvailable = 0;
    file->iLastError.reset();
  }
  AbstractConnection& connection = *holder;
  NSErrorRef error;
  const std::string path = file->remotePath();
  file->iTransfer.begin(OFSTransferRecord::Direction::kUpload);
  const bool succeeded = file->lendConnection(epoch, connection) && ofs_runTransfer(&error, [&] {
                           return connection.streamBytesWithFilename(
                               connection.displayStringForRemoteString(path), path, *file, &error);
                         });
  file->iTransfer.end(path, succeeded ? nullptr : error);

  const ConditionLock lock(file->iCondition);
  OFS_TRACE_MESSAGE("finished {}: bytesAvailable={}, bytesRequired={}", NSThread::name(),
                    file->iBytesAvailable, file->iBytesRequired);
  if (file->iEpoch == epoch) file->locked_finishStream(succeeded, path, error);
  file->locked_endWorker(epoch);
}

void OFSRemoteFile::locked_finishStream(bool succeeded, const std::string& path, const NSErrorRef& error) {
  // Moved meanwhile: success would be that of a file that is elsewhere, and failure says nothing of streams.
  // What it took stays unconfirmed.
  const bool isMoved = path != remotePath();
  if (!isMoved && iBytesRequired != kCancelMark && (!succeeded || iStreamFailure != nullptr)) {
    const NSErrorRef& failure = iStreamFailure != nullptr ? iStreamFailure : error;
    OFS_TRACE_MESSAGE("error={}", ofs_describeError(failure));
    iLastError = failure != nullptr ? failure : NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO);
  }
  // The end of a stream confirms the file only as far as the stream had it all.
  if (succeeded && !isMoved && iStreamFailure == nullptr && iStreamTaken == iStreamLength)
    locked_confirm(iStreamGeneration);
  locked_setState(kOFSSettled);
  iBytesRequired = 0;
  iStreamWork.reset();
  iCondition.broadcast();
}

size_t OFSRemoteFile::connection(AbstractConnection& connection, std::byte* streamBytes, size_t length) {
  const ConditionLock lock(iCondition);
  OFS_TRACE_MESSAGE("streaming from {}", iBytesAvailable);
  const size_t count = locked_pullStreamBytes(connection, streamBytes, length);
  OFS_TRACE_MESSAGE("streamed up to {} {}", iBytesAvailable, iBytesRequired);
  return count;
}

size_t OFSRemoteFile::locked_pullStreamBytes(AbstractConnection& connection, std::byte* bytes,
                                             size_t capacity) {
  const NSDate deadline = NSDate::dateWithTimeIntervalSinceNow(0.1 * gHardLimit);
  bool timeIsUp = false;
  while (true) {
    if (locked_isGivenUp(connection)) {
      connection.setShouldCancel(true);
      return 0;
    }
    if (locked_streamWorkLength() > 0) return locked_takeStreamBytes(connection, bytes, capacity);
    if (iBytesRequired == kCancelMark) {
      OFS_TRACE_MESSAGE("canceling upload");
      connection.setShouldCancel(true);
      break;
    }
    if (timeIsUp || iSettleWaiters > 0) break;
    OFS_TRACE_MESSAGE("waiting until {}", ofs_describeDate(deadline));
    timeIsUp = !iCondition.waitUntilDate(deadline);
  }
  // From here on the library finishes the upload: a write that came now would never be asked for.
  iStreamEnding = true;
  return 0;
}

size_t OFSRemoteFile::locked_takeStreamBytes(AbstractConnection& connection, std::byte* bytes,
                                             size_t capacity) {
  StreamPiece& piece = iStreamWork->front();
  const size_t count = static_cast<size_t>(std::min<uint64_t>(piece.length(), capacity));
  if (!piece.bytes.empty()) {
    std::memcpy(bytes, piece.bytes.data() + piece.taken, count);
    piece.taken += count;
  } else {
    if (iFileHandle->readAt(bytes, count, piece.range.begin) != static_cast<ssize_t>(count)) {
      // Sending on without these bytes would store a damaged file.
      iStreamFailure = NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO);
      connection.setShouldCancel(true);
      iStreamEnding = true;
      return 0;
    }
    piece.range.begin += count;
  }
  if (piece.length() == 0) iStreamWork->pop_front();
  iBytesAvailable += count;
  iStreamTaken += count;
  iTransfer.moved(iStreamTaken);
  ++iMovements;
  iCondition.broadcast();
  return count;
}

}  // namespace ombra
