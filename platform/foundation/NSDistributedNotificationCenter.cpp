#include <atomic>

#include "platform/foundation/BusConnection.h"
#include "platform/foundation/NSNotificationCenter.h"
#include "platform/foundation/NeverDestroyed.h"

namespace ombra {
namespace {

std::atomic<NSDistributedNotificationCenter*> gDefaultCenter{nullptr};

class BusCenter final : public NSDistributedNotificationCenter {
 public:
  bool postNotificationName(std::string_view name, std::optional<std::string> object,
                            std::optional<NSDictionary> userInfo) override {
    return iPoster.post({std::string(name), std::move(object), std::move(userInfo)});
  }
  void addObserver(const void* observer, std::string_view name, NotificationHandler handler) override {
    iListener.addObserver(observer, name, std::move(handler));
  }
  void removeObserver(const void* observer) override { iListener.removeObserver(observer); }

 private:
  BusPoster iPoster;
  BusListener iListener;
};

}  // namespace

NSDistributedNotificationCenter& NSDistributedNotificationCenter::defaultCenter() {
  if (auto* center = gDefaultCenter.load(std::memory_order_acquire); center != nullptr) return *center;
  // Used on the way to exit(), from whatever thread ends the process.
  static NeverDestroyed<BusCenter> sCenter;
  return *sCenter;
}

void NSDistributedNotificationCenter::setDefaultCenter(NSDistributedNotificationCenter* center) {
  gDefaultCenter.store(center, std::memory_order_release);
}

}  // namespace ombra
