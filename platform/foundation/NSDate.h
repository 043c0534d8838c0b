// A moment, and the clock that tells it.
#pragma once

#include <compare>
#include <cstdint>
#include <ctime>

namespace ombra {

// A moment in nanoseconds since 1970-01-01 00:00:00 UTC. A small value; copies are free.
class NSDate {
 public:
  constexpr NSDate() = default;

  static constexpr NSDate dateWithNanoseconds(int64_t nanosecondsSince1970) {
    return NSDate(nanosecondsSince1970);
  }
  static constexpr NSDate dateWithTimeIntervalSince1970(double seconds) {
    return NSDate(static_cast<int64_t>(seconds * 1e9));
  }
  // The present moment as `Clock::current()` tells it.
  static NSDate date();
  // The present moment plus `seconds` (may be fractional or negative).
  static NSDate dateWithTimeIntervalSinceNow(double seconds);

  constexpr int64_t nanosecondsSince1970() const { return iNanoseconds; }
  constexpr double timeIntervalSince1970() const { return static_cast<double>(iNanoseconds) / 1e9; }
  // Seconds from `other` to this moment; negative when this one is earlier.
  constexpr double timeIntervalSinceDate(NSDate other) const {
    return static_cast<double>(iNanoseconds - other.iNanoseconds) / 1e9;
  }
  constexpr NSDate dateByAddingTimeInterval(double seconds) const {
    return NSDate(iNanoseconds + static_cast<int64_t>(seconds * 1e9));
  }
  constexpr auto operator<=>(const NSDate&) const = default;

 private:
  explicit constexpr NSDate(int64_t nanoseconds) : iNanoseconds(nanoseconds) {}
  int64_t iNanoseconds = 0;
};

// The date of a timespec, and back (nanoseconds are kept; also for moments before 1970).
constexpr NSDate kc_dateWithTimespec(const timespec& time) {
  return NSDate::dateWithNanoseconds(static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec);
}
timespec kc_timespec(NSDate date);

class NSCondition;

// Tells the time and wakes timed waits. The process has one current clock; a test may put its own in its
// place. Thread-safe.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual NSDate now() const = 0;
  // True when time moves only by the program's word: timed waits then end by `NSCondition::clockMoved()`.
  virtual bool isManual() const { return false; }
  // Called around each timed wait on a manual clock, so that moving the time can wake the condition.
  virtual void willWait(NSCondition&) {}
  virtual void didWait(NSCondition&) {}

  // The clock in force: the system's, unless a test has set another.
  static Clock& current();
  // Puts `clock` in force (nullptr: the system's again). For tests; no wait may be under way.
  static void setCurrent(Clock* clock);
};

}  // namespace ombra
