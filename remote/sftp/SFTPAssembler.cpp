#include "remote/sftp/SFTPAssembler.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "remote/sftp/SFTPPacket.h"

namespace ombra {

bool SFTPAssembler::append(std::span<const std::byte> bytes) {
  while (!bytes.empty() && !iFailed) {
    const size_t taken = iHeaderLength < sizeof(iHeader) ? takeHeader(bytes) : takeBody(bytes);
    bytes = bytes.subspan(taken);
  }
  return !iFailed;
}

size_t SFTPAssembler::takeHeader(std::span<const std::byte> bytes) {
  const size_t count = std::min(bytes.size(), sizeof(iHeader) - iHeaderLength);
  std::memcpy(iHeader + iHeaderLength, bytes.data(), count);
  iHeaderLength += count;
  if (iHeaderLength < sizeof(iHeader)) return count;
  iBodyLength = sftpGetU32(iHeader);
  iFailed = iBodyLength == 0 || iBodyLength > iMaximumLength;
  if (!iFailed) iBody = iPool.take(iBodyLength);
  return count;
}

size_t SFTPAssembler::takeBody(std::span<const std::byte> bytes) {
  const size_t count = std::min(bytes.size(), iBodyLength - iBody.size);
  std::memcpy(iBody.data.get() + iBody.size, bytes.data(), count);
  iBody.size += count;
  if (iBody.size == iBodyLength) {
    iHeaderLength = 0;
    iFailed = !iPacket(std::exchange(iBody, SFTPBuffer{}));
  }
  return count;
}

}  // namespace ombra
