#include "remote/sftp/SFTPBuffer.h"

#include <algorithm>

#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
// Every large buffer is made for a data packet, so that each fits wherever one is wanted.
constexpr size_t kLargeCapacity = kSFTPMaximumPieceLength + 1024;
}  // namespace

SFTPBuffer SFTPBufferPool::take(size_t capacity) {
  std::vector<SFTPBuffer>& kept = capacity <= kSmallCapacity ? iSmall : iLarge;
  if (!kept.empty() && kept.back().capacity >= capacity) {
    SFTPBuffer buffer = std::move(kept.back());
    kept.pop_back();
    buffer.size = 0;
    return buffer;
  }
  SFTPBuffer buffer;
  buffer.capacity = capacity <= kSmallCapacity ? kSmallCapacity : std::max(capacity, kLargeCapacity);
  buffer.data = std::make_unique_for_overwrite<std::byte[]>(buffer.capacity);
  return buffer;
}

void SFTPBufferPool::giveBack(SFTPBuffer buffer) {
  const bool isSmall = buffer.capacity == kSmallCapacity;
  // Odd sizes are let go: they come from unusual packets and would only hold memory.
  if (!isSmall && buffer.capacity != kLargeCapacity) return;
  std::vector<SFTPBuffer>& kept = isSmall ? iSmall : iLarge;
  if (kept.size() < kMaximumKept) kept.push_back(std::move(buffer));
}

}  // namespace ombra
