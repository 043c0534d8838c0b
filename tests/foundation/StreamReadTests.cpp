#include <cmath>
#include <cstdlib>
#include <limits>

#include "platform/foundation/NSUnarchiver.h"
#include "tests/foundation/StreamVectors.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

using Value = TypedStream::Value;

constexpr const char* kBigEndianHeader = "040b747970656473747265616d8103e8";

std::optional<TypedStream> readGroups(const std::string& body, const char* header = kHeader) {
  std::string reason;
  auto stream = NSUnarchiver::unarchiveGroups(fromHex(header + body), &reason);
  EXPECT_EQ(stream.has_value(), reason.empty()) << reason;
  return stream;
}

std::string hexByte(size_t byte) {
  constexpr char kDigits[] = "0123456789abcdef";
  return {kDigits[byte >> 4 & 15], kDigits[byte & 15]};
}

// One group of one value whose type code is `type`.
std::optional<TypedStream> readValue(char type, const std::string& bytes, const char* header = kHeader) {
  return readGroups("8401" + hexByte(static_cast<unsigned char>(type)) + bytes, header);
}

TypedStream stringObject() {
  TypedStream stream;
  stream.slots.push_back(TypedStream::Class{"NSObject", 0, std::nullopt});
  stream.slots.push_back(TypedStream::Class{"NSString", 1, 0U});
  return stream;
}

struct Number {
  char type;
  int64_t number;
  const char* bytes;
};
// Each in its shortest form, which is the one that is written.
constexpr Number kNumbers[] = {
    {'q', 0, "00"},
    {'q', 127, "7f"},
    {'q', 128, "818000"},
    {'q', 255, "81ff00"},
    {'q', 32767, "81ff7f"},
    {'q', 32768, "8200800000"},
    {'q', 2147483647, "82ffffff7f"},
    {'q', 2147483648, "870000008000000000"},
    {'q', -110, "92"},
    {'q', -111, "8191ff"},
    {'q', -128, "8180ff"},
    {'q', -129, "817fff"},
    {'q', -32767, "810180"},
    {'q', -32768, "820080ffff"},
    {'q', std::numeric_limits<int32_t>::min(), "8200000080"},
    {'q', -9000000000, "8700e68ee7fdffffff"},
    {'q', std::numeric_limits<int64_t>::min(), "870000000000000080"},
    {'q', 4444, "815c11"},
    {'q', 55555, "8203d90000"},
    {'q', -55555, "82fd26ffff"},
    {'i', 42, "2a"},
    {'s', -32768, "820080ffff"},
    {'l', -1, "ff"},
};

TEST(StreamNumbers, ReadAndWriteInTheirShortestForm) {
  for (const Number& number : kNumbers) {
    SCOPED_TRACE(number.bytes);
    const auto stream = readValue(number.type, number.bytes);
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::get<int64_t>(stream->values.at(0).data), number.number);
    EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)),
              kHeader + ("8401" + hexByte(static_cast<size_t>(number.type))) + number.bytes);
  }
}

struct UnsignedNumber {
  char type;
  uint64_t number;
  const char* bytes;
};
// Written as signed numbers of the same width.
constexpr UnsignedNumber kUnsignedNumbers[] = {
    {'Q', 18446744073709551613U, "fd"},
    {'Q', 253, "81fd00"},
    {'S', 40000, "81409c"},
    {'I', 40000, "82409c0000"},
    {'I', 4000000000, "8200286bee"},
    {'L', 4294967295, "ff"},
    {'S', 65535, "ff"},
    {'C', 255, "ff"},
    {'C', 132, "84"},
    {'B', 1, "01"},
    {'B', 0, "00"},
};

TEST(StreamNumbers, UnsignedOnesAreSignExtendedThenCutToTheirWidth) {
  for (const UnsignedNumber& number : kUnsignedNumbers) {
    SCOPED_TRACE(number.bytes);
    const auto stream = readValue(number.type, number.bytes);
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::get<uint64_t>(stream->values.at(0).data), number.number);
    EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)),
              kHeader + ("8401" + hexByte(static_cast<size_t>(number.type))) + number.bytes);
  }
}

TEST(StreamNumbers, LongerFormsThanNeededAreReadAndWrittenShort) {
  for (const char* bytes : {"810500", "8205000000", "870500000000000000"}) {
    const auto stream = readValue('i', bytes);
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::get<int64_t>(stream->values.at(0).data), 5);
    EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)), std::string(kHeader) + "84016905");
  }
}

TEST(StreamNumbers, FitTheirTypeAsSignedOrAsUnsigned) {
  EXPECT_EQ(std::get<int64_t>(readValue('s', "82ffff0000")->values.at(0).data), -1);
  EXPECT_EQ(std::get<uint64_t>(readValue('S', "82ffff0000")->values.at(0).data), 65535U);
  EXPECT_FALSE(readValue('s', "8200000100"));          // 65536
  EXPECT_FALSE(readValue('S', "82ff7fffff"));          // -32769
  EXPECT_FALSE(readValue('i', "870000000001000000"));  // 2^32
  EXPECT_TRUE(readValue('I', "87ffffffff00000000"));   // 2^32 - 1
}

TEST(StreamNumbers, TwoNegativeOnesSideBySideAreNoReferences) {
  const auto stream = NSUnarchiver::unarchiveGroups(fromHex(kTwoSmallNegatives), nullptr);
  ASSERT_TRUE(stream);
  ASSERT_EQ(stream->values.size(), 2U);
  EXPECT_EQ(std::get<int64_t>(stream->values[0].data), -22);
  EXPECT_EQ(std::get<int64_t>(stream->values[1].data), 7);
  EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)), kTwoSmallNegatives);
}

TEST(StreamNumbers, ReservedTagsAreRefusedWhereANumberIsDue) {
  for (int tag = 0x80; tag <= 0x91; ++tag) {
    if (tag == 0x81 || tag == 0x82 || tag == 0x87) continue;
    EXPECT_FALSE(readValue('i', hexByte(static_cast<size_t>(tag)) + "0000000000000000")) << tag;
  }
}

TEST(StreamNumbers, CharactersAreRawBytesEvenWhenTheyLookLikeTags) {
  for (size_t byte = 0; byte < 256; ++byte) {
    const auto stream = readValue('c', hexByte(byte));
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::get<int64_t>(stream->values.at(0).data), static_cast<int8_t>(byte));
  }
  EXPECT_FALSE(readValue('B', "02"));
}

struct Real {
  char type;
  double real;
  const char* bytes;
};
constexpr Real kReals[] = {
    {'f', 3.5, "8300006040"},
    {'d', 100.5, "830000000000205940"},
    {'d', 3.0, "03"},
    {'f', -110, "92"},
    {'d', 21692800, "8280014b01"},
    {'f', 0, "00"},
    // Beyond the detour over a float, whole numbers go out as reals.
    {'d', 2147483648.0, "83000000000000e041"},
    {'d', 16777217.0, "830000001000007041"},
};

TEST(StreamReals, WholeOnesAreWrittenAsNumbers) {
  for (const Real& real : kReals) {
    SCOPED_TRACE(real.bytes);
    const auto stream = readValue(real.type, real.bytes);
    ASSERT_TRUE(stream);
    EXPECT_EQ(std::get<double>(stream->values.at(0).data), real.real);
    EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)),
              kHeader + ("8401" + hexByte(static_cast<size_t>(real.type))) + real.bytes);
  }
}

TEST(StreamReals, SurviveARoundTrip) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  for (const double real :
       {kInfinity, -kInfinity, 2147483648.0, 16777217.0, 2147483645.0, -2147483647.0, 1e300, 5e-324}) {
    TypedStream stream;
    stream.groups = {"d"};
    stream.values = {Value{'d', real}};
    const auto back = NSUnarchiver::unarchiveGroups(NSArchiver::archivedDataWithStream(stream), nullptr);
    ASSERT_TRUE(back);
    EXPECT_EQ(std::get<double>(back->values.at(0).data), real);
  }
}

TEST(StreamReals, NotANumberStaysOneAndNegativeZeroBecomesZero) {
  TypedStream stream;
  stream.groups = {"fd"};
  stream.values = {Value{'f', std::nan("")}, Value{'d', -0.0}};
  const auto back = NSUnarchiver::unarchiveGroups(NSArchiver::archivedDataWithStream(stream), nullptr);
  ASSERT_TRUE(back);
  EXPECT_TRUE(std::isnan(std::get<double>(back->values.at(0).data)));
  EXPECT_FALSE(std::signbit(std::get<double>(back->values.at(1).data)));
}

TEST(StreamOrder, BigEndianNumbersRealsAndReferencesAreSwapped) {
  EXPECT_EQ(std::get<int64_t>(readValue('i', "81014d", kBigEndianHeader)->values.at(0).data), 333);
  EXPECT_EQ(std::get<int64_t>(readValue('q', "87fffffffde78ee600", kBigEndianHeader)->values.at(0).data),
            -9000000000);
  EXPECT_EQ(std::get<double>(readValue('f', "8340600000", kBigEndianHeader)->values.at(0).data), 3.5);
  EXPECT_EQ(std::get<double>(readValue('d', "834059200000000000", kBigEndianHeader)->values.at(0).data),
            100.5);
  // The reference -110 in two bytes.
  EXPECT_TRUE(
      readGroups("84016905"
                 "81ff9206",
                 kBigEndianHeader));
  EXPECT_FALSE(
      readGroups("84016905"
                 "8192ff06",
                 kBigEndianHeader));
}

TEST(StreamHeader, OtherSystemVersionsAreAccepted) {
  for (const char* version : {"00", "82ffffff7f", "815200"}) {
    EXPECT_TRUE(
        NSUnarchiver::unarchiveGroups(fromHex("040b73747265616d7479706564" + std::string(version)), nullptr));
  }
  EXPECT_FALSE(NSUnarchiver::unarchiveGroups(fromHex("040b73747265616d7479706564ff"), nullptr));
}

TEST(StreamHeader, OfOtherVersionsOrLengthsIsRefused) {
  for (const char* header :
       {"", "04", "040b", "050b73747265616d747970656481e803", "040a73747265616d7479706581e803"}) {
    EXPECT_FALSE(NSUnarchiver::unarchiveGroups(fromHex(header), nullptr)) << header;
  }
}

TEST(StreamVectors, AreReadAndWrittenToTheSameBytes) {
  for (const StreamVector& vector : kValidStreams) {
    SCOPED_TRACE(vector.name);
    std::string reason;
    const auto stream = NSUnarchiver::unarchiveStream(fromHex(vector.hex), &reason);
    ASSERT_TRUE(stream) << reason;
    EXPECT_TRUE(stream->root);
    const std::string again = toHex(NSArchiver::archivedDataWithStream(*stream));
    // The writer knows one byte order.
    EXPECT_EQ(again, std::string_view(vector.name) == "string_be" ? kValidStreams[0].hex : vector.hex);
  }
}

TEST(StreamVectors, CutAtAnyLengthAreRefused) {
  for (const StreamVector& vector : kValidStreams) {
    SCOPED_TRACE(vector.name);
    const NSData whole = fromHex(vector.hex);
    for (size_t length = 0; length < whole.size(); ++length) {
      std::string reason;
      const NSData part(whole.begin(), whole.begin() + static_cast<long>(length));
      EXPECT_FALSE(NSUnarchiver::unarchiveStream(part, &reason)) << length;
      EXPECT_FALSE(reason.empty());
    }
  }
}

// Whatever is still read must hang together: it can be written, and is the same when read again.
TEST(StreamVectors, WithAnyByteChangedAreRefusedOrSound) {
  size_t accepted = 0;
  size_t refused = 0;
  for (const StreamVector& vector : kValidStreams) {
    SCOPED_TRACE(vector.name);
    const NSData whole = fromHex(vector.hex);
    for (size_t at = 0; at < whole.size(); ++at) {
      NSData changed = whole;
      // The tags lie close to 128, and what is next to a byte is as likely to be misread as anything.
      const int own = whole[at];
      for (int byte = 0; byte < 256; ++byte) {
        if (byte % 16 != 0 && (byte < 120 || byte > 152) && std::abs(byte - own) > 2 && byte != 255) continue;
        changed[at] = static_cast<uint8_t>(byte);
        std::string reason;
        const auto stream = NSUnarchiver::unarchiveGroups(changed, &reason);
        ASSERT_EQ(stream.has_value(), reason.empty());
        ++(stream ? accepted : refused);
        if (!stream) continue;
        const NSData written = NSArchiver::archivedDataWithStream(*stream);
        const auto again = NSUnarchiver::unarchiveGroups(written, &reason);
        ASSERT_TRUE(again) << at << " " << byte << " " << reason;
        ASSERT_EQ(NSArchiver::archivedDataWithStream(*again), written) << at << " " << byte;
      }
    }
  }
  EXPECT_GT(accepted, 1000U);
  EXPECT_GT(refused, 10000U);
}

TEST(StreamVectors, ThatAreMalformedAreRefusedWithAReason) {
  for (const StreamVector& vector : kMalformedStreams) {
    SCOPED_TRACE(vector.name);
    std::string reason;
    EXPECT_FALSE(NSUnarchiver::unarchiveGroups(fromHex(vector.hex), &reason));
    EXPECT_THAT(reason, testing::StartsWith("the archive is refused at byte "));
  }
}

TEST(StreamVectors, WithNoRootOrSeveralAreNoRecords) {
  for (const StreamVector& vector : kStreamsWithoutOneRoot) {
    SCOPED_TRACE(vector.name);
    std::string reason;
    EXPECT_TRUE(NSUnarchiver::unarchiveGroups(fromHex(vector.hex), nullptr));
    EXPECT_FALSE(NSUnarchiver::unarchiveStream(fromHex(vector.hex), &reason));
    EXPECT_EQ(reason, "the archive is refused: it is not made of one root object");
  }
}

TEST(StreamRoot, MayBeNil) {
  const auto stream = NSUnarchiver::unarchiveStream(fromHex(std::string(kHeader) + "84014085"), nullptr);
  ASSERT_TRUE(stream);
  EXPECT_FALSE(stream->root);
  EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)), std::string(kHeader) + "84014085");
}

TEST(StreamReferences, ToAnObjectBeingReadMakeACycle) {
  const StreamVector& vector = kValidStreams[std::size(kValidStreams) - 1];
  ASSERT_STREQ(vector.name, "self_array");
  const auto stream = NSUnarchiver::unarchiveStream(fromHex(vector.hex), nullptr);
  ASSERT_TRUE(stream);
  const TypedStream::Object* array = stream->object(*stream->root);
  ASSERT_EQ(array->values.size(), 2U);
  EXPECT_EQ(std::get<TypedStream::ObjectRef>(array->values[1].data).index, *stream->root);
  EXPECT_FALSE(NSUnarchiver::propertyValue(*stream, stream->values.at(0)));
}

// Index n is written as n - 110: one byte up to 237, three from 238 on.
TEST(StreamReferences, UseEveryWidth) {
  TypedStream stream = stringObject();
  stream.slots.push_back(TypedStream::Class{"NSArray", 0, 0U});
  TypedStream::Object array{2, {}, {"i"}};
  array.values.push_back(Value{'i', int64_t{0}});
  const auto add = [&array](uint32_t slot) {
    array.groups.emplace_back("@");
    array.values.push_back(Value{'@', TypedStream::ObjectRef{slot}});
  };
  std::vector<uint32_t> strings;
  for (int i = 0; i < 260; ++i) {
    TypedStream::Object text{1, {}, {"+"}};
    text.values.push_back(Value{'+', TypedStream::Bytes(std::to_string(i))});
    stream.slots.push_back(std::move(text));
    strings.push_back(static_cast<uint32_t>(stream.slots.size() - 1));
    add(strings.back());
  }
  // The first string has number 3, its class 4, the others follow.
  const auto string = [&strings](uint32_t number) { return strings[number == 3 ? 0 : number - 4]; };
  for (const uint32_t number : {3U, 108U, 236U, 237U, 238U, 263U}) add(string(number));
  std::get<int64_t>(array.values[0].data) = 266;
  stream.slots.push_back(std::move(array));
  stream.root = static_cast<uint32_t>(stream.slots.size() - 1);

  const NSData data = NSArchiver::archivedDataWithStream(stream);
  EXPECT_THAT(toHex(data), testing::EndsWith("92"
                                             "95"
                                             "92"
                                             "fe"
                                             "92"
                                             "7e"
                                             "92"
                                             "7f"
                                             "92"
                                             "818000"
                                             "92"
                                             "819900"
                                             "86"));
  const auto back = NSUnarchiver::unarchiveStream(data, nullptr);
  ASSERT_TRUE(back);
  EXPECT_EQ(NSArchiver::archivedDataWithStream(*back), data);
  const auto values = NSUnarchiver::propertyValue(*back, back->values.at(0));
  ASSERT_TRUE(values);
  ASSERT_EQ(values->asArray()->size(), 266U);
  EXPECT_EQ(*values->asArray()->at(260).asString(), "0");
  EXPECT_EQ(*values->asArray()->at(261).asString(), "104");
  EXPECT_EQ(*values->asArray()->at(265).asString(), "259");
}

TEST(StreamReferences, ToSharedStringsUseEveryWidth) {
  TypedStream stream;
  for (int i = 1; i <= 300; ++i) {
    stream.groups.push_back("[" + std::to_string(i) + "c]");
    stream.values.push_back(Value{'[', TypedStream::Bytes(std::string(static_cast<size_t>(i), 'x'))});
  }
  for (const int i : {0, 109, 110, 237, 238, 299}) {
    stream.groups.push_back(stream.groups[static_cast<size_t>(i)]);
    stream.values.push_back(stream.values[static_cast<size_t>(i)]);
  }
  const NSData data = NSArchiver::archivedDataWithStream(stream);
  const auto back = NSUnarchiver::unarchiveGroups(data, nullptr);
  ASSERT_TRUE(back);
  EXPECT_EQ(back->groups, stream.groups);
  EXPECT_EQ(NSArchiver::archivedDataWithStream(*back), data);
  // The last group is index 299, that is 189 in two bytes, and 300 characters.
  EXPECT_THAT(toHex(data), testing::EndsWith("81bd00" + toHex(NSData(300, 'x'))));
}

TEST(StreamReferences, OfTheWrongKindAreRefused) {
  // O0 object, O1 class A; then a C string that refers to the object.
  EXPECT_FALSE(
      readGroups("840140"
                 "84848401410085"
                 "84012a"
                 "92"
                 "86"));
  // A class that refers to a C string.
  EXPECT_FALSE(
      readGroups("84012a"
                 "84840161"
                 "840123"
                 "92"));
}

TEST(StreamReferences, FromAnObjectPlaceToAClassAreOpaque) {
  const auto stream = readGroups(
      "840140"
      "84848401410085"
      "92"
      "93"
      "86");
  ASSERT_TRUE(stream);
  const TypedStream::Object* object = stream->object(0);
  ASSERT_NE(object, nullptr);
  const Value& value = object->values.at(0);
  EXPECT_EQ(stream->object(std::get<TypedStream::ObjectRef>(value.data).index), nullptr);
  EXPECT_FALSE(NSUnarchiver::propertyValue(*stream, value));
}

TEST(StreamReferences, ToASharedObjectStayOneObject) {
  // An NSArray twice holding the same string.
  const std::string hex = std::string(kHeader) +
                          "840140"
                          "8484 84 07 4e534172726179 00 84 84 08 4e534f626a656374 00 85"
                          "840169 02"
                          "92"
                          "84 84 84 08 4e53537472696e67 01 94 84012b 0161 86"
                          "92 95"
                          "86";
  const auto stream = NSUnarchiver::unarchiveStream(fromHex(hex), nullptr);
  ASSERT_TRUE(stream);
  const TypedStream::Object* array = stream->object(*stream->root);
  EXPECT_EQ(std::get<TypedStream::ObjectRef>(array->values[1].data).index,
            std::get<TypedStream::ObjectRef>(array->values[2].data).index);
  EXPECT_EQ(NSArchiver::archivedDataWithStream(*stream), fromHex(hex));
}

TEST(StreamCStrings, TakeAnObjectNumberAndShareTheirText) {
  // Two Booleans in an array: the second C string is a reference to the object table, and the same byte is
  // once a reference to a text and once to an object.
  const std::string hex = std::string(kHeader) +
                          "840140 84848407 4e534172726179 00 848408 4e534f626a656374 00 85 840169 02 92"
                          "84 848408 4e534e756d626572 00 848407 4e5356616c7565 00 94 84012a 84840163 99 01 86"
                          "92 84 96 98 98 99 00 86 86";
  std::string reason;
  const auto stream = NSUnarchiver::unarchiveStream(fromHex(hex), &reason);
  ASSERT_TRUE(stream) << reason;
  EXPECT_EQ(NSArchiver::archivedDataWithStream(*stream), fromHex(hex));
  const auto values = NSUnarchiver::propertyValue(*stream, stream->values.at(0));
  ASSERT_TRUE(values);
  EXPECT_EQ(*values->asArray()->at(0).asInteger(), 1);
  EXPECT_EQ(*values->asArray()->at(1).asInteger(), 0);
}

TEST(StreamStrings, OfEveryLengthSurviveARoundTrip) {
  for (const size_t length : {0, 1, 127, 128, 145, 146, 255, 256, 32767, 32768, 65535, 65536}) {
    TypedStream stream;
    stream.groups = {"+%:"};
    const TypedStream::Bytes text(std::string(length, 's'));
    stream.values = {Value{'+', text}, Value{'%', text}, Value{':', TypedStream::Nil()}};
    const auto back = NSUnarchiver::unarchiveGroups(NSArchiver::archivedDataWithStream(stream), nullptr);
    ASSERT_TRUE(back) << length;
    EXPECT_EQ(std::get<TypedStream::Bytes>(back->values.at(0).data).bytes, text.bytes);
    EXPECT_EQ(std::get<TypedStream::Bytes>(back->values.at(1).data).bytes, text.bytes);
    EXPECT_TRUE(std::holds_alternative<TypedStream::Nil>(back->values.at(2).data));
  }
}

TEST(StreamStrings, AcceptALengthOfTwoBytesThatWasMeantUnsigned) {
  const auto stream = readGroups(
      "84012b"
      "810080" +
      toHex(NSData(32768, 'x')));
  ASSERT_TRUE(stream);
  EXPECT_EQ(std::get<TypedStream::Bytes>(stream->values.at(0).data).bytes.size(), 32768U);
  EXPECT_FALSE(
      readGroups("84012b"
                 "820080ffff" +
                 toHex(NSData(32768, 'x'))));
}

TEST(StreamStrings, AreBytes) {
  const auto stream = readGroups(
      "84012b"
      "04"
      "00fffe85");
  ASSERT_TRUE(stream);
  EXPECT_EQ(std::get<TypedStream::Bytes>(stream->values.at(0).data).bytes, std::string("\0\xff\xfe\x85", 4));
}

TEST(StreamGroups, MayNameTheirStructures) {
  for (const char* encoding : {"{_NSRect={_NSPoint=ff}{_NSSize=ff}}", "{{?=ff}{?=ff}}", "{{ff}{ff}}"}) {
    const std::string text = encoding;
    const auto stream =
        readGroups("84" + hexByte(text.size()) + toHex(NSData(text.begin(), text.end())) + "01020304");
    ASSERT_TRUE(stream) << encoding;
    const auto& rect = std::get<std::vector<Value>>(stream->values.at(0).data);
    ASSERT_EQ(rect.size(), 2U);
    EXPECT_EQ(std::get<double>(std::get<std::vector<Value>>(rect[1].data).at(1).data), 4);
    EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)),
              kHeader + ("84" + hexByte(text.size())) + toHex(NSData(text.begin(), text.end())) + "01020304");
  }
}

TEST(StreamGroups, HoldArraysOfAnyType) {
  const auto stream = readGroups(
      "84045b32695d"
      "05"
      "810001");
  ASSERT_TRUE(stream);
  const auto& array = std::get<std::vector<Value>>(stream->values.at(0).data);
  ASSERT_EQ(array.size(), 2U);
  EXPECT_EQ(std::get<int64_t>(array[1].data), 256);
}

TEST(StreamGroups, MixNilObjectsWithNumbers) {
  const auto stream = readGroups(
      "84024069"
      "85"
      "81f002");
  ASSERT_TRUE(stream);
  EXPECT_TRUE(std::holds_alternative<TypedStream::Nil>(stream->values.at(0).data));
  EXPECT_EQ(std::get<int64_t>(stream->values.at(1).data), 752);
}

TEST(StreamGroups, LeaveOutIgnoredNumbers) {
  const auto stream = readGroups(
      "8403692169"
      "0102");
  ASSERT_TRUE(stream);
  EXPECT_EQ(stream->values.size(), 2U);
  EXPECT_EQ(toHex(NSArchiver::archivedDataWithStream(*stream)), std::string(kHeader) +
                                                                    "8403692169"
                                                                    "0102");
}

TEST(StreamGroups, OfUnknownTypesAreRefused) {
  for (const std::string encoding :
       {"(ii)", "^i", "b3", "ri", "?", "[i]", "[2i", "{i", "i}", "[2ii]", "\x7f", "[2", "{", "[]"}) {
    EXPECT_FALSE(readGroups("84" + hexByte(encoding.size()) +
                            toHex(NSData(encoding.begin(), encoding.end())) + "00000000000000000000"))
        << encoding;
  }
}

}  // namespace
}  // namespace ombra
