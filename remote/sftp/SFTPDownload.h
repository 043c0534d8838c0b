// The content of a remote file, read with many requests in flight and handed on in order.
#pragma once

#include <deque>
#include <string>

#include "platform/foundation/NSFileHandle.h"
#include "remote/Session.h"
#include "remote/sftp/SFTPRequests.h"
#include "remote/sftp/SFTPTransferWindow.h"

namespace ombra {

// Reads from an open remote handle into a local file. Replies may come in any order and may be shorter than
// asked for; they are written strictly in file order, so what the local file holds is always a beginning of
// the content. What waits for its turn is bounded by the window. One thread at a time.
class SFTPDownload {
 public:
  SFTPDownload(SFTPChannel& channel, std::string handle, std::string path, NSFileHandle& to, uint64_t offset);
  // Drops what is still in flight.
  ~SFTPDownload();
  SFTPDownload(const SFTPDownload&) = delete;
  SFTPDownload& operator=(const SFTPDownload&) = delete;

  // Queues the first requests without waiting: no more than a file of that length needs, where a length is
  // given. It may be out of date.
  void begin(std::optional<uint64_t> likelyLength = std::nullopt);
  // The same with a request that was queued before, for so many bytes from the offset on.
  void beginWith(uint32_t readID, size_t length);
  // The length that the server tells: requests beyond it are few, since they are expected to find the end.
  void setExpectedLength(uint64_t length) { iExpectedLength = length; }
  // How many requests an earlier download has had in flight in the end, and how many this one has by now.
  void widen(size_t requests) { iWindow.widen(requests); }
  size_t width() const { return iWindow.limit(); }
  // Runs to the end of the remote file. Reports progress except for the last piece, which is left to the
  // caller: `reached` then tells how long the local file is.
  [[nodiscard]] bool run(TransferControl& control, NSErrorRef* error);
  uint64_t reached() const { return iReached; }

 private:
  struct Piece {
    uint64_t offset = 0;
    size_t length = 0;
    uint32_t id = 0;
  };

  void fill(size_t most);
  bool waitForFirst(TransferControl& control, NSErrorRef* error);
  bool takeFirst(const SFTPReply& reply, NSErrorRef* error);
  bool write(std::span<const std::byte> data, uint64_t offset, NSErrorRef* error);

  SFTPChannel& iChannel;
  SFTPRequests iRequests;
  const std::string iHandle;
  const std::string iPath;
  NSFileHandle& iTo;
  SFTPTransferWindow iWindow;
  std::deque<Piece> iPieces;  // in file order
  uint64_t iNextOffset;       // where the next request begins
  uint64_t iReached;          // what was written
  std::optional<uint64_t> iExpectedLength;
  bool iEnded = false;
};

}  // namespace ombra
