#include "remote/FolderPaths.h"

#include <array>
#include <functional>

#include "platform/foundation/Mutex.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

// The last text that fell into it. Several, since several folders are listed at a time.
struct Slot {
  Mutex lock;
  FolderPath last GUARDED_BY(lock);
};

using Slots = std::array<Slot, 64>;

}  // namespace

FolderPath sharedFolderPath(std::string_view path) {
  static NeverDestroyed<Slots> sSlots;
  Slot& slot = (*sSlots)[std::hash<std::string_view>()(path) % std::tuple_size_v<Slots>];
  FolderPath former;  // let go after the lock
  MutexLock lock(slot.lock);
  if (slot.last == nullptr || *slot.last != path) {
    former = std::make_shared<const std::string>(path);
    former.swap(slot.last);
  }
  return slot.last;
}

}  // namespace ombra
