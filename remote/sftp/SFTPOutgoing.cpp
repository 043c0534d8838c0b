#include "remote/sftp/SFTPOutgoing.h"

#include <algorithm>
#include <cstring>

#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

std::span<std::byte> SFTPOutgoing::reserve(size_t length) {
  if (iBuffers.empty() || iBuffers.back().capacity - iBuffers.back().size < length) {
    iBuffers.push_back(iPool.take(std::max(length, kSFTPMaximumPieceLength)));
  }
  SFTPBuffer& back = iBuffers.back();
  return {back.data.get() + back.size, length};
}

void SFTPOutgoing::commit(size_t length) {
  iBuffers.back().size += length;
  iSize += length;
}

void SFTPOutgoing::append(std::span<const std::byte> bytes) {
  std::memcpy(reserve(bytes.size()).data(), bytes.data(), bytes.size());
  commit(bytes.size());
}

std::span<const std::byte> SFTPOutgoing::front() const {
  if (iSize == 0) return {};
  return iBuffers.front().bytes().subspan(iFrontOffset);
}

void SFTPOutgoing::consume(size_t length) {
  iSize -= length;
  iFrontOffset += length;
  if (iFrontOffset < iBuffers.front().size) return;
  // The last buffer goes on collecting small requests from its beginning.
  iFrontOffset = 0;
  if (iBuffers.size() == 1) {
    iBuffers.front().size = 0;
    return;
  }
  iPool.giveBack(std::move(iBuffers.front()));
  iBuffers.pop_front();
}

}  // namespace ombra
