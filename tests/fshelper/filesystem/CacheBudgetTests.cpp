#include "fshelper/OmbraFileSystem+CacheBudget.h"

#include <gtest/gtest.h>

#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

constexpr uint64_t kGigabyte = uint64_t{1} << 30;

class CacheBudgetTest : public testing::Test {
 protected:
  ManualClock clock;
  OFSCacheBudget::Machine machine{8 * kGigabyte, 500};
  int looks = 0;
  OFSCacheBudget budget{[this] {
    ++looks;
    return machine;
  }};
};

TEST_F(CacheBudgetTest, IsHalfOfWhatTheDiskCouldHoldForTheCache) {
  EXPECT_EQ(budget.limits(2 * kGigabyte).bytes, 5 * kGigabyte);
  EXPECT_EQ(budget.limits(2 * kGigabyte).files, 500U);
}

TEST_F(CacheBudgetTest, IsTheDefaultOnAMachineThatCouldHoldMore) {
  machine = {1000 * kGigabyte, 1000000};
  EXPECT_EQ(budget.limits(0).bytes, 10 * kGigabyte);
  EXPECT_EQ(budget.limits(0).files, 8192U);
}

TEST_F(CacheBudgetTest, IsTheDefaultWhereTheDiskTellsNothing) {
  machine.freeBytes = std::nullopt;
  EXPECT_EQ(budget.limits(0).bytes, 10 * kGigabyte);
}

TEST_F(CacheBudgetTest, LooksAtTheMachineOnceASecondAtMost) {
  budget.limits(0);
  machine = {2 * kGigabyte, 100};
  clock.advance(0.9);
  EXPECT_EQ(budget.limits(0).bytes, 4 * kGigabyte);
  EXPECT_EQ(budget.limits(0).files, 500U);
  EXPECT_EQ(looks, 1);
  clock.advance(0.2);
  EXPECT_EQ(budget.limits(0).bytes, kGigabyte);
  EXPECT_EQ(budget.limits(0).files, 100U);
  EXPECT_EQ(looks, 2);
}

TEST_F(CacheBudgetTest, LooksAgainWhenTheClockWasSetBack) {
  budget.limits(0);
  clock.advance(-3600);
  budget.limits(0);
  EXPECT_EQ(looks, 2);
}

TEST_F(CacheBudgetTest, WhatWasSetComesFirst) {
  budget.set(kGigabyte, std::nullopt);
  EXPECT_EQ(budget.limits(0).bytes, kGigabyte);
  EXPECT_EQ(budget.limits(0).files, 500U);
  budget.set(std::nullopt, 7);
  EXPECT_EQ(budget.limits(0).bytes, 4 * kGigabyte);
  EXPECT_EQ(budget.limits(0).files, 7U);
}

TEST_F(CacheBudgetTest, NeedsNoLookWhereAllOfItWasSet) {
  budget.set(kGigabyte, 7);
  EXPECT_EQ(budget.limits(0).bytes, kGigabyte);
  EXPECT_EQ(budget.limits(0).files, 7U);
  EXPECT_EQ(looks, 0);
}

TEST(CacheBudget, OfThisMachineLeavesRoomForSomething) {
  const OFSCacheBudget::Limits limits = OFSCacheBudget().limits(kGigabyte);
  EXPECT_GE(limits.bytes, kGigabyte / 2);
  EXPECT_GT(limits.files, 0U);
}

}  // namespace
}  // namespace ombra
