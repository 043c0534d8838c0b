#include "platform/foundation/NSDate.h"

#include <atomic>
#include <new>

namespace ombra {
namespace {

class SystemClock final : public Clock {
 public:
  NSDate now() const override {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    return kc_dateWithTimespec(time);
  }
};

SystemClock& systemClock() {
  // Never destroyed: detached threads may ask for the time while the process exits.
  alignas(SystemClock) static unsigned char sStorage[sizeof(SystemClock)];
  static SystemClock* sClock = ::new (static_cast<void*>(sStorage)) SystemClock;
  return *sClock;
}

std::atomic<Clock*> gCurrentClock{nullptr};

}  // namespace

Clock& Clock::current() {
  Clock* clock = gCurrentClock.load(std::memory_order_acquire);
  return clock != nullptr ? *clock : systemClock();
}

void Clock::setCurrent(Clock* clock) { gCurrentClock.store(clock, std::memory_order_release); }

NSDate NSDate::date() { return Clock::current().now(); }

NSDate NSDate::dateWithTimeIntervalSinceNow(double seconds) {
  return date().dateByAddingTimeInterval(seconds);
}

timespec kc_timespec(NSDate date) {
  constexpr int64_t kNanosecondsPerSecond = 1000000000;
  int64_t seconds = date.nanosecondsSince1970() / kNanosecondsPerSecond;
  int64_t rest = date.nanosecondsSince1970() % kNanosecondsPerSecond;
  if (rest < 0) {
    rest += kNanosecondsPerSecond;
    --seconds;
  }
  return timespec{static_cast<time_t>(seconds), static_cast<long>(rest)};
}

}  // namespace ombra
