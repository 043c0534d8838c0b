// Uploads in place, whole uploads, and streams.
#include <algorithm>
#include <cerrno>

#include "remote/sftp/FileExtents.h"
#include "remote/sftp/SFTPPaths.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPSession.h"
#include "remote/sftp/SFTPWriteQueue.h"

namespace ombra {

namespace {

// OpenSSH's server answers "no such file" for a handle it does not know, others "failure".
bool isStaleHandle(const NSErrorRef& error) {
  return QuarnKitError::isCode(error, kQuarnKitNoSuchItem) || QuarnKitError::isCode(error, kQuarnKitRefused);
}

}  // namespace

bool SFTPSession::upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                         NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  NSErrorRef reason;
  const bool wasOpen = iUploadHandle && iUploadHandle->path == path;
  bool succeeded = offset == 0 ? uploadWhole(from, path, control, &reason)
                               : uploadFrom(from, path, offset, control, &reason);
  if (!succeeded && offset != 0 && wasOpen && isStaleHandle(reason)) {
    // Servers let go of handles by their own rules; what was not acknowledged is still marked as unsent.
    closeUploadHandle();
    reason = nullptr;
    succeeded = uploadFrom(from, path, offset, control, &reason);
  }
  if (!succeeded && offset != 0 && QuarnKitError::isCode(reason, kQuarnKitNoSuchItem)) {
    // The file that was to be changed is gone: what was confirmed went with it.
    reason = nullptr;
    succeeded = uploadWhole(from, path, control, &reason);
  }
  if (succeeded) return true;
  // After a failure nobody knows what the handle still stands for.
  closeUploadHandle();
  storeError(error, explainWrite(reason, path));
  return false;
}

bool SFTPSession::openUploadHandle(std::string_view path, uint32_t flags, NSErrorRef* error) {
  closeUploadHandle();
  const auto handle = waitHandle(iRequests.open(path, flags), SFTPOperation::kChangeName, path, error);
  if (!handle) return false;
  iUploadHandle = UploadHandle{std::string(path), *handle};
  return true;
}

void SFTPSession::closeUploadHandle() {
  if (!iUploadHandle) return;
  const std::string handle = iUploadHandle->handle;
  iUploadHandle.reset();
  if (iChannel.failure()) return;
  iChannel.abandon(iRequests.close(handle));
  iChannel.flushBriefly();
}

void SFTPSession::closeUploadHandleBelow(std::string_view path) {
  if (iUploadHandle && sftpIsAtOrBelow(iUploadHandle->path, path)) closeUploadHandle();
}

bool SFTPSession::uploadWhole(NSFileHandle& from, std::string_view path, TransferControl& control,
                              NSErrorRef* error) {
  const uint64_t length = from.fileLength();
  // The truncation takes away what had been confirmed before.
  if (from.isScratch() && length > 0) from.noteWritten({0, length});
  if (!openUploadHandle(path, kSFTPOpenWrite | kSFTPOpenCreate | kSFTPOpenTruncate, error)) return false;
  const std::vector<FileExtent> extents = dataExtents(from, 0, length);
  SFTPWriteQueue queue(iChannel, iUploadHandle->handle, std::string(path), control, [&](FileExtent extent) {
    if (from.isScratch()) from.noteConfirmed(extent);
    control.progress(extent.end);
  });
  if (!sendExtents(from, extents, queue, error)) return false;
  const bool endsInHole = length > 0 && (extents.empty() || extents.back().end < length);
  if (endsInHole && !setRemoteLength(length, error)) return false;
  if (!queue.finish(error)) return false;
  // The holes are there as well, without having been sent.
  if (from.isScratch() && length > 0) from.noteConfirmed({0, length});
  control.progress(length);
  return true;
}

std::vector<FileExtent> SFTPSession::extentsToSend(const NSFileHandle& from, uint64_t offset,
                                                   uint64_t length) const {
  if (!from.isScratch())
    return offset < length ? std::vector<FileExtent>{{offset, length}} : std::vector<FileExtent>();
  std::vector<FileExtent> extents = from.unconfirmedExtents(offset);
  // Written and then cut off: not there any more.
  std::erase_if(extents, [length](const FileExtent& extent) { return extent.begin >= length; });
  if (!extents.empty()) extents.back().end = std::min(extents.back().end, length);
  return extents;
}

// Someone made the remote file shorter: what lies between its end and the first extent would be zeros there,
// so it is sent again where it is not.
void SFTPSession::addLostExtents(NSFileHandle& from, uint64_t remoteLength, uint64_t offset, uint64_t length,
                                 std::vector<FileExtent>* extents) const {
  const uint64_t firstSent = std::min(offset, extents->empty() ? length : extents->front().begin);
  if (remoteLength >= firstSent) return;
  std::vector<FileExtent> lost = dataExtents(from, remoteLength, firstSent);
  for (const FileExtent& extent : lost) {
    if (from.isScratch()) from.noteWritten(extent);
  }
  lost.insert(lost.end(), extents->begin(), extents->end());
  *extents = std::move(lost);
}

bool SFTPSession::uploadFrom(NSFileHandle& from, std::string_view path, uint64_t offset,
                             TransferControl& control, NSErrorRef* error) {
  const bool isFresh = !iUploadHandle || iUploadHandle->path != path;
  if (isFresh && !openUploadHandle(path, kSFTPOpenWrite, error)) return false;
  const uint64_t length = from.fileLength();
  std::vector<FileExtent> extents = extentsToSend(from, offset, length);
  const bool reachesEnd = !extents.empty() && extents.back().end >= length;
  std::optional<uint64_t> remoteLength;
  // On an open handle a write up to the end needs no question: that is the one round trip of an append.
  if (isFresh || !reachesEnd) {
    const auto present =
        waitAttributes(iRequests.fstat(iUploadHandle->handle), SFTPOperation::kOther, path, error);
    if (!present) return false;
    remoteLength = present->size;
  }
  if (isFresh && remoteLength) addLostExtents(from, *remoteLength, offset, length, &extents);
  SFTPWriteQueue queue(iChannel, iUploadHandle->handle, std::string(path), control, [&](FileExtent extent) {
    if (from.isScratch()) from.noteConfirmed(extent);
    control.progress(extent.end);
  });
  if (!sendExtents(from, extents, queue, error)) return false;
  if (!reachesEnd && remoteLength && *remoteLength < length && !setRemoteLength(length, error)) return false;
  if (!queue.finish(error)) return false;
  control.progress(length);
  return true;
}

bool SFTPSession::sendExtents(NSFileHandle& from, const std::vector<FileExtent>& extents,
                              SFTPWriteQueue& queue, NSErrorRef* error) {
  for (const FileExtent& extent : extents) {
    for (uint64_t at = extent.begin; at < extent.end;) {
      const std::span<std::byte> room =
          queue.next(at, static_cast<size_t>(std::min<uint64_t>(extent.end - at, SIZE_MAX / 2)), error);
      if (room.empty()) return false;
      const ssize_t count = from.readAt(room.data(), room.size(), at);
      if (count < 0) {
        storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {},
                                                       NSError::errorWithDomain(NSPOSIXErrorDomain, errno)));
        return false;
      }
      // Cut short meanwhile: the length is settled by whoever did that.
      if (count == 0) return true;
      queue.send(static_cast<size_t>(count));
      at += static_cast<uint64_t>(count);
    }
  }
  return true;
}

bool SFTPSession::setRemoteLength(uint64_t length, NSErrorRef* error) {
  SFTPAttributes attributes;
  attributes.size = length;
  const uint32_t id = iRequests.fsetstat(iUploadHandle->handle, attributes);
  return waitStatus(id, SFTPOperation::kWrite, iUploadHandle->path, error);
}

bool SFTPSession::sendStream(const std::function<size_t(std::byte*, size_t)>& next, SFTPWriteQueue& queue,
                             TransferControl& control, std::string_view path, NSErrorRef* error) {
  for (uint64_t at = 0;;) {
    const std::span<std::byte> room = queue.next(at, SIZE_MAX / 2, error);
    if (room.empty()) return false;
    const size_t count = std::min(next(room.data(), room.size()), room.size());
    // However long the writer took, the server was not asked for anything meanwhile.
    iChannel.touch();
    if (control.shouldCancel()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
      return false;
    }
    if (count == 0) return queue.finish(error);
    queue.send(count);
    at += count;
    if (!iChannel.pump(std::chrono::milliseconds(0), error)) return false;
  }
}

bool SFTPSession::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                         TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  closeUploadHandleBelow(path);
  const uint32_t flags = kSFTPOpenWrite | kSFTPOpenCreate | kSFTPOpenTruncate;
  const auto handle = waitHandle(iRequests.open(path, flags), SFTPOperation::kChangeName, path, error);
  if (!handle) return false;
  NSErrorRef reason;
  bool succeeded = false;
  {
    SFTPWriteQueue queue(iChannel, *handle, std::string(path), control, [](FileExtent) {});
    succeeded = sendStream(next, queue, control, path, &reason);
  }
  const uint32_t closeID = iChannel.failure() ? 0 : iRequests.close(*handle);
  // A full disk or quota may show only here.
  if (succeeded) {
    succeeded = waitStatus(closeID, SFTPOperation::kWrite, path, &reason);
  } else if (closeID != 0) {
    iChannel.abandon(closeID);
  }
  if (!succeeded) storeError(error, explainWrite(reason, path));
  return succeeded;
}

// The protocol has no status for a full disk: where the server refuses without a reason, the volume's free
// space tells.
NSErrorRef SFTPSession::explainWrite(NSErrorRef refused, std::string_view path) {
  if (!QuarnKitError::isCode(refused, kQuarnKitRefused) || iChannel.failure()) return refused;
  const auto volume = fileSystemAttributes(path, nullptr);
  constexpr uint64_t kNothingWorthMentioning = 64 * 1024;
  if (!volume || !volume->systemFreeSize || *volume->systemFreeSize > kNothingWorthMentioning) return refused;
  return QuarnKitError::errorWithCode(kQuarnKitOutOfSpace, path, refused);
}

}  // namespace ombra
