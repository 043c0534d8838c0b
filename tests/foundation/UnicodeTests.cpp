#include "platform/foundation/Unicode.h"

#include <gtest/gtest.h>

#include "platform/foundation/ASCII.h"
#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {

using namespace std::string_literals;

struct Form {
  const char* composed;
  const char* decomposed;
};
constexpr Form kForms[] = {
    {"B\u00fccher", "Bu\u0308cher"},
    {"\u00c5", "A\u030a"},
    {"\u1e69", "s\u0323\u0307"},       // two marks, in canonical order
    {"\ud55c", "\u1112\u1161\u11ab"},  // Hangul, by rule instead of by table
    {"plain", "plain"},
};

TEST(CanonicalMapping, TurnsEachFormIntoTheOther) {
  for (const Form& form : kForms) {
    EXPECT_EQ(decomposedStringWithCanonicalMapping(form.composed), form.decomposed);
    EXPECT_EQ(decomposedStringWithCanonicalMapping(form.decomposed), form.decomposed);
    EXPECT_EQ(precomposedStringWithCanonicalMapping(form.decomposed), form.composed);
    EXPECT_EQ(precomposedStringWithCanonicalMapping(form.composed), form.composed);
  }
}

TEST(CanonicalMapping, OrdersMarks) {
  EXPECT_EQ(decomposedStringWithCanonicalMapping("s\u0307\u0323"), "s\u0323\u0307");
}

TEST(CanonicalMapping, LeavesCompatibilityFormsAlone) {
  EXPECT_EQ(decomposedStringWithCanonicalMapping("\ufb01"), "\ufb01");  // the ligature fi
}

TEST(CanonicalMapping, KeepsBytesThatAreNoUTF8AndMapsWhatLiesBetween) {
  EXPECT_EQ(decomposedStringWithCanonicalMapping("\xff\u00fc\xfe"), "\xffu\u0308\xfe");
  EXPECT_EQ(precomposedStringWithCanonicalMapping("\xff"
                                                  "u\u0308\xc3"),
            "\xff\u00fc\xc3");
  EXPECT_EQ(decomposedStringWithCanonicalMapping("\xed\xa0\x80"), "\xed\xa0\x80");  // a surrogate
  EXPECT_EQ(decomposedStringWithCanonicalMapping("\xc0\xaf"), "\xc0\xaf");          // an overlong slash
}

TEST(CanonicalMapping, KeepsNULBytes) {
  EXPECT_EQ(decomposedStringWithCanonicalMapping("a\0\u00fc"s), "a\0u\u0308"s);
}

TEST(ASCII, IsFoundAtEveryPositionOfAWord) {
  EXPECT_TRUE(isASCII(""));
  for (size_t length = 1; length <= 20; ++length) {
    std::string text(length, '\x7f');
    EXPECT_TRUE(isASCII(text));
    for (size_t at = 0; at < length; ++at) {
      std::string other = text;
      other[at] = '\x80';
      EXPECT_FALSE(isASCII(other)) << length << " " << at;
    }
  }
}

TEST(CanonicalEquality, HoldsBetweenTheForms) {
  for (const Form& form : kForms) {
    EXPECT_TRUE(canonicallyEqual(form.composed, form.decomposed));
    EXPECT_EQ(canonicalHash(form.composed), canonicalHash(form.decomposed));
  }
}

TEST(CanonicalEquality, KeepsCaseAndDifferentNamesApart) {
  EXPECT_FALSE(canonicallyEqual("a", "A"));
  EXPECT_FALSE(canonicallyEqual("B\u00fccher", "Bucher"));
  EXPECT_FALSE(canonicallyEqual("\xff", "\xfe"));
  EXPECT_FALSE(canonicallyEqual("a", "ab"));
  EXPECT_TRUE(canonicallyEqual("\xff", "\xff"));
}

TEST(UTF8, AcceptsExactlyWellFormedSequences) {
  for (const char* text :
       {"", "a", "\u00fc", "\u20ac", "\U0001f600", "\uffff", "\U0010ffff", "\ud7ff", "\ue000"}) {
    EXPECT_TRUE(isValidUTF8(text)) << text;
  }
  const char* broken[] = {"\x80",
                          "\xc3",
                          "\xc0\xaf",
                          "\xc1\xbf",
                          "\xe2\x82",
                          "\xe0\x80\x80",
                          "\xed\xa0\x80",
                          "\xed\xbf\xbf",
                          "\xf0\x8f\xbf\xbf",
                          "\xf4\x90\x80\x80",
                          "\xf5\x80\x80\x80",
                          "\xff",
                          "a\xe2\x28\xa1"};
  for (const char* text : broken) EXPECT_FALSE(isValidUTF8(text)) << text;
}

TEST(SanitizedUTF8, ReplacesEachByteThatBelongsToNoCharacter) {
  EXPECT_EQ(sanitizedUTF8("a\xff\u00fc\xc3"), "a\ufffd\u00fc\ufffd");
  EXPECT_EQ(sanitizedUTF8("a\0b"s), "a\ufffdb");
  EXPECT_EQ(sanitizedUTF8("plain"), "plain");
}

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
