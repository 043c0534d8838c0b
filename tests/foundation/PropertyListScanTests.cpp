#include "platform/foundation/PropertyListScan.h"

#include "platform/foundation/PropertyList.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

// Puts objects, given as hexadecimal bytes, into a binary property list; the first is the root.
struct Binary {
  std::vector<std::string> objects;
  uint8_t offsetSize = 2;
  uint8_t referenceSize = 1;
  std::optional<uint64_t> count = std::nullopt;
  uint64_t root = 0;
  int64_t tableShift = 0;

  NSData data() const {
    NSData result{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<size_t> offsets;
    for (const std::string& object : objects) {
      offsets.push_back(result.size());
      const NSData bytes = fromHex(object);
      result.insert(result.end(), bytes.begin(), bytes.end());
    }
    const uint64_t table = result.size();
    for (const size_t offset : offsets) {
      result.push_back(static_cast<uint8_t>(offset >> 8));
      result.push_back(static_cast<uint8_t>(offset));
    }
    result.insert(result.end(), 6, 0);
    result.push_back(offsetSize);
    result.push_back(referenceSize);
    append(result, count.value_or(objects.size()));
    append(result, root);
    append(result, table + static_cast<uint64_t>(tableShift));
    return result;
  }
  static void append(NSData& data, uint64_t number) {
    for (int shift = 56; shift >= 0; shift -= 8) data.push_back(static_cast<uint8_t>(number >> shift));
  }
};

bool isSound(const NSData& data) {
  std::string reason;
  const bool sound = scanBinaryPropertyList(data, &reason);
  EXPECT_EQ(sound, reason.empty()) << reason;
  return sound;
}

std::string refusal(const NSData& data) {
  std::string reason;
  EXPECT_FALSE(scanBinaryPropertyList(data, &reason));
  return reason;
}

TEST(BinaryListScan, AcceptsEveryKindOfObject) {
  for (const char* object : {"08",
                             "09",
                             "1005",
                             "110100",
                             "1200000001",
                             "13ffffffffffffffff",
                             "140000000000000000"
                             "8000000000000000",
                             "223f800000",
                             "233ff0000000000000",
                             "33419d6f3454000000",
                             "40",
                             "4201ff",
                             "50",
                             "5161",
                             "6100fc",
                             "62d83dde00",
                             "8005",
                             "83ffffffff",
                             "87"
                             "00000000ffffffff",
                             "a0",
                             "c0",
                             "d0"}) {
    EXPECT_TRUE(isSound(Binary{{object}}.data())) << object;
  }
  EXPECT_TRUE(isSound(Binary{{"d10102", "5161", "a20101"}}.data()));
}

TEST(BinaryListScan, AcceptsLongLengths) {
  EXPECT_TRUE(isSound(Binary{{"5f100f" + toHex(NSData(15, 'x'))}}.data()));
  EXPECT_TRUE(isSound(Binary{{"5f110100" + toHex(NSData(256, 'x'))}}.data()));
  EXPECT_TRUE(isSound(Binary{{"af100f" + toHex(NSData(15, 1)), "08"}}.data()));
}

TEST(BinaryListScan, RefusesObjectsOfUnknownKinds) {
  for (const char* object : {"00", "0f", "01",
                             "15"
                             "0000",
                             "20"
                             "00",
                             "24", "3200", "7161", "9000",
                             "88"
                             "000000000000000000",
                             "b0", "e0", "f0"}) {
    EXPECT_THAT(refusal(Binary{{object}}.data()), testing::HasSubstr("unknown kind")) << object;
  }
}

TEST(BinaryListScan, RefusesWhatIsCutOff) {
  for (const char* object : {"1200", "2300", "3300", "4501", "5561", "6200fc", "8100", "a1", "d101", "5f",
                             "5f11", "5f1101", "af130000000000000001"}) {
    EXPECT_THAT(refusal(Binary{{object}}.data()), testing::HasSubstr("cut off")) << object;
  }
  EXPECT_THAT(refusal(Binary{{"5f13ffffffffffffffff"}}.data()), testing::HasSubstr("cut off"));
  EXPECT_THAT(refusal(Binary{{"df13ffffffffffffffff"}}.data()), testing::HasSubstr("cut off"));
  EXPECT_THAT(refusal(Binary{{"5f5161"}}.data()), testing::HasSubstr("a length is no number"));
}

TEST(BinaryListScan, RefusesBrokenTexts) {
  for (const char* object : {"51ff", "5100", "60", "610000", "61d800", "61dc00", "62d800d800"}) {
    EXPECT_THAT(refusal(Binary{{object}}.data()), testing::HasSubstr("a text")) << object;
  }
}

TEST(BinaryListScan, RefusesNumbersThatTheLibraryWouldCut) {
  EXPECT_THAT(refusal(Binary{{"14"
                              "0000000000000001"
                              "0000000000000000"}}
                          .data()),
              testing::HasSubstr("too large"));
  EXPECT_THAT(refusal(Binary{{"87"
                              "0000000100000000"}}
                          .data()),
              testing::HasSubstr("too large"));
}

TEST(BinaryListScan, RefusesAnImpossibleTrailer) {
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .offsetSize = 0}.data()), testing::HasSubstr("number sizes"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .offsetSize = 9}.data()), testing::HasSubstr("number sizes"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .referenceSize = 0}.data()),
              testing::HasSubstr("number sizes"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .referenceSize = 9}.data()),
              testing::HasSubstr("number sizes"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .count = 0}.data()),
              testing::HasSubstr("count is impossible"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .count = 2}.data()),
              testing::HasSubstr("count is impossible"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .count = UINT64_MAX}.data()),
              testing::HasSubstr("count is impossible"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .root = 1}.data()), testing::HasSubstr("root"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .tableShift = 1000}.data()),
              testing::HasSubstr("offset table"));
  EXPECT_THAT(refusal(Binary{.objects = {"08"}, .tableShift = -5}.data()),
              testing::HasSubstr("offset table"));
  EXPECT_THAT(refusal({}), testing::HasSubstr("no binary"));
  EXPECT_THAT(refusal(NSData(40, 0)), testing::HasSubstr("no binary"));
}

TEST(BinaryListScan, RefusesOffsetsOutsideTheObjects) {
  NSData data = Binary{{"08"}}.data();
  data[data.size() - 33] = 200;
  EXPECT_THAT(refusal(data), testing::HasSubstr("outside the data"));
  data[data.size() - 33] = 7;
  EXPECT_THAT(refusal(data), testing::HasSubstr("outside the data"));
}

TEST(BinaryListScan, RefusesReferencesPastTheEndAndKeysThatAreNoTexts) {
  EXPECT_THAT(refusal(Binary{{"a105"}}.data()), testing::HasSubstr("past the last object"));
  EXPECT_THAT(refusal(Binary{{"d10101", "1005"}}.data()), testing::HasSubstr("a key is no text"));
}

TEST(BinaryListScan, RefusesCycles) {
  EXPECT_THAT(refusal(Binary{{"a100"}}.data()), testing::HasSubstr("contains itself"));
  EXPECT_THAT(refusal(Binary{{"a101", "a102", "a101"}}.data()), testing::HasSubstr("contains itself"));
}

TEST(BinaryListScan, RefusesTheBomb) {
  const std::string ten[] = {"01", "02", "03", "04", "05"};
  Binary bomb;
  for (const std::string& next : ten) {
    std::string object = "aa";
    for (int i = 0; i < 10; ++i) object += next;
    bomb.objects.push_back(object);
  }
  bomb.objects.emplace_back("5161");
  EXPECT_EQ(bomb.data().size(), 109U);
  EXPECT_THAT(refusal(bomb.data()), testing::HasSubstr("too many objects"));
}

TEST(BinaryListScan, RefusesALongTextNamedOften) {
  Binary list{{"af11ffff" + toHex(NSData(65535, 1)), "5f110400" + toHex(NSData(1024, 'x'))}};
  // The table no longer fits two bytes; put the text first.
  list.objects = {"5f110400" + toHex(NSData(1024, 'x')), "af11ffff" + toHex(NSData(65535, 0))};
  list.root = 1;
  EXPECT_THAT(refusal(list.data()), testing::HasSubstr("contents are too large"));
}

TEST(BinaryListScan, RefusesNestingOver64Levels) {
  const auto nested = [](size_t levels) {
    Binary list;
    for (size_t i = 1; i < levels; ++i) list.objects.push_back("a1" + toHex({static_cast<uint8_t>(i)}));
    list.objects.emplace_back("08");
    return list.data();
  };
  EXPECT_TRUE(isSound(nested(64)));
  EXPECT_THAT(refusal(nested(65)), testing::HasSubstr("nested too deeply"));
  EXPECT_THAT(refusal(nested(250)), testing::HasSubstr("nested too deeply"));
}

TEST(BinaryListScan, AcceptsWhatTheLibraryWrites) {
  const PropertyListRef root = propertyListOf(std::make_shared<const NSDictionary>(
      NSDictionary{{"a", NSArray{1, -1, 2.5, true, "x", "\u00fc", NSData{1},
                                 NSDate::dateWithTimeIntervalSince1970(1000000000)}}}));
  ASSERT_NE(root, nullptr);
  EXPECT_TRUE(isSound(binaryPropertyList(root.get())));
}

// Whatever the scan lets through, the library reads without harm.
TEST(BinaryListScan, WithAnyByteChangedIsRefusedOrReadable) {
  const PropertyListRef root = propertyListOf(std::make_shared<const NSDictionary>(
      NSDictionary{{"a", NSArray{1, "x", "\u00fc", 2.5, NSData{1}}}, {"b", "x"}}));
  NSData data = binaryPropertyList(root.get());
  for (size_t at = 0; at < data.size(); ++at) {
    const uint8_t before = data[at];
    for (int byte = 0; byte < 256; ++byte) {
      data[at] = static_cast<uint8_t>(byte);
      std::string reason;
      const PropertyListRef tree = parsePropertyList(data, &reason);
      ASSERT_EQ(tree != nullptr, reason.empty());
      if (tree != nullptr) propertyValueOf(tree.get());
    }
    data[at] = before;
  }
}

std::string xmlRefusal(std::string_view text) {
  std::string reason;
  EXPECT_FALSE(scanXMLPropertyList({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, &reason))
      << text;
  return reason;
}

bool isSoundXML(std::string_view text) {
  return scanXMLPropertyList({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, nullptr);
}

TEST(XMLListScan, AcceptsWhatTheLibraryWrites) {
  const PropertyListRef root = propertyListOf(
      std::make_shared<const NSDictionary>(NSDictionary{{"a", NSArray{1, "<&>\"", NSData{1}}}, {"b", true}}));
  const NSData data = XMLPropertyList(root.get());
  EXPECT_TRUE(scanXMLPropertyList(data, nullptr));
}

TEST(XMLListScan, AcceptsCommentsAndInstructions) {
  EXPECT_TRUE(isSoundXML("<?xml version=\"1.0\"?><!-- <array> --><plist version=\"1.0\"><array/></plist>"));
}

TEST(XMLListScan, RefusesWhatCouldHideElements) {
  EXPECT_THAT(xmlRefusal("<plist><![CDATA[</array>]]></plist>"), testing::HasSubstr("unknown kind"));
  EXPECT_THAT(xmlRefusal("<!DOCTYPE plist [<!ENTITY a \"b\">]><plist></plist>"),
              testing::HasSubstr("declares entities"));
  EXPECT_THAT(xmlRefusal("<plist><array a=\"</array>\"></array></plist>"), testing::HasSubstr("malformed"));
  EXPECT_THAT(xmlRefusal("<plist><array a=\"x\"></array></plist>"), testing::HasSubstr("attributes"));
  EXPECT_THAT(xmlRefusal(std::string_view("<plist>\0</plist>", 16)), testing::HasSubstr("NUL"));
}

TEST(XMLListScan, RefusesUnbalancedElements) {
  EXPECT_THAT(xmlRefusal("<plist><array></plist>"), testing::HasSubstr("not closed"));
  EXPECT_THAT(xmlRefusal("</plist>"), testing::HasSubstr("was not open"));
  EXPECT_THAT(xmlRefusal("<plist"), testing::HasSubstr("cut off"));
  EXPECT_THAT(xmlRefusal("<!-- "), testing::HasSubstr("no end"));
  EXPECT_THAT(xmlRefusal("<?xml "), testing::HasSubstr("no end"));
  EXPECT_THAT(xmlRefusal(""), testing::HasSubstr("no property list"));
}

TEST(XMLListScan, RefusesNestingOver64LevelsAndTooManyElements) {
  const auto nested = [](size_t levels) {
    std::string text;
    for (size_t i = 0; i < levels; ++i) text += "<array>";
    for (size_t i = 0; i < levels; ++i) text += "</array>";
    return text;
  };
  EXPECT_TRUE(isSoundXML(nested(64)));
  EXPECT_THAT(xmlRefusal(nested(65)), testing::HasSubstr("nested too deeply"));
  EXPECT_THAT(xmlRefusal(nested(200000)), testing::HasSubstr("nested too deeply"));
  std::string many = "<array>";
  for (int i = 0; i < 100000; ++i) many += "<true/>";
  EXPECT_THAT(xmlRefusal(many + "</array>"), testing::HasSubstr("too many elements"));
}

}  // namespace
}  // namespace ombra
