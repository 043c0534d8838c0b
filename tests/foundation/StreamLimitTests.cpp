#include "platform/foundation/NSUnarchiver.h"
#include "tests/foundation/StreamVectors.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

constexpr const char* kClassA = "848401410085";  // the class "A" without a superclass, new

NSData bytes(const std::string& hex) { return fromHex(kHeader + hex); }

void append(NSData& data, const std::string& hex) {
  const NSData more = fromHex(hex);
  data.insert(data.end(), more.begin(), more.end());
}

std::string refusedBecause(const NSData& data) {
  std::string reason;
  const auto stream = NSUnarchiver::unarchiveGroups(data, &reason);
  EXPECT_FALSE(stream);
  return reason;
}

bool accepted(const NSData& data) {
  std::string reason;
  const bool result = NSUnarchiver::unarchiveGroups(data, &reason).has_value();
  if (!result) ADD_FAILURE() << reason;
  return result;
}

std::string repeated(const std::string& text, size_t count) {
  std::string result;
  for (size_t i = 0; i < count; ++i) result += text;
  return result;
}

// `levels` objects inside each other.
NSData nestedObjects(size_t levels) {
  NSData data = bytes(
      "840140"
      "84" +
      std::string(kClassA));
  append(data, repeated("92"
                        "8493",
                        levels - 1) +
                   repeated("86", levels));
  return data;
}

TEST(StreamLimits, NestedObjects) {
  EXPECT_TRUE(accepted(nestedObjects(64)));
  EXPECT_THAT(refusedBecause(nestedObjects(65)), testing::HasSubstr("nested too deeply"));
  EXPECT_THAT(refusedBecause(nestedObjects(3000)), testing::HasSubstr("nested too deeply"));
}

NSData classChain(size_t length) {
  NSData data = bytes("840123");
  for (size_t i = 0; i < length; ++i)
    append(data, i == 0 ? "84"
                          "84014100"
                        : "84"
                          "9300");
  append(data, "85");
  return data;
}

TEST(StreamLimits, Superclasses) {
  EXPECT_TRUE(accepted(classChain(32)));
  EXPECT_THAT(refusedBecause(classChain(33)), testing::HasSubstr("too many superclasses"));
  EXPECT_THAT(refusedBecause(classChain(3000)), testing::HasSubstr("too many superclasses"));
}

TEST(StreamLimits, SuperclassesOfAChainInPieces) {
  // 20 classes, then a class of 12 more that ends in the first of them: 32; with one more 33.
  const auto pieces = [](size_t more) {
    NSData data = classChain(20);
    append(data, "92" +
                     repeated("84"
                              "9300",
                              more) +
                     "92");
    return data;
  };
  EXPECT_TRUE(accepted(pieces(12)));
  EXPECT_THAT(refusedBecause(pieces(13)), testing::HasSubstr("too many superclasses"));
}

NSData encoded(const std::string& encoding, const std::string& values) {
  NSData data = bytes("84");
  if (encoding.size() < 128) {
    data.push_back(static_cast<uint8_t>(encoding.size()));
  } else {
    append(data,
           "81" + toHex({static_cast<uint8_t>(encoding.size()), static_cast<uint8_t>(encoding.size() >> 8)}));
  }
  data.insert(data.end(), encoding.begin(), encoding.end());
  append(data, values);
  return data;
}

TEST(StreamLimits, BracketsInAnEncoding) {
  const auto nested = [](size_t depth) { return repeated("{", depth) + "i" + repeated("}", depth); };
  EXPECT_TRUE(accepted(encoded(nested(16), "05")));
  EXPECT_THAT(refusedBecause(encoded(nested(17), "05")), testing::HasSubstr("type encoding is malformed"));
  EXPECT_THAT(refusedBecause(encoded(nested(3000), "05")), testing::HasSubstr("type encoding is malformed"));
  EXPECT_THAT(refusedBecause(encoded(repeated("[1", 3000) + "i" + repeated("]", 3000), "05")),
              testing::HasSubstr("type encoding is malformed"));
}

TEST(StreamLimits, LengthOfAnEncoding) {
  EXPECT_TRUE(accepted(encoded(std::string(512, 'c'), std::string(1024, '0'))));
  EXPECT_THAT(refusedBecause(encoded(std::string(513, 'c'), std::string(1026, '0'))),
              testing::HasSubstr("type encoding"));
}

TEST(StreamLimits, ArraysLongerThanTheData) {
  EXPECT_THAT(refusedBecause(encoded("[99c]", "00")), testing::HasSubstr("longer than the archive"));
  EXPECT_THAT(refusedBecause(encoded("[4294967296[4294967296c]]", "00")),
              testing::HasSubstr("type encoding"));
  EXPECT_THAT(refusedBecause(encoded("[99999999{}]", "")), testing::HasSubstr("an array of nothing"));
  EXPECT_TRUE(accepted(encoded("[1{}]", "")));
  EXPECT_TRUE(accepted(encoded("[0i]", "")));
}

TEST(StreamLimits, SizeOfTheArchive) {
  NSData data(size_t{1} << 20, 0);
  const NSData begin = bytes("84");
  std::copy(begin.begin(), begin.end(), data.begin());
  data.push_back(0);
  EXPECT_THAT(refusedBecause(data), testing::HasSubstr("too large"));
}

TEST(StreamLimits, Objects) {
  const auto objects = [](size_t count) {
    NSData data = encoded("[" + std::to_string(count) + "@]", "84" + std::string(kClassA) + "86");
    append(data, repeated("849386", count - 1));
    return data;
  };
  EXPECT_TRUE(accepted(objects(99999)));  // and one class
  EXPECT_THAT(refusedBecause(objects(100000)), testing::HasSubstr("too many objects"));
}

TEST(StreamLimits, SharedTexts) {
  const auto texts = [](size_t count) {
    NSData data = encoded("[" + std::to_string(count) + "%]", "");
    append(data, repeated("840178", count));
    return data;
  };
  EXPECT_TRUE(accepted(texts(16383)));  // and the encoding
  EXPECT_THAT(refusedBecause(texts(16384)), testing::HasSubstr("too many texts"));
}

TEST(StreamLimits, Groups) {
  const auto groups = [](size_t count) {
    NSData data = encoded("!", "");
    data.insert(data.end(), count - 1, 0x92);
    return data;
  };
  EXPECT_TRUE(accepted(groups(500000)));
  EXPECT_THAT(refusedBecause(groups(500001)), testing::HasSubstr("too many groups"));
}

TEST(StreamLimits, ValuesWithoutBytes) {
  // One byte per group stands for 256 empty structures.
  NSData data = encoded(repeated("{}", 256), "");
  data.insert(data.end(), 100000, 0x92);
  EXPECT_THAT(refusedBecause(data), testing::HasSubstr("too many values"));
}

TEST(StreamLimits, RepetitionsOfALongText) {
  // A text of 500,000 bytes, then 1,000 references of a byte each.
  NSData data = encoded("[1001%]",
                        "84"
                        "82"
                        "20a10700");
  data.insert(data.end(), 500000, 'x');
  data.insert(data.end(), 1000, 0x93);
  EXPECT_THAT(refusedBecause(data), testing::HasSubstr("repeated too often"));
}

TEST(StreamLimits, RepetitionsOfALongCString) {
  NSData data = encoded("[101*]",
                        "84"
                        "84"
                        "82"
                        "20a10700");
  data.insert(data.end(), 500000, 'x');
  append(data, repeated("84"
                        "93",
                        100));
  EXPECT_THAT(refusedBecause(data), testing::HasSubstr("repeated too often"));
}

TEST(StreamLimits, ClassNames) {
  const auto named = [](const std::string& name) {
    NSData data = bytes(
        "840123"
        "84"
        "84");
    append(data, name.size() > 127 ? "81" + toHex({static_cast<uint8_t>(name.size()), 0})
                                   : toHex({static_cast<uint8_t>(name.size())}));
    data.insert(data.end(), name.begin(), name.end());
    append(data, "0085");
    return data;
  };
  EXPECT_TRUE(accepted(named(std::string(128, 'A'))));
  for (const std::string& name :
       {std::string(), std::string(129, 'A'), std::string("A\0B", 3), std::string("\xc3\xbc")}) {
    EXPECT_THAT(refusedBecause(named(name)), testing::HasSubstr("no proper name"));
  }
}

// Ten references per level, twelve levels: cheap to read, 10^12 leaves to walk.
TEST(StreamLimits, SharedObjectsAreCheapToReadAndTheirWalkIsBounded) {
  NSData data = bytes(
      "840140"
      "84"
      "8484074e534172726179"
      "00"
      "8484084e534f626a656374"
      "00"
      "85"
      "840169"
      "0a");
  // Level k has its next level first, then nine references to it: number 3 + k.
  for (int level = 1; level <= 11; ++level)
    append(data,
           "92"
           "84"
           "93"
           "95"
           "0a");
  append(data, repeated("9285", 10) + "86");
  for (int level = 11; level >= 1; --level) {
    append(data, repeated("92" + toHex({static_cast<uint8_t>(0x94 + level)}), 9) + "86");
  }
  std::string reason;
  const auto stream = NSUnarchiver::unarchiveStream(data, &reason);
  ASSERT_TRUE(stream) << reason;
  EXPECT_EQ(stream->slots.size(), 14U);
  EXPECT_FALSE(NSUnarchiver::propertyValue(*stream, stream->values.front()));
}

TEST(StreamLimits, RefusalsDoNotTellContents) {
  const NSData data = bytes(
      "840140"
      "84"
      "8484084e53537472696e67"
      "01"
      "8484084e534f626a656374"
      "00"
      "85"
      "84012b"
      "0673656372657488");
  const std::string reason = refusedBecause(data);
  EXPECT_FALSE(reason.empty());
  EXPECT_EQ(reason.find("secret"), std::string::npos);
}

}  // namespace
}  // namespace ombra
