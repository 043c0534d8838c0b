// The spool of a stream, and when progress is told.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/ProgressReporter.h"
#include "remote/StreamSpool.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;

TEST(StreamSpool, IsBoundedAndGivesEverythingOutInOrder) {
  uint8_t counter = 0;
  size_t given = 0;
  constexpr size_t kTotal = StreamSpool::kBound + 3 * StreamSpool::kPiece;
  StreamSpool spool([&](std::byte* buffer, size_t capacity) {
    const size_t count = std::min(capacity, kTotal - given);
    for (size_t i = 0; i < count; ++i) buffer[i] = std::byte{counter++};
    given += count;
    return count;
  });
  while (spool.wantsMore()) spool.fill();
  EXPECT_LE(given, StreamSpool::kBound);
  EXPECT_TRUE(spool.isUntouched());
  std::vector<std::byte> buffer(1000);
  uint8_t expected = 0;
  size_t received = 0;
  while (const size_t count = spool.next(buffer.data(), buffer.size())) {
    for (size_t i = 0; i < count; ++i) ASSERT_EQ(buffer[i], std::byte{expected++});
    received += count;
  }
  EXPECT_EQ(received, kTotal);
  EXPECT_FALSE(spool.isUntouched());
  EXPECT_EQ(spool.next(buffer.data(), buffer.size()), 0u) << "the end stays the end";
}

TEST(Progress, IsReportedEach256KiBOr50Milliseconds) {
  ManualClock clock;
  std::vector<uint64_t> reports;
  ProgressReporter reporter(0, [&](uint64_t bytes, double, bool) { reports.push_back(bytes); });
  reporter.reached(1);
  reporter.reached(262144);
  reporter.reached(262145);
  clock.advance(0.049);
  reporter.reached(262146);
  clock.advance(0.002);
  reporter.reached(262147);
  EXPECT_THAT(reports, ElementsAre(1u, 262145u, 262147u));
}

TEST(Progress, IsReportedEachMiBWhereMoreThan200MBComeInASecond) {
  constexpr uint64_t kPiece = 262144;
  ManualClock clock;
  std::vector<uint64_t> reports;
  ProgressReporter reporter(0, [&](uint64_t bytes, double, bool) { reports.push_back(bytes / kPiece); });
  const auto pieces = [&](uint64_t first, uint64_t last, double bytesPerSecond) {
    for (uint64_t i = first; i <= last; ++i) {
      clock.advance(kPiece / bytesPerSecond);
      reporter.reached(i * kPiece);
    }
  };
  pieces(1, 9, 210e6);
  EXPECT_THAT(reports, ElementsAre(1u, 5u, 9u));
  pieces(10, 12, 100e6);
  EXPECT_THAT(reports, ElementsAre(1u, 5u, 9u, 10u, 11u, 12u));
}

TEST(Progress, WhatCameInLastIsToldFromThePoll) {
  ManualClock clock;
  std::vector<uint64_t> reports;
  ProgressReporter reporter(0, [&](uint64_t bytes, double, bool) { reports.push_back(bytes); });
  reporter.reached(100);
  reporter.reached(200);
  reporter.poll();
  EXPECT_THAT(reports, ElementsAre(100u));
  clock.advance(0.05);
  reporter.poll();
  EXPECT_THAT(reports, ElementsAre(100u, 200u));
}

TEST(Progress, AStallIsToldOnceASecondButNeverBeforeTheFirstByte) {
  ManualClock clock;
  std::vector<bool> stalls;
  ProgressReporter reporter(10, [&](uint64_t, double, bool stalled) { stalls.push_back(stalled); });
  clock.advance(5);
  reporter.poll();
  EXPECT_TRUE(stalls.empty());
  reporter.reached(11);
  clock.advance(0.9);
  reporter.poll();
  EXPECT_THAT(stalls, ElementsAre(false));
  clock.advance(0.2);
  reporter.poll();
  reporter.poll();
  EXPECT_THAT(stalls, ElementsAre(false, true));
}

TEST(Progress, CountsFromTheBeginningOfTheFileAndTellsTheSpeed) {
  ManualClock clock;
  double speed = 0;
  uint64_t reached = 0;
  ProgressReporter reporter(1000, [&](uint64_t bytes, double throughput, bool) {
    reached = bytes;
    speed = throughput;
  });
  clock.advance(2);
  reporter.reached(3000);
  EXPECT_EQ(reached, 3000u);
  EXPECT_DOUBLE_EQ(speed, 1000.0);
}

TEST(Progress, AClockSetBackDoesNotSilenceIt) {
  ManualClock clock;
  int reports = 0;
  ProgressReporter reporter(0, [&](uint64_t, double, bool) { ++reports; });
  reporter.reached(1);
  clock.advance(-3600);
  reporter.reached(2);
  EXPECT_EQ(reports, 2);
}

}  // namespace
}  // namespace ombra
