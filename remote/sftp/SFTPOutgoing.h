// Bytes on their way to the transport.
#pragma once

#include <deque>
#include <span>

#include "remote/sftp/SFTPBuffer.h"

namespace ombra {

// A queue of bytes. Packets are built in place, so that file content is read straight into it. One thread at
// a time.
class SFTPOutgoing {
 public:
  explicit SFTPOutgoing(SFTPBufferPool& pool) : iPool(pool) {}

  // Room for `length` bytes in one piece at the end of the queue; they count only after `commit`.
  std::span<std::byte> reserve(size_t length);
  void commit(size_t length);
  void append(std::span<const std::byte> bytes);
  // The next bytes to send, in one piece; empty when there are none.
  std::span<const std::byte> front() const;
  void consume(size_t length);
  size_t size() const { return iSize; }

 private:
  SFTPBufferPool& iPool;
  std::deque<SFTPBuffer> iBuffers;
  size_t iFrontOffset = 0;
  size_t iSize = 0;
};

}  // namespace ombra
