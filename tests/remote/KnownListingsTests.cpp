// Which listings serve for how long, and what is new to whoever has one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "remote/KnownListings.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class KnownListingsTest : public testing::Test {
 protected:
  uint64_t list(const std::string& folder, double seconds = 0) {
    const uint64_t number = listings.begin(folder);
    clock.advance(seconds);
    listings.fetched(folder, number, seconds);
    return number;
  }
  void make(const std::string& path, bool isFolder = false, double seconds = 0) {
    if (isFolder) {
      listings.madeFolder(path, seconds);
    } else {
      listings.madeFile(path, std::nullopt);
    }
  }
  // The names, or nothing where the folder has to be listed.
  std::vector<std::string> news(const std::string& folder, uint64_t known) {
    std::vector<std::string> names;
    const auto found = listings.since(folder, known);
    if (!found) return names;
    EXPECT_GT(found->number, known);
    for (const KnownListings::NewItem& item : found->items) names.push_back(item.name);
    return names;
  }
  std::optional<bool> keepsCase(const std::string& folder, uint64_t known) {
    const auto found = listings.since(folder, known);
    EXPECT_TRUE(found);
    return found ? found->keepsCase : std::nullopt;
  }

  ManualClock clock;
  KnownListings listings;
};

TEST_F(KnownListingsTest, WhatWasMadeSinceIsTold) {
  make("/f/before");
  const uint64_t number = list("/f");
  make("/f/1");
  make("/f/2", true);
  make("/elsewhere/3");
  EXPECT_THAT(news("/f", number), ElementsAre("1", "2"));
  EXPECT_TRUE(listings.since("/f", number)->items.back().isFolder);
}

TEST_F(KnownListingsTest, WhatWasToldOnceIsNoNews) {
  uint64_t number = list("/f");
  make("/f/1");
  number = listings.since("/f", number)->number;
  make("/f/2");
  EXPECT_THAT(news("/f", number), ElementsAre("2"));
}

TEST_F(KnownListingsTest, WhereNothingWasMadeTheFolderIsToBeListed) {
  EXPECT_FALSE(listings.since("/f", list("/f")));
  EXPECT_FALSE(listings.since("/never listed", 1));
}

TEST_F(KnownListingsTest, WhatIsMadeTwiceIsToldOnceAsItWasLast) {
  const uint64_t number = list("/f");
  make("/f/1", true);
  make("/f/1", false);
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
  EXPECT_FALSE(listings.since("/f", number)->items.front().isFolder);
}

TEST_F(KnownListingsTest, AListingServesForASecond) {
  const uint64_t number = list("/f");
  make("/f/1");
  clock.advance(0.99);
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
  clock.advance(0.01);
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, NewsDoNotMakeAListingServeForLonger) {
  uint64_t number = list("/f");
  clock.advance(0.6);
  make("/f/1");
  number = listings.since("/f", number)->number;
  clock.advance(0.6);
  make("/f/2");
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, AListingThatTookLongServesForThirtyTimesAsLong) {
  const uint64_t number = list("/f", 0.1);
  make("/f/1");
  clock.advance(2.9);
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
  clock.advance(0.2);
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, NoListingServesForMoreThanAMinute) {
  const uint64_t number = list("/f", 90);
  make("/f/1");
  clock.advance(59.9);
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
  clock.advance(0.2);
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, AClockThatWasSetBackEndsAListing) {
  const uint64_t number = list("/f");
  make("/f/1");
  clock.advance(-5);
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, WhatIsMadeWhileAListingIsFetchedIsNewToIt) {
  const uint64_t number = listings.begin("/f");
  make("/f/1");
  listings.fetched("/f", number, 0);
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
}

TEST_F(KnownListingsTest, AListingThatFailedServesForNothing) {
  const uint64_t number = listings.begin("/f");
  make("/f/1");
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, WhoHasAnOlderListingThanTheLastOneIsToListAgain) {
  const uint64_t number = list("/f");
  list("/f");
  make("/f/1");
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, AListingThatEndsAfterALaterOneServesForNothing) {
  const uint64_t first = listings.begin("/f");
  const uint64_t second = list("/f");
  listings.fetched("/f", first, 0);
  make("/f/1");
  EXPECT_THAT(news("/f", first), IsEmpty());
  EXPECT_THAT(news("/f", second), ElementsAre("1"));
}

TEST_F(KnownListingsTest, WhatWasMovedOrRemovedSinceIsNotTold) {
  const uint64_t number = list("/f");
  make("/f/1");
  make("/f/2");
  listings.forget("/f/1");
  EXPECT_THAT(news("/f", number), ElementsAre("2"));
}

TEST_F(KnownListingsTest, AFolderThatWasMovedOrRemovedIsToBeListedWithAllBelowIt) {
  const uint64_t folder = list("/f");
  const uint64_t below = list("/f/g");
  const uint64_t beside = list("/f2");
  listings.forget("/f");
  make("/f/1");
  make("/f/g/1");
  make("/f2/1");
  EXPECT_THAT(news("/f", folder), IsEmpty());
  EXPECT_THAT(news("/f/g", below), IsEmpty());
  EXPECT_THAT(news("/f2", beside), ElementsAre("1"));
}

TEST_F(KnownListingsTest, AFolderThatWasForgottenWhileItWasFetchedIsToBeListed) {
  const uint64_t number = listings.begin("/f");
  listings.forget("/f");
  listings.fetched("/f", number, 0);
  make("/f/1");
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, AFolderWithSomethingElseInItIsToBeListedButNotThoseBelowIt) {
  const uint64_t folder = list("/f");
  const uint64_t below = list("/f/g");
  listings.forgetFolder("/f");
  make("/f/1");
  make("/f/g/1");
  EXPECT_THAT(news("/f", folder), IsEmpty());
  EXPECT_THAT(news("/f/g", below), ElementsAre("1"));
}

TEST_F(KnownListingsTest, WhatIsKnownOfCaseOutlivesAListing) {
  list("/f");
  listings.learn("/f", true);
  listings.forgetFolder("/f");
  const uint64_t number = list("/f");
  make("/f/1");
  EXPECT_EQ(keepsCase("/f", number), true);
}

TEST_F(KnownListingsTest, ANewFolderIsKnownToBeEmpty) {
  const uint64_t parent = list("/");
  make("/f", true);
  const uint64_t number = listings.since("/", parent)->number;
  make("/f/1");
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
}

TEST_F(KnownListingsTest, ANewFolderThatTookLongToMakeIsKnownForLonger) {
  const uint64_t parent = list("/", 0.1);
  make("/f", true, 0.1);
  const uint64_t number = listings.since("/", parent)->number;
  make("/f/1");
  clock.advance(2.9);
  EXPECT_THAT(news("/f", number), ElementsAre("1"));
  clock.advance(0.2);
  EXPECT_THAT(news("/f", number), IsEmpty());
}

TEST_F(KnownListingsTest, ANewFolderInThePlaceOfAFormerOneIsAnother) {
  const uint64_t former = list("/f");
  make("/f", true);
  make("/f/1");
  EXPECT_THAT(news("/f", former), IsEmpty());
}

TEST_F(KnownListingsTest, WhoLacksMoreThanSixtyFourItemsIsToListAgain) {
  const uint64_t number = list("/f");
  make("/f/0");
  const uint64_t later = listings.since("/f", number)->number;
  for (int i = 1; i < 64; ++i) make("/f/" + std::to_string(i));
  EXPECT_EQ(news("/f", number).size(), 64u);
  make("/f/64");
  EXPECT_THAT(news("/f", number), IsEmpty());
  EXPECT_EQ(news("/f", later).size(), 64u);
}

TEST_F(KnownListingsTest, OfMoreThanSixtyFourFoldersTheOnesUsedLastAreKnown) {
  std::vector<uint64_t> numbers;
  for (int i = 0; i < 64; ++i) numbers.push_back(list("/" + std::to_string(i)));
  make("/0/used");
  list("/one more");
  make("/1/file");
  EXPECT_THAT(news("/0", numbers[0]), ElementsAre("used"));
  EXPECT_THAT(news("/1", numbers[1]), IsEmpty());
}

TEST_F(KnownListingsTest, WhetherCaseCountsIsKnownOfFoldersMadeInTheFolder) {
  const uint64_t number = list("/");
  make("/before", true);
  EXPECT_EQ(keepsCase("/", number), std::nullopt);
  listings.learn("/", true);
  make("/after", true);
  EXPECT_EQ(keepsCase("/", number), true);
  const uint64_t below = listings.since("/", number)->number;
  list("/listed");
  make("/before/1");
  make("/after/1");
  EXPECT_EQ(keepsCase("/before", below), true);
  EXPECT_EQ(keepsCase("/after", below), true);
  const uint64_t listed = list("/listed");
  listings.learn("/", true);
  make("/listed/1");
  EXPECT_EQ(keepsCase("/listed", listed), std::nullopt) << "which may be another file system";
}

}  // namespace
}  // namespace ombra
