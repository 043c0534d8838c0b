// How much of a transfer may be in flight.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>

namespace ombra {

// Counts requests. Starts small, so that a small file costs little, and doubles with each round trip as long
// as replies do not take notably longer than the quickest one, up to what a fast line holds in that time, and
// at most 16 MiB of data. When replies queue up somewhere on the way it shrinks: what is in flight has to
// arrive before anything else on this session can.
class SFTPTransferWindow {
 public:
  explicit SFTPTransferWindow(size_t pieceLength);
  size_t limit() const { return iLimit; }
  // An earlier transfer over the same line has found that so many do no harm.
  void widen(size_t limit) { iLimit = std::clamp(limit, iLimit, iMaximum); }
  // A reply came `latency` after its request had been queued.
  void replied(std::chrono::steady_clock::duration latency);

 private:
  size_t mostUseful() const;

  const size_t iPieceLength;
  const size_t iMaximum;
  size_t iLimit;
  std::chrono::steady_clock::duration iQuickest = std::chrono::steady_clock::duration::max();
};

}  // namespace ombra
