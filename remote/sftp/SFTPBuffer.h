// Memory for packets, kept from packet to packet.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <vector>

namespace ombra {

// A block of bytes that is not cleared when it is made: `size` of `capacity` bytes are in use.
struct SFTPBuffer {
  std::unique_ptr<std::byte[]> data;
  size_t capacity = 0;
  size_t size = 0;

  std::span<const std::byte> bytes() const { return {data.get(), size}; }
};

// Keeps released buffers for the next packets, since fresh large blocks cost a page fault for each page.
// Holds at most `kMaximumKept`. One thread at a time.
class SFTPBufferPool {
 public:
  // An empty buffer of at least `capacity` bytes.
  SFTPBuffer take(size_t capacity);
  void giveBack(SFTPBuffer buffer);

 private:
  static constexpr size_t kMaximumKept = 96;
  // A page of content with what belongs to its packet.
  static constexpr size_t kSmallCapacity = 4096 + 256;
  std::vector<SFTPBuffer> iSmall;
  std::vector<SFTPBuffer> iLarge;
};

}  // namespace ombra
