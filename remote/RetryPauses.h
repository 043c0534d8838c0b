// How long to wait before a failed call is tried again.
#pragma once

#include <cstddef>
#include <optional>

#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// True for a library error that says that the server, or the way to it, is away: it may be back in a moment.
bool isOutage(const NSErrorRef& error);

// Short pauses that grow: 0.25, 0.5, 1, 2 and 4 seconds, and no more than a minute in all since the first
// failure, so that a server that restarts or a network that drops for some seconds is never seen, and one
// that stays away is told of within bounds. A value of one thread.
class RetryPauses {
 public:
  // Seconds to wait before the next attempt; absent when there is to be none.
  std::optional<double> next();
  // Something succeeded: count from the beginning again.
  void reset() { *this = RetryPauses(); }

 private:
  size_t iCount = 0;
  NSDate iFirstFailure;
};

}  // namespace ombra
