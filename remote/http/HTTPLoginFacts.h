// What the connections of one login have found out about how its server wants to be told who they are.
#pragma once

#include <string>

#include "platform/foundation/Mutex.h"

namespace ombra {

// Shared by connections with the same name and password, so that only the first one has to be asked. Holds no
// secret. Thread-safe.
class HTTPLoginFacts {
 public:
  // The server at `origin` asked for the password itself, and took it.
  void tookPassword(const std::string& origin) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    if (!iKnowsDigest) iOrigin = origin;
  }
  // A server that can do without the password is never sent it unasked, whatever it says later.
  void offeredDigest() EXCLUDES(iLock) {
    MutexLock lock(iLock);
    iKnowsDigest = true;
    iOrigin.clear();
  }
  void refusedPassword() EXCLUDES(iLock) {
    MutexLock lock(iLock);
    iOrigin.clear();
  }
  // Whether the password may go along with the first request to `origin`: it was sent to that very server
  // before, in the same way, and taken.
  bool mayBeginWithPassword(const std::string& origin) const EXCLUDES(iLock) {
    MutexLock lock(iLock);
    return !iOrigin.empty() && iOrigin == origin;
  }

 private:
  mutable Mutex iLock;
  std::string iOrigin GUARDED_BY(iLock);  // empty: none
  bool iKnowsDigest GUARDED_BY(iLock) = false;
};

}  // namespace ombra
