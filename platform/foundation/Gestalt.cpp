#include "platform/foundation/Gestalt.h"

#include <map>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

class GestaltRegistry {
 public:
  int16_t lookUp(uint32_t selector, int32_t* response) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    const auto found = iValues.find(selector);
    if (found == iValues.end()) return gestaltUndefSelectorErr;
    if (response != nullptr) *response = found->second;
    return 0;
  }

  int16_t add(uint32_t selector, int32_t value) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    return iValues.emplace(selector, value).second ? int16_t{0} : gestaltDupSelectorErr;
  }

  void remove(uint32_t selector) EXCLUDES(iLock) {
    MutexLock lock(iLock);
    iValues.erase(selector);
  }

 private:
  Mutex iLock;
  std::map<uint32_t, int32_t> iValues GUARDED_BY(iLock);
};

GestaltRegistry& registry() {
  static NeverDestroyed<GestaltRegistry> sRegistry;
  return *sRegistry;
}

}  // namespace

int16_t Gestalt(uint32_t selector, int32_t* response) { return registry().lookUp(selector, response); }

int16_t NewGestaltValue(uint32_t selector, int32_t value) { return registry().add(selector, value); }

void DeleteGestaltValue(uint32_t selector) { registry().remove(selector); }

}  // namespace ombra
