#include "remote/sftp/SFTPUpload.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "remote/QuarnKitError.h"
#include "remote/sftp/FileExtents.h"
#include "remote/sftp/SFTPErrors.h"
#include "remote/sftp/SFTPPacket.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

SFTPUpload::SFTPUpload(SFTPChannel& channel, SFTPRequests& requests, std::string path, std::string handle,
                       std::shared_ptr<UnconfirmedExtents> extents, uint64_t remoteLength)
    : iChannel(channel),
      iRequests(requests),
      iPath(std::move(path)),
      iHandle(std::move(handle)),
      iExtents(std::move(extents)),
      iRemoteLength(remoteLength) {
  iQueue.emplace(iChannel, iHandle, iPath, static_cast<SFTPWriteQueue::Observer&>(*this));
  iExtents->beginSending();
}

SFTPUpload::~SFTPUpload() { end(QuarnKitError::errorWithCode(kQuarnKitConnectionLost, iPath), false); }

void SFTPUpload::end(NSErrorRef failure, bool isClosed) {
  if (std::exchange(iEnded, true)) return;
  iQueue.reset();
  if (!isClosed) {
    // Servers that store at the close have thrown all of it away.
    for (const FileExtent& extent : iAcknowledged.all()) iExtents->giveBack(extent);
  }
  iExtents->endSending(std::move(failure));
}

void SFTPUpload::sent(FileExtent extent) {
  // From here on a local write to it is a change that has to be sent again.
  iExtents->remove(extent);
  iRemoteLength = std::max(iRemoteLength, extent.end);
  // A write may take set-user-id bits away.
  iMode.reset();
}

void SFTPUpload::stored(FileExtent extent) {
  // Told also when no call runs any more: somebody may wait for the last of it.
  if (iExtents != nullptr) iExtents->noteProgress();
  iAcknowledged.add(extent);
  if (iControl != nullptr) iControl->progress(extent.end);
}

void SFTPUpload::notStored(FileExtent extent) { iExtents->giveBack(extent); }

bool SFTPUpload::sendAll(const NSFileHandle& from, uint64_t offset, TransferControl& control,
                         NSErrorRef* error) {
  const uint64_t length = from.fileLength();
  // Holes are left out where the server has nothing, and overwritten where it has something.
  const uint64_t begin = std::min(offset, iRemoteLength);
  const uint64_t overlap = std::clamp(iRemoteLength, begin, std::max(begin, length));
  std::vector<FileExtent> extents;
  if (begin < overlap) extents.push_back({begin, overlap});
  const std::vector<FileExtent> beyond = dataExtents(from, overlap, length);
  extents.insert(extents.end(), beyond.begin(), beyond.end());
  iControl = &control;
  const bool succeeded = send(from, extents, control, error) &&
                         (iRemoteLength >= length || setRemoteLength(length, error)) &&
                         iQueue->finish(control, error);
  iControl = nullptr;
  if (succeeded) control.progress(length);
  return succeeded;
}

bool SFTPUpload::sendChanges(NSFileHandle& from, uint64_t offset, TransferControl& control,
                             NSErrorRef* error) {
  const uint64_t length = from.fileLength();
  iControl = &control;
  const bool succeeded =
      cutToFit(offset, length, control, error) &&
      send(from, extentsToSend(from, offset, length), control, error) &&
      (iRemoteLength >= length || setRemoteLength(length, error)) &&
      (control.mayReturnEarly() ? leaveToBackground(control, error) : iQueue->finish(control, error));
  iControl = nullptr;
  if (!succeeded) return false;
  iExtents->forgetGivenBack();
  control.progress(length);
  return true;
}

bool SFTPUpload::leaveToBackground(TransferControl& control, NSErrorRef* error) {
  return iChannel.canLend() ? iQueue->settle(control, error) : iQueue->flush(control, error);
}

bool SFTPUpload::cutToFit(uint64_t offset, uint64_t length, TransferControl& control, NSErrorRef* error) {
  uint64_t kept = offset == 0 ? std::min(length, iRemoteLength) : iRemoteLength;
  if (const auto least = iExtents->leastLength()) kept = std::min(kept, *least);
  // What was written behind the new end before must not arrive after the cut.
  if (kept < iRemoteLength && !(iQueue->finish(control, error) && setRemoteLength(kept, error))) return false;
  iExtents->forgetLeastLength();
  return true;
}

std::vector<FileExtent> SFTPUpload::extentsToSend(const NSFileHandle& from, uint64_t offset,
                                                  uint64_t length) {
  // Behind its end the server would show zeros, also where it had been sent the content once.
  for (const FileExtent& lost : dataExtents(from, iRemoteLength, length)) iExtents->add(lost);
  const uint64_t givenBack = iExtents->givenBackFrom().value_or(offset);
  std::vector<FileExtent> extents = iExtents->from(std::min({offset, iRemoteLength, givenBack}));
  // Written and then cut off: not there any more.
  std::erase_if(extents, [length](const FileExtent& extent) { return extent.begin >= length; });
  if (!extents.empty()) extents.back().end = std::min(extents.back().end, length);
  return extents;
}

bool SFTPUpload::send(const NSFileHandle& from, const std::vector<FileExtent>& extents,
                      TransferControl& control, NSErrorRef* error) {
  for (const FileExtent& extent : extents) {
    for (uint64_t at = extent.begin; at < extent.end;) {
      const size_t wanted = static_cast<size_t>(std::min<uint64_t>(extent.end - at, SIZE_MAX / 2));
      const std::span<std::byte> room = iQueue->next(at, wanted, control, error);
      if (room.empty()) return false;
      const ssize_t count = from.readAt(room.data(), room.size(), at);
      if (count < 0) {
        const NSErrorRef cause = NSError::errorWithDomain(NSPOSIXErrorDomain, errno);
        storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, {}, cause));
        return false;
      }
      // Cut short meanwhile: the length is settled by whoever did that.
      if (count == 0) return true;
      iQueue->send(static_cast<size_t>(count));
      at += static_cast<uint64_t>(count);
    }
  }
  return true;
}

bool SFTPUpload::setRemoteLength(uint64_t length, NSErrorRef* error) {
  SFTPAttributes attributes;
  attributes.size = length;
  const uint32_t id = iRequests.fsetstat(iHandle, attributes);
  auto reply = iChannel.wait(id, error);
  if (!reply) return false;
  const auto status = parseSFTPStatus(*reply);
  iChannel.recycle(std::move(*reply));
  if (status && status->code == kSFTPStatusOK) {
    iRemoteLength = length;
    return true;
  }
  storeError(error, status ? errorForSFTPStatus(*status, SFTPOperation::kWrite, iPath)
                           : sftpProtocolError("no status for a change of length"));
  return false;
}

}  // namespace ombra
