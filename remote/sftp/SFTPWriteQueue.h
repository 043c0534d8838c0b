// File content on its way to the server, with many requests in flight.
#pragma once

#include <deque>
#include <string>

#include "platform/foundation/NSFileHandle.h"
#include "remote/Session.h"
#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPTransferWindow.h"

namespace ombra {

// Writes to an open remote handle. Each piece counts as stored when the server has acknowledged it. After a
// failure nothing more is sent. One thread at a time.
class SFTPWriteQueue {
 public:
  // Learns what becomes of each piece.
  class Observer {
   public:
    virtual ~Observer() = default;
    virtual void sent(FileExtent) {}
    // In the order of sending.
    virtual void stored(FileExtent) {}
    // Refused, or its acknowledgement will not come.
    virtual void notStored(FileExtent) {}
  };

  SFTPWriteQueue(SFTPChannel& channel, std::string handle, std::string path, Observer& observer);
  // Drops the acknowledgements that are still due.
  ~SFTPWriteQueue();
  SFTPWriteQueue(const SFTPWriteQueue&) = delete;
  SFTPWriteQueue& operator=(const SFTPWriteQueue&) = delete;

  // Room for the piece at `offset`; waits while too much is in flight. Empty on failure or cancellation.
  std::span<std::byte> next(uint64_t offset, size_t wanted, TransferControl& control, NSErrorRef* error);
  // Sends the first `length` bytes (> 0) of that room.
  void send(size_t length);
  // Waits until all has left, but not for what the server says to it.
  [[nodiscard]] bool flush(TransferControl& control, NSErrorRef* error);
  // Looks, without waiting, at what the server has said already.
  [[nodiscard]] bool settle(TransferControl& control, NSErrorRef* error);
  // Waits for all answers that are still due, refusals too, as long as the channel lives: what is in flight
  // must not arrive after what others send.
  void settleRest(TransferControl& control);
  // Waits for all acknowledgements.
  [[nodiscard]] bool finish(TransferControl& control, NSErrorRef* error);

 private:
  struct Piece {
    FileExtent extent;
    uint32_t id = 0;
  };

  bool settleFirst(TransferControl& control, NSErrorRef* error);
  bool isFull() const;
  void countReply(const Piece& piece);
  bool isCancelled(TransferControl& control, NSErrorRef* error);

  SFTPChannel& iChannel;
  const std::string iHandle;
  const std::string iPath;
  Observer& iObserver;
  SFTPTransferWindow iWindow;
  std::deque<Piece> iPieces;
  uint64_t iUnderWay = 0;  // bytes of the pieces
  uint64_t iAnswered = 0;  // bytes since the window was last told
  uint64_t iNextOffset = 0;
};

}  // namespace ombra
