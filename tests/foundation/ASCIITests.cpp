#include "platform/foundation/ASCII.h"

#include <gtest/gtest.h>

namespace ombra {
namespace {

TEST(ASCII, LettersLoseTheirCaseAndAllElseStays) {
  EXPECT_EQ(lowercasedASCII("AZaz09 @[`{\xc3\x84"), "azaz09 @[`{\xc3\x84");
  EXPECT_EQ(lowercasedASCII(""), "");
}

TEST(ASCII, TextsAreEqualWhateverTheCaseOfTheirLetters) {
  EXPECT_TRUE(equalIgnoringCase("Content-LENGTH", "content-length"));
  EXPECT_FALSE(equalIgnoringCase("content", "content-length"));
  EXPECT_FALSE(equalIgnoringCase("[", "{"));
  EXPECT_FALSE(equalIgnoringCase("\xc3\x84", "\xc3\xa4")) << "no letters of ASCII";
}

}  // namespace
}  // namespace ombra
