#include "platform/foundation/BusConnection.h"

#include <cerrno>
#include <ctime>

#include "platform/foundation/NSDate.h"

namespace ombra {
namespace {

// How long the bus may take to answer: posting happens on the way to exit(), which no stuck bus may hold up.
constexpr uint64_t kBusTimeLimit = 5000000;  // microseconds

uint64_t monotonicMicroseconds() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<uint64_t>(time.tv_sec) * 1000000 + static_cast<uint64_t>(time.tv_nsec) / 1000;
}

// Goes through the log-in. The library would wait for it inside the first call, for a minute and a half.
int waitUntilReady(sd_bus* bus) {
  const uint64_t limit = monotonicMicroseconds() + kBusTimeLimit;
  while (true) {
    const int ready = sd_bus_is_ready(bus);
    if (ready != 0) return ready;
    int result = sd_bus_process(bus, nullptr);
    const uint64_t now = monotonicMicroseconds();
    if (result >= 0 && now >= limit) result = -ETIMEDOUT;
    if (result == 0) result = sd_bus_wait(bus, limit - now);
    if (result < 0 && result != -EINTR) return result;
  }
}

}  // namespace

BusRef openSessionBus(int* result) {
  sd_bus* raw = nullptr;
  *result = sd_bus_open_user(&raw);
  BusRef bus(raw);
  if (*result >= 0) *result = sd_bus_set_method_call_timeout(bus.get(), kBusTimeLimit);
  if (*result >= 0) *result = waitUntilReady(bus.get());
  if (*result < 0) bus.reset();
  return bus;
}

}  // namespace ombra
