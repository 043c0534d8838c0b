#include "remote/RetryPauses.h"

#include <array>

#include "remote/QuarnKitError.h"

namespace ombra {
namespace {
constexpr std::array<double, 5> kPauses{0.25, 0.5, 1.0, 2.0, 4.0};
// Counted from the end of the first attempt: a call that runs into the 30 s of silence is tried twice more,
// not five times.
constexpr double kLongest = 60.0;
}  // namespace

bool isOutage(const NSErrorRef& error) {
  for (const QuarnKitErrorCode code :
       {kQuarnKitConnectionLost, kQuarnKitTimedOut, kQuarnKitCouldNotConnect, kQuarnKitCouldNotResolveHost}) {
    if (QuarnKitError::isCode(error, code)) return true;
  }
  return false;
}

std::optional<double> RetryPauses::next() {
  const NSDate now = NSDate::date();
  if (iCount == 0) iFirstFailure = now;
  if (iCount >= kPauses.size() || now.timeIntervalSinceDate(iFirstFailure) >= kLongest) return std::nullopt;
  return kPauses[iCount++];
}

}  // namespace ombra
