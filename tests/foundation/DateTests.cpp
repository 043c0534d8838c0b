#include <cmath>
#include <thread>

#include "platform/foundation/NSCondition.h"
#include "platform/foundation/NSDate.h"
#include "platform/foundation/NSDateFormatter.h"
#include "tests/foundation/TestSupport.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

TEST(Date, KeepsNanosecondsOfATimespecAlsoBefore1970) {
  for (const timespec time : {timespec{5, 7}, timespec{-5, 7}, timespec{0, 0}, timespec{-1, 999999999}}) {
    const timespec back = kc_timespec(kc_dateWithTimespec(time));
    EXPECT_EQ(back.tv_sec, time.tv_sec);
    EXPECT_EQ(back.tv_nsec, time.tv_nsec);
  }
}

TEST(Date, ComparesAndMeasures) {
  const NSDate date = NSDate::dateWithTimeIntervalSince1970(100);
  EXPECT_LT(date, date.dateByAddingTimeInterval(0.5));
  EXPECT_DOUBLE_EQ(date.dateByAddingTimeInterval(0.5).timeIntervalSinceDate(date), 0.5);
}

TEST(Date, ComesFromTheClockInForce) {
  ManualClock clock(NSDate::dateWithTimeIntervalSince1970(42));
  EXPECT_EQ(NSDate::date(), NSDate::dateWithTimeIntervalSince1970(42));
  clock.advance(3);
  EXPECT_EQ(NSDate::dateWithTimeIntervalSinceNow(5), NSDate::dateWithTimeIntervalSince1970(50));
}

TEST(Condition, WaitEndsAtOnceWhenTheLimitHasPassed) {
  ManualClock clock;
  NSCondition condition;
  ConditionLock lock(condition);
  EXPECT_FALSE(condition.waitUntilDate(NSDate::date()));
}

TEST(Condition, WaitEndsWhenTheManualClockPassesItsLimit) {
  ManualClock clock;
  NSCondition condition;
  bool inTime = true;
  std::thread waiter([&condition, &inTime] {
    ConditionLock lock(condition);
    inTime = condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(10));
  });
  clock.waitForSleepers(1);
  clock.advance(10);
  waiter.join();
  EXPECT_FALSE(inTime);
}

// Moves between the look at the time and the wait.
class MovingClock final : public Clock {
 public:
  MovingClock() { Clock::setCurrent(this); }
  ~MovingClock() override { Clock::setCurrent(nullptr); }
  NSDate now() const override { return iNow; }
  bool isManual() const override { return true; }
  void willWait(NSCondition&) override { iNow = iNow.dateByAddingTimeInterval(10); }

 private:
  NSDate iNow;
};

TEST(Condition, WaitEndsWhenTheManualClockPassesItsLimitBeforeItBegins) {
  MovingClock clock;
  NSCondition condition;
  ConditionLock lock(condition);
  EXPECT_FALSE(condition.waitUntilDate(NSDate::dateWithTimeIntervalSinceNow(10)));
}

// The double itself: tests go by what it tells of others.
TEST(ManualClock, TellsTimedWaitsUnderWayAndThoseThatHaveBegun) {
  ManualClock clock;
  NSCondition condition;
  std::thread waiter([&condition] {
    ConditionLock lock(condition);
    const NSDate limit = NSDate::dateWithTimeIntervalSinceNow(10);
    while (condition.waitUntilDate(limit)) {
    }
  });
  clock.waitForSleepers(1);
  EXPECT_EQ(clock.sleepers(), 1u);
  const size_t before = clock.begunWaits();
  clock.advance(4);
  while (clock.begunWaits() == before) std::this_thread::yield();
  EXPECT_EQ(clock.sleepers(), 1u);
  clock.advance(6);
  waiter.join();
  EXPECT_EQ(clock.sleepers(), 0u);
}

// The tests of formats run in a zone that differs from UTC.
class DateFormatter : public testing::Test {
 protected:
  void SetUp() override { tzset(); }
  void TearDown() override {
    iZone.reset();
    tzset();
  }
  std::optional<EnvironmentVariable> iZone{std::in_place, "TZ", "XXX-03:30"};
};

TEST_F(DateFormatter, WritesLogFileDatesInLocalTime) {
  const NSDateFormatter formatter("yyyy-MM-dd-HHmmss");
  EXPECT_EQ(formatter.stringFromDate(NSDate::dateWithTimeIntervalSince1970(1000000000)), "2001-09-09-051640");
}

TEST_F(DateFormatter, WritesTranscriptTimesWithMillisecondsCutNotRounded) {
  const NSDateFormatter formatter("HH:mm:ss.SSS");
  EXPECT_EQ(formatter.stringFromDate(NSDate::dateWithNanoseconds(1000000000123999999)), "05:16:40.123");
  EXPECT_EQ(formatter.stringFromDate(NSDate::dateWithNanoseconds(1000000000007000000)), "05:16:40.007");
}

TEST_F(DateFormatter, WritesDatesBefore1970) {
  const NSDateFormatter formatter("yyyy-MM-dd HH:mm:ss.SSS");
  EXPECT_EQ(formatter.stringFromDate(NSDate::dateWithNanoseconds(-1)), "1970-01-01 03:29:59.999");
}

TEST_F(DateFormatter, LeavesEverythingElseAsItIs) {
  NSDateFormatter formatter;
  EXPECT_EQ(formatter.stringFromDate(NSDate()), "");
  formatter.setDateFormat("[yyyy] S SSSSSSSSSSS");
  EXPECT_EQ(formatter.stringFromDate(NSDate::dateWithNanoseconds(123456789)), "[1970] 1 12345678900");
}

}  // namespace
}  // namespace ombra
