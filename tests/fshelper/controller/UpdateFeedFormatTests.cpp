// What a feed says: versions, their order, and the list of them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fshelper/SUAppcast.h"
#include "fshelper/SUVersion.h"

namespace ombra {
namespace {

using ::testing::HasSubstr;

int signOf(int number) { return (number > 0) - (number < 0); }

struct VersionOrder {
  const char* earlier;
  const char* later;
};

class DifferentVersions : public ::testing::TestWithParam<VersionOrder> {};

TEST_P(DifferentVersions, AreOrderedInBothDirections) {
  EXPECT_EQ(signOf(SUCompareVersions(GetParam().earlier, GetParam().later)), -1);
  EXPECT_EQ(signOf(SUCompareVersions(GetParam().later, GetParam().earlier)), 1);
}

INSTANTIATE_TEST_SUITE_P(Pairs, DifferentVersions,
                         ::testing::Values(VersionOrder{"1.9", "1.10"}, VersionOrder{"0.1.0", "0.1.1"},
                                           VersionOrder{"1", "1.0.1"}, VersionOrder{"1.0b2", "1.0"},
                                           VersionOrder{"1.0b2", "1.0b10"}, VersionOrder{"1.0a9", "1.0b1"},
                                           VersionOrder{"1.0-rc1", "1.0.1"}, VersionOrder{"1.0-rc1", "1.0"},
                                           VersionOrder{"2.0beta", "2.0.0"}, VersionOrder{"9", "10"},
                                           VersionOrder{"99999999999999999999999",
                                                        "100000000000000000000000"}));

class SameVersion : public ::testing::TestWithParam<VersionOrder> {};

TEST_P(SameVersion, IsNeitherEarlierNorLater) {
  EXPECT_EQ(SUCompareVersions(GetParam().earlier, GetParam().later), 0);
  EXPECT_EQ(SUCompareVersions(GetParam().later, GetParam().earlier), 0);
}

INSTANTIATE_TEST_SUITE_P(Pairs, SameVersion,
                         ::testing::Values(VersionOrder{"1.2", "1.2"}, VersionOrder{"1.0", "1.0.0"},
                                           VersionOrder{"1.02", "1.2"}, VersionOrder{"1-2", "1.2"},
                                           VersionOrder{"1.2+built", "1.2"}, VersionOrder{"1.0b1", "1.0.b1"},
                                           VersionOrder{"", "0"}));

TEST(Version, BeginsWithADigitAndHoldsNothingStrange) {
  for (const char* good : {"1", "0.1.0", "1.0~rc1-2", "20260101", "1.0_b+x"})
    EXPECT_TRUE(SUIsVersion(good)) << good;
  for (const char* bad : {"", "v1", "1.0 beta", "1.0\n", "1;2", ".1"}) EXPECT_FALSE(SUIsVersion(bad)) << bad;
  EXPECT_TRUE(SUIsVersion(std::string(64, '1')));
  EXPECT_FALSE(SUIsVersion(std::string(65, '1')));
}

std::string appcast(const std::string& items) {
  return R"(<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:sparkle="http://www.andymatuschak.org/xml-namespaces/sparkle">
<channel><title>Ombra</title>)" +
         items + "</channel></rss>";
}

std::string enclosure(const std::string& attributes) {
  return "<item><enclosure url=\"https://example.org/ombra.deb\" length=\"1\" "
         "type=\"application/octet-stream\" " +
         attributes + "/></item>";
}

std::optional<SUAppcastItem> newest(const std::string& bytes) {
  std::string reason;
  const std::optional<SUAppcastItem> item = SUNewestAppcastItem(bytes, &reason);
  EXPECT_EQ(item.has_value(), reason.empty()) << reason;
  return item;
}

std::string reasonAgainst(const std::string& bytes) {
  std::string reason;
  EXPECT_FALSE(SUNewestAppcastItem(bytes, &reason).has_value());
  return reason;
}

TEST(Appcast, TheLatestVersionIsTakenWhereverItStands) {
  const auto item =
      newest(appcast(enclosure("sparkle:version=\"1.9\"") + enclosure("sparkle:version=\"1.10\"") +
                     enclosure("sparkle:version=\"1.2\"")));
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->version, "1.10");
  EXPECT_EQ(item->displayVersion, "1.10");
  EXPECT_EQ(item->page, "https://example.org/ombra.deb");
}

TEST(Appcast, TheVersionMayBeAnElementOfItsOwn) {
  const auto item =
      newest(appcast("<item><link> https://example.org/news </link><sparkle:version> 2.0 "
                     "</sparkle:version></item>"));
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->version, "2.0");
  EXPECT_EQ(item->page, "https://example.org/news");
}

TEST(Appcast, WhatPeopleAreToldMayBeAnotherText) {
  const auto item =
      newest(appcast(enclosure("sparkle:version=\"1234\" sparkle:shortVersionString=\"2.0 &lt;b&gt;\"") +
                     enclosure("sparkle:version=\"1235\" sparkle:shortVersionString=\"2.1\"")));
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->version, "1235");
  EXPECT_EQ(item->displayVersion, "2.1");
}

TEST(Appcast, AStrangeTextForPeopleGivesWayToTheVersion) {
  const auto item =
      newest(appcast(enclosure("sparkle:version=\"1234\" sparkle:shortVersionString=\"2.0 &lt;b&gt;\"")));
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->displayVersion, "1234");
}

TEST(Appcast, ItemsOfOtherSystemsAndChannelsAreNotForUs) {
  const auto item = newest(appcast(enclosure("sparkle:version=\"9.0\" sparkle:os=\"windows\"") +
                                   enclosure("sparkle:version=\"1.0\" sparkle:os=\"linux\"") +
                                   "<item><sparkle:channel>beta</sparkle:channel>"
                                   "<sparkle:version>8.0</sparkle:version></item>"));
  ASSERT_TRUE(item.has_value());
  EXPECT_EQ(item->version, "1.0");
}

TEST(Appcast, APageThatCannotBeTrustedToBeWhatItSaysIsLeftOut) {
  for (const char* page :
       {"http://example.org/x", "javascript:alert(1)", "https://example.org/\xE2\x80\xAE"}) {
    const auto item = newest(
        appcast("<item><link>" + std::string(page) + "</link><sparkle:version>2.0</sparkle:version></item>"));
    ASSERT_TRUE(item.has_value());
    EXPECT_EQ(item->page, "") << page;
  }
}

TEST(Appcast, WhatIsNoListOfVersionsIsRefusedWithAReason) {
  EXPECT_THAT(reasonAgainst(""), HasSubstr("no XML"));
  EXPECT_THAT(reasonAgainst("<rss><channel>"), HasSubstr("no XML"));
  EXPECT_THAT(reasonAgainst(std::string("\0\xFF\xFE<", 4)), HasSubstr("no XML"));
  EXPECT_THAT(reasonAgainst("<html><body>Please log in</body></html>"), HasSubstr("no list of versions"));
  EXPECT_THAT(reasonAgainst("<rss><item/></rss>"), HasSubstr("no list of versions"));
  EXPECT_THAT(reasonAgainst(appcast("")), HasSubstr("names no version"));
  EXPECT_THAT(reasonAgainst(appcast(enclosure(""))), HasSubstr("names no version"));
  EXPECT_THAT(reasonAgainst(appcast(enclosure("sparkle:version=\"newest\""))), HasSubstr("names no version"));
}

TEST(Appcast, EntitiesOfADocumentTypeAreNotFollowed) {
  EXPECT_THAT(reasonAgainst("<!DOCTYPE rss [<!ENTITY a SYSTEM \"file:///etc/passwd\">]>" +
                            appcast("<item><sparkle:version>&a;</sparkle:version></item>")),
              ::testing::Not(::testing::IsEmpty()));
}

// As many as fit into a feed of the largest size.
TEST(Appcast, DeeplyNestedElementsAreNoTrouble) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  EXPECT_THAT(reasonAgainst(deep), HasSubstr("no XML"));
}

}  // namespace
}  // namespace ombra
