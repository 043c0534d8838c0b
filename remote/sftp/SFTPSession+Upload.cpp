// Uploads in place, whole uploads, and streams.
#include <algorithm>

#include "remote/RemotePaths.h"
#include "remote/RetryPauses.h"
#include "remote/sftp/FileExtents.h"
#include "remote/sftp/SFTPProtocol.h"
#include "remote/sftp/SFTPSession.h"
#include "remote/sftp/SFTPWriteQueue.h"

namespace ombra {

namespace {

// OpenSSH's server answers "no such file" for a handle it does not know, others "failure".
bool isStaleHandle(const NSErrorRef& error) {
  return QuarnKitError::isCode(error, kQuarnKitNoSuchItem) || QuarnKitError::isCode(error, kQuarnKitRefused);
}

// For what is done between two calls: nobody looks on, and silence ends it.
class NoControl final : public TransferControl {
 public:
  void progress(uint64_t) override {}
  bool shouldCancel() const override { return false; }
};

bool isAllUnconfirmed(const NSFileHandle& from, uint64_t length) {
  const std::vector<FileExtent> unconfirmed = from.unconfirmedExtents(0);
  const std::vector<FileExtent> data = dataExtents(from, 0, length);
  return std::all_of(data.begin(), data.end(), [&unconfirmed](const FileExtent& extent) {
    return std::any_of(unconfirmed.begin(), unconfirmed.end(), [&extent](const FileExtent& other) {
      return other.begin <= extent.begin && extent.end <= other.end;
    });
  });
}

}  // namespace

bool SFTPSession::upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
                         NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const Walks::Change change(*iWalks, path);
  iNewFile.reset();
  NSErrorRef reason;
  const bool succeeded = from.isScratch() ? uploadChanges(from, path, offset, control, &reason)
                                          : uploadCopy(from, path, offset, control, &reason);
  const bool isOurs = isUploadOf(from, path);
  if (succeeded) {
    if (iNewFile) control.newFileIsThere(fileAttributesFromSFTP(*iNewFile));
    if (isOurs) iChannel.lend();
    return true;
  }
  if (isOurs && QuarnKitError::isCode(reason, kQuarnKitCancelled)) {
    // Whoever cancels does not wait for what is in flight. Whoever sends to this path next does, because it
    // must not arrive behind that: until then the file counts as being sent.
    iChannel.lend();
  } else if (isOurs) {
    // Nobody knows what the handle still stands for.
    dropUpload();
  }
  storeError(error, explainWrite(reason, path));
  return false;
}

bool SFTPSession::isUploadOf(const NSFileHandle& from, std::string_view path) const {
  return iUpload != nullptr && iUpload->path() == path && iUpload->extents() == from.extents();
}

bool SFTPSession::openUpload(std::string_view path, uint32_t flags,
                             std::shared_ptr<UnconfirmedExtents> extents, NSErrorRef* error) {
  finishUpload();
  const uint32_t openID = iRequests.open(path, flags);
  // Whoever makes a file looks next whether it is there, and sets its mode, mostly to what it is already:
  // asked for in the same round trip.
  const bool looks = extents != nullptr && (flags & kSFTPOpenTruncate) != 0;
  const uint32_t lstatID = looks ? iRequests.lstat(path) : 0;
  const auto handle = waitHandle(openID, SFTPOperation::kChangeName, path, error);
  if (!handle) {
    if (looks) iChannel.abandon(lstatID);
    return false;
  }
  std::optional<SFTPAttributes> made;
  if (looks) made = waitAttributes(lstatID, SFTPOperation::kOther, path, nullptr);
  uint64_t remoteLength = 0;
  if ((flags & kSFTPOpenTruncate) == 0) {
    const auto present = waitAttributes(iRequests.fstat(*handle), SFTPOperation::kOther, path, error);
    if (!present) {
      if (!iChannel.failure()) iChannel.abandon(iRequests.close(*handle));
      return false;
    }
    remoteLength = present->size.value_or(0);
  }
  iUpload = std::make_unique<SFTPUpload>(iChannel, iRequests, std::string(path), *handle, std::move(extents),
                                         remoteLength);
  if (made && made->isFile()) iUpload->setMode(made->permissions);
  iNewFile = made;
  return true;
}

// An ordinary file: nobody will come back for it, so that the answer is the last word.
bool SFTPSession::uploadCopy(NSFileHandle& from, std::string_view path, uint64_t offset,
                             TransferControl& control, NSErrorRef* error) {
  constexpr uint32_t kAnew = kSFTPOpenWrite | kSFTPOpenCreate | kSFTPOpenTruncate;
  const uint32_t flags = offset == 0 ? kAnew : kSFTPOpenWrite | kSFTPOpenCreate;
  return openUpload(path, flags, from.extents(), error) && iUpload->sendAll(from, offset, control, error) &&
         closeUpload(error);
}

bool SFTPSession::uploadChanges(NSFileHandle& from, std::string_view path, uint64_t offset,
                                TransferControl& control, NSErrorRef* error) {
  // A session that was lost with writes under way costs nothing but sending them again. What the server
  // refused meanwhile is told instead.
  NSErrorRef earlier = from.extents()->takeFailure();
  if (earlier != nullptr && !isOutage(earlier)) {
    storeError(error, std::move(earlier));
    return false;
  }
  const bool wasOpen = isUploadOf(from, path);
  if (!wasOpen && !openForChanges(from, path, error)) return false;
  NSErrorRef reason;
  if (iUpload->sendChanges(from, offset, control, &reason)) return true;
  if (!wasOpen || !isStaleHandle(reason) || iChannel.failure()) {
    storeError(error, std::move(reason));
    return false;
  }
  // Servers let go of handles by their own rules; what was not acknowledged is unconfirmed again.
  dropUpload();
  return openForChanges(from, path, error) && iUpload->sendChanges(from, offset, control, error) &&
         iUpload->finish(control, error);
}

bool SFTPSession::openForChanges(NSFileHandle& from, std::string_view path, NSErrorRef* error) {
  const uint64_t length = from.fileLength();
  // Where the server has nothing of the file, what is there goes at once.
  const uint32_t truncation = isAllUnconfirmed(from, length) ? uint32_t{kSFTPOpenTruncate} : 0;
  const uint32_t flags = kSFTPOpenWrite | kSFTPOpenCreate | truncation;
  return openUpload(path, flags, from.extents(), error);
}

// The close travels right behind the last write: one wait for all. A full disk or quota may show only there.
bool SFTPSession::endUpload(NSErrorRef* failure) {
  NoControl control;
  const std::string path = iUpload->path();
  // Of what was written behind, the last has arrived only now.
  const Walks::Change change(*iWalks, path);
  const uint32_t id = iRequests.close(iUpload->handle());
  NSErrorRef reason;
  const bool isStored = iUpload->finish(control, &reason);
  if (!isStored) iUpload->settleRest(control);
  const bool isClosed = waitStatus(id, SFTPOperation::kWrite, path, isStored ? &reason : nullptr);
  const bool succeeded = isStored && isClosed;
  if (!succeeded && *failure == nullptr) *failure = explainWrite(std::move(reason), path);
  return isClosed;
}

bool SFTPSession::closeUpload(NSErrorRef* error) {
  NSErrorRef failure;
  const bool isClosed = endUpload(&failure);
  iUpload->end(failure, isClosed);
  iUpload.reset();
  if (failure == nullptr) return true;
  storeError(error, std::move(failure));
  return false;
}

void SFTPSession::finishUpload() {
  if (iUpload != nullptr) (void)closeUpload(nullptr);
}

void SFTPSession::dropUpload() {
  if (iUpload == nullptr) return;
  NSErrorRef ignored;
  const bool isClosed = endUpload(&ignored);
  iUpload->end(nullptr, isClosed);
  iUpload.reset();
}

void SFTPSession::closeUploadHandleBelow(std::string_view path) {
  if (iUpload != nullptr && isAtOrBelowRemotePath(iUpload->path(), path)) finishUpload();
}

// Some systems flush through a handle for writing alone. A file that may only be written, or only be read, is
// opened in the way that it may be.
std::optional<std::string> SFTPSession::openForFlush(std::string_view path, NSErrorRef* error) {
  for (const uint32_t flags : {kSFTPOpenWrite, kSFTPOpenRead}) {
    *error = nullptr;
    auto handle = waitHandle(iRequests.open(path, flags), SFTPOperation::kOther, path, error);
    if (handle || iChannel.failure()) return handle;
  }
  return std::nullopt;
}

// A slow disk may keep the server silent for long.
bool SFTPSession::flushFile(std::string_view path, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  if (!iChannel.hasExtension("fsync@openssh.com", "1")) return true;
  NSErrorRef reason;
  if (iUpload != nullptr && iUpload->path() == path) {
    const uint32_t id = iRequests.fsync(iUpload->handle());
    if (waitStatusPatiently(id, SFTPOperation::kWrite, path, &reason)) return true;
    // A handle that the server has let go of says nothing about the file. Any other refusal stands: systems
    // tell of a failed flush once.
    if (iChannel.failure() || !QuarnKitError::isCode(reason, kQuarnKitNoSuchItem)) {
      storeError(error, std::move(reason));
      return false;
    }
  }
  const auto handle = openForFlush(path, &reason);
  if (!handle) {
    storeError(error, std::move(reason));
    return false;
  }
  const uint32_t id = iRequests.fsync(*handle);
  iChannel.abandon(iRequests.close(*handle));
  return waitStatusPatiently(id, SFTPOperation::kWrite, path, error);
}

bool SFTPSession::sendStream(const std::function<size_t(std::byte*, size_t)>& next, SFTPWriteQueue& queue,
                             TransferControl& control, std::string_view path, NSErrorRef* error) {
  for (uint64_t at = 0;;) {
    const std::span<std::byte> room = queue.next(at, SIZE_MAX / 2, control, error);
    if (room.empty()) return false;
    const size_t count = std::min(next(room.data(), room.size()), room.size());
    // However long the writer took, the server was not asked for anything meanwhile.
    iChannel.touch();
    if (control.shouldCancel()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
      return false;
    }
    if (count == 0) return queue.finish(control, error);
    queue.send(count);
    at += count;
    if (!iChannel.pump(std::chrono::milliseconds(0), error)) return false;
  }
}

bool SFTPSession::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                         TransferControl& control, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  closeUploadHandleBelow(path);
  const Walks::Change change(*iWalks, path);
  const uint32_t flags = kSFTPOpenWrite | kSFTPOpenCreate | kSFTPOpenTruncate;
  const auto handle = waitHandle(iRequests.open(path, flags), SFTPOperation::kChangeName, path, error);
  if (!handle) return false;
  NSErrorRef reason;
  bool succeeded = false;
  {
    SFTPWriteQueue::Observer nobody;
    SFTPWriteQueue queue(iChannel, *handle, std::string(path), nobody);
    succeeded = sendStream(next, queue, control, path, &reason);
    NoControl never;
    // Also of a stream that was cancelled: what follows it to the path, perhaps on another session, must not
    // meet the rest of it there.
    if (!succeeded) queue.settleRest(never);
  }
  const uint32_t closeID = iChannel.failure() ? 0 : iRequests.close(*handle);
  // A full disk or quota may show only here.
  const bool isClosed =
      closeID != 0 && waitStatus(closeID, SFTPOperation::kWrite, path, succeeded ? &reason : nullptr);
  succeeded = succeeded && isClosed;
  if (!succeeded) storeError(error, explainWrite(reason, path));
  return succeeded;
}

// The protocol has no status for a full disk, and none for a read-only one: where the server refuses without
// a reason, its volume tells.
NSErrorRef SFTPSession::explainWrite(NSErrorRef refused, std::string_view path) {
  const bool isChange = QuarnKitError::isCode(refused, kQuarnKitAttributeChangeNotSupported);
  if ((!isChange && !QuarnKitError::isCode(refused, kQuarnKitRefused)) || iChannel.failure()) return refused;
  auto volume = volumeOf(path, nullptr);
  if (!volume && !iChannel.failure()) volume = volumeOf(parentOfRemotePath(path), nullptr);
  if (!volume) return refused;
  if (volume->isReadOnly) return QuarnKitError::errorWithCode(kQuarnKitReadOnly, path, refused);
  constexpr uint64_t kNothingWorthMentioning = 64 * 1024;
  const bool isFull =
      volume->availableBlocks <= kNothingWorthMentioning / std::max<uint64_t>(volume->blockSize, 1);
  return isFull && !isChange ? QuarnKitError::errorWithCode(kQuarnKitOutOfSpace, path, refused) : refused;
}

}  // namespace ombra
