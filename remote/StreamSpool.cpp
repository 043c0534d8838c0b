#include "remote/StreamSpool.h"

#include <algorithm>

namespace ombra {

void StreamSpool::fill() {
  if (!wantsMore()) return;
  const size_t used = iBytes.size();
  iBytes.resize(used + kPiece);
  const size_t count = std::min(iHandler(iBytes.data() + used, kPiece), kPiece);
  iBytes.resize(used + count);
  iEnded = count == 0;
}

size_t StreamSpool::next(std::byte* buffer, size_t capacity) {
  iTouched = true;
  const size_t left = iBytes.size() - iGiven;
  if (left > 0) {
    const size_t count = std::min(left, capacity);
    std::copy_n(iBytes.begin() + static_cast<std::ptrdiff_t>(iGiven), count, buffer);
    iGiven += count;
    if (iGiven == iBytes.size()) {
      // Given back at once: the rest of the stream does not need it.
      std::vector<std::byte>().swap(iBytes);
      iGiven = 0;
    }
    return count;
  }
  if (iEnded || capacity == 0) return 0;
  const size_t count = std::min(iHandler(buffer, capacity), capacity);
  iEnded = count == 0;
  return count;
}

}  // namespace ombra
