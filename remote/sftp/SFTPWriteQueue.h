// File content on its way to the server, with many requests in flight.
#pragma once

#include <deque>
#include <functional>
#include <string>

#include "platform/foundation/NSFileHandle.h"
#include "remote/Session.h"
#include "remote/sftp/SFTPChannel.h"
#include "remote/sftp/SFTPTransferWindow.h"

namespace ombra {

// Writes to an open remote handle. Each piece counts as stored when the server has acknowledged it, and only
// then is `confirmed` called for it, in the order of sending. After a failure nothing more is sent. One
// thread at a time.
class SFTPWriteQueue {
 public:
  SFTPWriteQueue(SFTPChannel& channel, std::string handle, std::string path, TransferControl& control,
                 std::function<void(FileExtent)> confirmed);
  // Drops the acknowledgements that are still due.
  ~SFTPWriteQueue();
  SFTPWriteQueue(const SFTPWriteQueue&) = delete;
  SFTPWriteQueue& operator=(const SFTPWriteQueue&) = delete;

  // Room for the piece at `offset`; waits while too much is in flight. Empty on failure or cancellation.
  std::span<std::byte> next(uint64_t offset, size_t wanted, NSErrorRef* error);
  // Sends the first `length` bytes (> 0) of that room.
  void send(size_t length);
  // Waits for all acknowledgements.
  [[nodiscard]] bool finish(NSErrorRef* error);

 private:
  struct Piece {
    FileExtent extent;
    uint32_t id = 0;
  };

  bool settleFirst(NSErrorRef* error);
  bool isFull() const;
  bool isCancelled(NSErrorRef* error);

  SFTPChannel& iChannel;
  const std::string iHandle;
  const std::string iPath;
  TransferControl& iControl;
  const std::function<void(FileExtent)> iConfirmed;
  SFTPTransferWindow iWindow;
  std::deque<Piece> iPieces;
  uint64_t iNextOffset = 0;
};

}  // namespace ombra
