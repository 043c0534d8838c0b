#include "remote/sftp/SFTPWriteQueue.h"

#include <fmt/format.h>

#include <algorithm>

#include "remote/sftp/SFTPErrors.h"
#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
constexpr std::chrono::milliseconds kSlice{100};
// Content that the transport has not taken yet: enough to keep it busy, little enough to cancel.
constexpr size_t kMostUnsentBytes = 2 * 1024 * 1024;
// Requests that servers can be expected to have in hand, whatever their size.
constexpr size_t kMostPieces = 2048;
}  // namespace

SFTPWriteQueue::SFTPWriteQueue(SFTPChannel& channel, std::string handle, std::string path, Observer& observer)
    : iChannel(channel),
      iHandle(std::move(handle)),
      iPath(std::move(path)),
      iObserver(observer),
      iWindow(channel.writeLength()) {}

SFTPWriteQueue::~SFTPWriteQueue() {
  for (const Piece& piece : iPieces) {
    iChannel.abandon(piece.id);
    iObserver.notStored(piece.extent);
  }
}

std::span<std::byte> SFTPWriteQueue::next(uint64_t offset, size_t wanted, TransferControl& control,
                                          NSErrorRef* error) {
  if (isCancelled(control, error) || !settle(control, error)) return {};
  while (isFull()) {
    if (!settleFirst(control, error)) return {};
  }
  while (iChannel.outgoingSize() > kMostUnsentBytes) {
    if (isCancelled(control, error) || !iChannel.pump(kSlice, error)) return {};
  }
  iNextOffset = offset;
  return iChannel.beginWrite(iHandle, offset, std::min(wanted, iChannel.writeLength()));
}

// What has been acknowledged meanwhile is settled first, so that a refusal ends the transfer soon.
bool SFTPWriteQueue::settle(TransferControl& control, NSErrorRef* error) {
  while (!iPieces.empty() && iChannel.hasReply(iPieces.front().id)) {
    if (!settleFirst(control, error)) return false;
  }
  return true;
}

void SFTPWriteQueue::send(size_t length) {
  const uint32_t id = iChannel.finishWrite(length);
  iPieces.push_back({{iNextOffset, iNextOffset + length}, id});
  iUnderWay += length;
  iObserver.sent(iPieces.back().extent);
  iChannel.note(id, [&] { return fmt::format("write offset={} length={}", iNextOffset, length); });
}

// By bytes: of a program that writes page by page a few requests are next to nothing.
bool SFTPWriteQueue::isFull() const {
  return iUnderWay >= iWindow.limit() * iChannel.writeLength() || iPieces.size() >= kMostPieces;
}

void SFTPWriteQueue::countReply(const Piece& piece) {
  const uint64_t length = piece.extent.end - piece.extent.begin;
  iUnderWay -= length;
  iAnswered += length;
  if (iAnswered < iChannel.writeLength()) return;
  iAnswered = 0;
  iWindow.replied(iChannel.age(piece.id));
}

bool SFTPWriteQueue::isCancelled(TransferControl& control, NSErrorRef* error) {
  if (!control.shouldCancel()) return false;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, iPath));
  return true;
}

bool SFTPWriteQueue::settleFirst(TransferControl& control, NSErrorRef* error) {
  const Piece piece = iPieces.front();
  while (!iChannel.hasReply(piece.id)) {
    if (isCancelled(control, error) || !iChannel.pump(kSlice, error)) return false;
  }
  countReply(piece);
  auto reply = iChannel.take(piece.id);
  iPieces.pop_front();
  const auto status = parseSFTPStatus(*reply);
  iChannel.recycle(std::move(*reply));
  if (!status || status->code != kSFTPStatusOK) {
    iObserver.notStored(piece.extent);
    storeError(error, status ? errorForSFTPStatus(*status, SFTPOperation::kWrite, iPath)
                             : sftpProtocolError("no status for a write"));
    return false;
  }
  iObserver.stored(piece.extent);
  return true;
}

bool SFTPWriteQueue::flush(TransferControl& control, NSErrorRef* error) {
  do {
    if (isCancelled(control, error) || !iChannel.pump(std::chrono::milliseconds(0), error)) return false;
    if (iChannel.outgoingSize() > 0 && !iChannel.pump(kSlice, error)) return false;
  } while (iChannel.outgoingSize() > 0);
  return settle(control, error);
}

void SFTPWriteQueue::settleRest(TransferControl& control) {
  while (!iPieces.empty() && !iChannel.failure()) (void)settleFirst(control, nullptr);
}

bool SFTPWriteQueue::finish(TransferControl& control, NSErrorRef* error) {
  while (!iPieces.empty()) {
    if (!settleFirst(control, error)) return false;
  }
  return true;
}

}  // namespace ombra
