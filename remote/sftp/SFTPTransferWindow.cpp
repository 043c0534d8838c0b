#include "remote/sftp/SFTPTransferWindow.h"

#include <algorithm>

#include "remote/sftp/SFTPProtocol.h"

namespace ombra {

namespace {
constexpr size_t kSmallest = 2;
constexpr size_t kInitialBytes = 1024 * 1024;
// A queue of this much time is no harm by itself. Where the line is quick, more would only make the server
// hold megabytes of replies in buffers that it has to enlarge and move.
constexpr std::chrono::milliseconds kHarmlessDelay{3};
constexpr std::chrono::milliseconds kHarmfulDelay{200};
// No line is expected to be quicker (10 Gbit/s): what is in flight beyond what such a line holds lies in a
// queue.
constexpr size_t kBytesPerMicrosecond = 1250;
}  // namespace

SFTPTransferWindow::SFTPTransferWindow(size_t pieceLength)
    : iPieceLength(pieceLength),
      iMaximum(std::max(kSFTPTransferWindowBytes / pieceLength, kSmallest)),
      iLimit(std::clamp(kInitialBytes / pieceLength, kSmallest, iMaximum)) {}

void SFTPTransferWindow::replied(std::chrono::steady_clock::duration latency) {
  iQuickest = std::min(iQuickest, latency);
  if (latency < 2 * iQuickest + kHarmlessDelay) {
    if (iLimit < mostUseful()) ++iLimit;
  } else if (latency > 4 * iQuickest + kHarmfulDelay) {
    iLimit = std::max(iLimit - 1, kSmallest);
  }
}

size_t SFTPTransferWindow::mostUseful() const {
  const auto quickest = std::chrono::duration_cast<std::chrono::microseconds>(iQuickest);
  const auto held =
      static_cast<size_t>(std::clamp<int64_t>(quickest.count(), 0, 1000000)) * kBytesPerMicrosecond;
  return std::min(std::max(held, kInitialBytes) / iPieceLength, iMaximum);
}

}  // namespace ombra
