#include <cerrno>
#include <cstring>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {

TEST(ErrorText, OfTheInterfacesOwnNumbersIsNotThatOfTheSystems) {
  EXPECT_EQ(kc_strerror(66), std::strerror(ENOTEMPTY));
  EXPECT_EQ(kc_strerror(93), "Attribute not found");
}

TEST(ErrorText, OfOtherNumbersIsTheSystems) {
  EXPECT_EQ(kc_strerror(ENOENT), std::strerror(ENOENT));
  EXPECT_EQ(kc_strerror(ENOSPC), std::strerror(ENOSPC));
}

TEST(Times, RepeatsTheText) {
  EXPECT_EQ(ofs_times(" ", 0), "");
  EXPECT_EQ(ofs_times(" ", 1), " ");
  EXPECT_EQ(ofs_times("ab", 3), "ababab");
}

TEST(ReplacingCharacters, ReplacesEachCharacterOfTheSet) {
  EXPECT_EQ(kc_stringByReplacingCharactersInSet("a/b:c,d", "/:,", "-"), "a-b-c-d");
  EXPECT_EQ(kc_stringByReplacingCharactersInSet("//", "/", "ab"), "abab");
  EXPECT_EQ(kc_stringByReplacingCharactersInSet("ü/ö", "/", "-"), "ü-ö");
  EXPECT_EQ(kc_stringByReplacingCharactersInSet("abc", "", "-"), "abc");
}

TEST(UniqueString, IsTheTextItselfWhenFree) {
  EXPECT_EQ(kc_stringUniqueToArray("nas", {}, std::nullopt), "nas");
  EXPECT_EQ(kc_stringUniqueToArray("nas", {"other", "nas 2"}, "copy"), "nas");
}

TEST(UniqueString, TakesTheFirstFreeNumber) {
  EXPECT_EQ(kc_stringUniqueToArray("nas", {"nas"}, std::nullopt), "nas 2");
  EXPECT_EQ(kc_stringUniqueToArray("nas", {"nas", "nas 2", "nas 3"}, std::nullopt), "nas 4");
  EXPECT_EQ(kc_stringUniqueToArray("nas", {"nas", "nas 3"}, std::nullopt), "nas 2");
}

TEST(UniqueString, PutsTheCopySuffixBeforeTheNumber) {
  EXPECT_EQ(kc_stringUniqueToArray("nas", {"nas"}, "copy"), "nas copy");
  EXPECT_EQ(kc_stringUniqueToArray("nas", {"nas", "nas copy"}, "copy"), "nas copy 2");
}

TEST(UniqueString, TakesTheOtherUnicodeFormForTheSameName) {
  EXPECT_EQ(kc_stringUniqueToArray("B\u00fccher", {"Bu\u0308cher"}, std::nullopt), "B\u00fccher 2");
  EXPECT_EQ(kc_stringUniqueToArray("Bu\u0308cher", {"B\u00fccher", "B\u00fccher 2"}, std::nullopt),
            "Bu\u0308cher 3");
}

}  // namespace
}  // namespace ombra
