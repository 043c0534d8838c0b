// When the feed is looked at.
#pragma once

#include <memory>

#include "platform/foundation/NSDate.h"

namespace ombra {

class NSFileHandle;

// At most one look a day, by one of all helpers of the user. When the last one was is kept in the user
// defaults, under "SULastCheckTime". Not synchronised.
class SUUpdateSchedule {
 public:
  // The right to look, until it is let go, when a look is due: it counts as made from now on, whatever
  // becomes of it. Null when none is due, or another process has just begun one.
  std::unique_ptr<NSFileHandle> claim();

 private:
  bool isDue() const;
  void noteLook();

  // In case the settings cannot be written.
  NSDate iLastLook;
};

}  // namespace ombra
