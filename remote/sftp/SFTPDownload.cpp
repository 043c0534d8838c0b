#include "remote/sftp/SFTPDownload.h"

#include <algorithm>
#include <cerrno>

#include "remote/sftp/SFTPErrors.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
// How long a wait may keep a cancellation unnoticed.
constexpr std::chrono::milliseconds kSlice{100};
}  // namespace

SFTPDownload::SFTPDownload(SFTPChannel& channel, std::string handle, std::string path, NSFileHandle& to,
                           uint64_t offset)
    : iChannel(channel),
      iRequests(channel),
      iHandle(std::move(handle)),
      iPath(std::move(path)),
      iTo(to),
      iWindow(channel.readLength()),
      iNextOffset(offset),
      iReached(offset) {}

SFTPDownload::~SFTPDownload() {
  for (const Piece& piece : iPieces) iChannel.abandon(piece.id);
}

// With the one that finds the end.
void SFTPDownload::begin(std::optional<uint64_t> likelyLength) {
  size_t most = iWindow.limit();
  if (likelyLength) {
    const uint64_t left = *likelyLength - std::min(*likelyLength, iNextOffset);
    most = static_cast<size_t>(std::min<uint64_t>(most, left / iChannel.readLength() + 1));
  }
  fill(most);
}

void SFTPDownload::beginWith(uint32_t readID, size_t length) {
  iPieces.push_back({iNextOffset, length, readID});
  iNextOffset += length;
}

void SFTPDownload::fill(size_t most) {
  while (iPieces.size() < most) {
    // One request past the expected end finds it, or shows that the file has grown.
    if (iExpectedLength && iNextOffset > *iExpectedLength && !iPieces.empty()) return;
    Piece piece;
    piece.offset = iNextOffset;
    piece.length = iChannel.readLength();
    // To the very end, so that no reply there is shorter than asked and has to be asked for again.
    if (iExpectedLength && iNextOffset < *iExpectedLength && *iExpectedLength - iNextOffset < piece.length) {
      piece.length = static_cast<size_t>(*iExpectedLength - iNextOffset);
    }
    piece.id = iRequests.read(iHandle, piece.offset, piece.length);
    iPieces.push_back(piece);
    iNextOffset += piece.length;
    if (iExpectedLength && piece.offset == *iExpectedLength) iNextOffset = *iExpectedLength + 1;
  }
}

bool SFTPDownload::run(TransferControl& control, NSErrorRef* error) {
  while (!iEnded) {
    fill(iWindow.limit());
    if (!waitForFirst(control, error)) return false;
    iWindow.replied(iChannel.age(iPieces.front().id));
    auto reply = iChannel.take(iPieces.front().id);
    const bool taken = takeFirst(*reply, error);
    iChannel.recycle(std::move(*reply));
    if (!taken) return false;
    if (!iEnded) control.progress(iReached);
  }
  return true;
}

bool SFTPDownload::waitForFirst(TransferControl& control, NSErrorRef* error) {
  while (true) {
    if (control.shouldCancel()) {
      storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, iPath));
      return false;
    }
    if (iChannel.hasReply(iPieces.front().id)) return true;
    if (!iChannel.pump(kSlice, error)) return false;
  }
}

// The reply to the oldest request, which is where the local file ends.
bool SFTPDownload::takeFirst(const SFTPReply& reply, NSErrorRef* error) {
  Piece& piece = iPieces.front();
  if (const auto status = parseSFTPStatus(reply)) {
    iPieces.pop_front();
    if (status->code == kSFTPStatusEOF) {
      iEnded = true;
      return true;
    }
    storeError(error, status->code == kSFTPStatusOK
                          ? sftpProtocolError("a read that is neither data nor refused")
                          : errorForSFTPStatus(*status, SFTPOperation::kOther, iPath));
    return false;
  }
  const auto data = parseSFTPData(reply);
  if (!data || data->empty() || data->size() > piece.length) {
    iPieces.pop_front();
    storeError(error, sftpProtocolError("data of a length that was not asked for"));
    return false;
  }
  const uint64_t offset = piece.offset;
  if (data->size() == piece.length) {
    iPieces.pop_front();
  } else if (offset + data->size() == iExpectedLength) {
    // Short because the content ends here, as the attributes said: worth no further round trip.
    iEnded = true;
  } else {
    // The rest is asked for at once; the pieces after it wait for it.
    piece.offset += data->size();
    piece.length -= data->size();
    piece.id = iRequests.read(iHandle, piece.offset, piece.length);
  }
  if (iPieces.empty()) iNextOffset = offset + data->size();
  return write(*data, offset, error);
}

bool SFTPDownload::write(std::span<const std::byte> data, uint64_t offset, NSErrorRef* error) {
  if (!iTo.writeAll(data.data(), data.size(), offset)) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, iPath,
                                                   NSError::errorWithDomain(NSPOSIXErrorDomain, errno)));
    return false;
  }
  iReached = offset + data.size();
  return true;
}

}  // namespace ombra
