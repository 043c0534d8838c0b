#include "remote/TrustMemory.h"

#include <algorithm>

namespace ombra {

TrustMemory::TrustMemory(const std::optional<std::string>& acceptedFingerprints) {
  std::string_view rest = acceptedFingerprints ? std::string_view(*acceptedFingerprints) : std::string_view();
  while (!rest.empty()) {
    const size_t end = std::min(rest.find(' '), rest.size());
    if (end > 0) iGiven.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

bool TrustMemory::isWorthy(const std::string& fingerprint, AbstractConnection& connection,
                           ConnectionDelegate* delegate) {
  if (!iGiven.empty()) return std::find(iGiven.begin(), iGiven.end(), fingerprint) != iGiven.end();
  if (delegate != nullptr && !delegate->connection(connection, TrustQuestion{fingerprint})) return false;
  MutexLock lock(iLock);
  if (!iFirst) iFirst = fingerprint;
  return delegate != nullptr || *iFirst == fingerprint;
}

}  // namespace ombra
