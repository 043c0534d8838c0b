// Cuts a stream of bytes into packets.
#pragma once

#include <functional>
#include <span>

#include "remote/sftp/SFTPBuffer.h"

namespace ombra {

// Takes bytes in pieces of any length and gives whole packets (without their length field) to `packet`.
// Memory is bounded by the longest packet that is allowed. One thread at a time.
class SFTPAssembler {
 public:
  using PacketHandler = std::function<bool(SFTPBuffer)>;

  // `packet` answers false when it wants nothing more.
  SFTPAssembler(SFTPBufferPool& pool, size_t maximumLength, PacketHandler packet)
      : iPool(pool), iMaximumLength(maximumLength), iPacket(std::move(packet)) {}

  // False when a length field is out of bounds (0 or beyond the maximum), or the handler has refused a
  // packet; nothing more is taken then.
  [[nodiscard]] bool append(std::span<const std::byte> bytes);
  // The length field that was out of bounds, as four characters, for a message.
  const std::byte* header() const { return iHeader; }

 private:
  size_t takeHeader(std::span<const std::byte> bytes);
  size_t takeBody(std::span<const std::byte> bytes);

  SFTPBufferPool& iPool;
  const size_t iMaximumLength;
  const PacketHandler iPacket;
  std::byte iHeader[4] = {};
  size_t iHeaderLength = 0;
  size_t iBodyLength = 0;
  SFTPBuffer iBody;
  bool iFailed = false;
};

}  // namespace ombra
