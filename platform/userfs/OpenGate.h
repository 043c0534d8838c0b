// Lets one opener of a path in at a time.
#pragma once

#include <set>
#include <string>

#include "platform/foundation/NSCondition.h"

namespace ombra {

// A second opener of a file that arrives before the first has its first byte would read an empty file, so
// opens of one path take turns, also those that hide in truncate and set-attributes. Different paths do not
// meet.
class OpenGate {
 public:
  // Holds a path for its lifetime; waits for whoever holds it before.
  class Pass {
   public:
    Pass(OpenGate& gate, std::string path);
    ~Pass();
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    OpenGate& iGate;
    const std::string iPath;
  };

  // How many openers wait for their turn; for tests.
  size_t waiting() EXCLUDES(iCondition);

 private:
  NSCondition iCondition;
  std::set<std::string, std::less<>> iHeld GUARDED_BY(iCondition);
  size_t iWaiting GUARDED_BY(iCondition) = 0;
};

}  // namespace ombra
