// Decides when the progress of a transfer is worth a report.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/foundation/NSDate.h"

namespace ombra {

// Thins reports out to one for each 256 KiB or 50 ms, whichever comes first, where more than 200 MB come in a
// second to one for each MiB; the first bytes are reported at once. What came in less than 50 ms after the
// last report is told by `poll`, which the engine reaches at least every 100 ms, so that a reader never waits
// for bytes that are there. While nothing moves, `poll` repeats the last report once a second, as stalled: a
// cancel mark is noticed in there. Nothing is reported before the first byte.
class ProgressReporter {
 public:
  // `bytes` reached, `throughput` in bytes per second since the object was made.
  using Report = std::function<void(uint64_t bytes, double throughput, bool stalled)>;
  // `start` is the byte where the transfer begins; reports go to `report` on the calling thread. Null: there
  // are none, and only the bytes are kept.
  ProgressReporter(uint64_t start, Report report);

  // So many bytes are there, counted from the file's beginning.
  void reached(uint64_t bytes);
  // Nothing new has come so far.
  void poll();
  // Reports what is not reported yet. Afterwards counting may go on.
  void flush();
  uint64_t bytes() const { return iBytes; }
  bool hasMoved() const { return iBytes > iStart; }

 private:
  bool isDue(NSDate now) const;
  // Bytes per second since the object was made.
  double throughput(NSDate now) const;
  void send(NSDate now, bool stalled);

  const uint64_t iStart;
  const Report iReport;
  uint64_t iBytes;
  std::optional<uint64_t> iReported;
  NSDate iFirstDate;
  NSDate iLastDate;
};

}  // namespace ombra
