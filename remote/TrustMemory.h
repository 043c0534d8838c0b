// Which server key the sessions of a pool go on with.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/Mutex.h"
#include "remote/AbstractConnection.h"

namespace ombra {

// Remembers the key that was accepted first. Thread-safe; asks the delegate without a lock.
class TrustMemory {
 public:
  // Keys that the user accepted before the login: they alone decide then. Separated by blanks.
  explicit TrustMemory(const std::optional<std::string>& acceptedFingerprints);

  // Whether to go on. Without a delegate: with the key that was accepted first, or when there was none yet,
  // with this one, which then is the first.
  bool isWorthy(const std::string& fingerprint, AbstractConnection& connection, ConnectionDelegate* delegate)
      EXCLUDES(iLock);

 private:
  std::vector<std::string> iGiven;
  Mutex iLock;
  std::optional<std::string> iFirst GUARDED_BY(iLock);
};

}  // namespace ombra
