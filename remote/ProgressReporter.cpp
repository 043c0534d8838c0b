#include "remote/ProgressReporter.h"

namespace ombra {
namespace {

constexpr uint64_t kBytesPerReport = 256 * 1024;
// Whoever takes a report holds up those who read meanwhile, and the other way round. Where so many bytes come
// in a second, nobody notices when he waits for a few more of them.
constexpr double kFastBytesPerSecond = 200e6;
constexpr uint64_t kFastBytesPerReport = 1024 * 1024;
constexpr double kSecondsPerReport = 0.05;
constexpr double kSecondsPerStalledReport = 1.0;

// A clock that was set back counts as time that passed: a report too many is harmless, one too few is not.
bool hasPassed(NSDate since, NSDate now, double seconds) {
  const double passed = now.timeIntervalSinceDate(since);
  return passed < 0 || passed >= seconds;
}

}  // namespace

ProgressReporter::ProgressReporter(uint64_t start, Report report)
    : iStart(start),
      iReport(std::move(report)),
      iBytes(start),
      iFirstDate(NSDate::date()),
      iLastDate(iFirstDate) {}

void ProgressReporter::reached(uint64_t bytes) {
  iBytes = bytes;
  if (!hasMoved() || !iReport) return;
  const NSDate now = NSDate::date();
  if (iReported != iBytes && isDue(now)) send(now, false);
}

bool ProgressReporter::isDue(NSDate now) const {
  if (!iReported || hasPassed(iLastDate, now, kSecondsPerReport)) return true;
  const bool isFast = throughput(now) > kFastBytesPerSecond;
  return iBytes - *iReported >= (isFast ? kFastBytesPerReport : kBytesPerReport);
}

double ProgressReporter::throughput(NSDate now) const {
  const double seconds = now.timeIntervalSinceDate(iFirstDate);
  return seconds > 0 ? static_cast<double>(iBytes - iStart) / seconds : 0.0;
}

void ProgressReporter::poll() {
  if (!hasMoved() || !iReport) return;
  const NSDate now = NSDate::date();
  if (iReported != iBytes) {
    if (hasPassed(iLastDate, now, kSecondsPerReport)) send(now, false);
  } else if (hasPassed(iLastDate, now, kSecondsPerStalledReport)) {
    send(now, true);
  }
}

void ProgressReporter::flush() {
  if (hasMoved() && iReport && iReported != iBytes) send(NSDate::date(), false);
}

void ProgressReporter::send(NSDate now, bool stalled) {
  iReported = iBytes;
  iLastDate = now;
  iReport(iBytes, stalled ? 0.0 : throughput(now), stalled);
}

}  // namespace ombra
