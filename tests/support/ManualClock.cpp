#include "tests/support/ManualClock.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

namespace ombra {
namespace {

// The test's own deadline would end it without a word about what it was waiting for.
constexpr std::chrono::seconds kPatience{60};

void waitUntil(const char* what, size_t count, const std::function<size_t()>& present) {
  const auto limit = std::chrono::steady_clock::now() + kPatience;
  while (present() < count) {
    if (std::chrono::steady_clock::now() > limit) {
      std::fprintf(stderr, "%zu timed waits were to %s, %zu do\n", count, what, present());
      std::abort();
    }
    std::this_thread::yield();
  }
}

}  // namespace

ManualClock::ManualClock(NSDate start) : iNow(start) { Clock::setCurrent(this); }

ManualClock::~ManualClock() { Clock::setCurrent(nullptr); }

NSDate ManualClock::now() const {
  MutexLock lock(iLock);
  return iNow;
}

void ManualClock::willWait(NSCondition& condition) {
  MutexLock lock(iLock);
  iWaiting.push_back(&condition);
  ++iBegunWaits;
}

void ManualClock::didWait(NSCondition& condition) {
  MutexLock lock(iLock);
  const auto found = std::find(iWaiting.begin(), iWaiting.end(), &condition);
  if (found != iWaiting.end()) iWaiting.erase(found);
}

void ManualClock::advance(double seconds) {
  std::vector<NSCondition*> waiting;
  {
    MutexLock lock(iLock);
    iNow = iNow.dateByAddingTimeInterval(seconds);
    waiting = iWaiting;
  }
  std::sort(waiting.begin(), waiting.end());
  waiting.erase(std::unique(waiting.begin(), waiting.end()), waiting.end());
  // Without iLock: clockMoved takes the condition's lock, which a waiter holds while it enters here.
  for (NSCondition* condition : waiting) condition->clockMoved();
}

size_t ManualClock::sleepers() const {
  MutexLock lock(iLock);
  return iWaiting.size();
}

size_t ManualClock::begunWaits() const {
  MutexLock lock(iLock);
  return iBegunWaits;
}

void ManualClock::waitForSleepers(size_t count) {
  waitUntil("be under way", count, [this] { return sleepers(); });
}

void ManualClock::advanceWithin(double seconds, size_t waits) {
  waitForSleepers(waits);
  const size_t before = begunWaits();
  advance(seconds);
  waitUntil("go on", waits, [this, before] { return begunWaits() - before; });
}

}  // namespace ombra
