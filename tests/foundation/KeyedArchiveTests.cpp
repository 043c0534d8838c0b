#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

#include "platform/foundation/NSKeyedArchiver.h"
#include "platform/foundation/PropertyList.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

// {NSCocoaErrorDomain, 513, {description, path, underlying {NSPOSIXErrorDomain, 13, no user info}}}.
constexpr const char* kExample =
    "62706c6973743030d4010305090204060a582476657273696f6e12000186a0592461726368697665725f100f4e534b657965"
    "6441726368697665725424746f70d1070854726f6f74800158246f626a65637473ad0b0c15162223242526272b2c3255246e"
    "756c6cd40d0f11130e101214564e53436f6465110201584e53446f6d61696e80025a4e5355736572496e666f80035624636c"
    "617373800b5f10124e53436f636f614572726f72446f6d61696ed3171c13181d21574e532e6b657973a3191a1b8004800580"
    "065a4e532e6f626a65637473a31e1f20800780088009800c5f10164e534c6f63616c697a65644465736372697074696f6e5a"
    "4e5346696c65506174685f10114e53556e6465726c79696e674572726f726f101a0059006f007500200064006f006e201900"
    "74002000680061007600650020007000650072006d0069007300730069006f006e002e5f10142f7372762f646174612f7265"
    "706f72742e747874d40d0f111328292a14100d800a80005f10124e53504f5349584572726f72446f6d61696ed22d2f2e305a"
    "24636c6173736e616d65574e534572726f725824636c6173736573a22e31584e534f626a656374d22d2f33345c4e53446963"
    "74696f6e617279a2333100080011001a001f0029003b004000430048004a00530061006700700077007a0083008500900092"
    "0099009b00b000b700bf00c300c500c700c900d400d800da00dc00de00e000f901040118014f0166016f017101730175018a"
    "018f019a01a201ab01ae01b701bc01c900000000000002010000000000000035000000000000000000000000000001cc";

NSErrorRef underlying() { return NSError::errorWithDomain(NSPOSIXErrorDomain, 13); }

NSErrorRef exampleError() {
  return NSError::errorWithDomain(NSCocoaErrorDomain, 513,
                                  {{"NSLocalizedDescription", "You don\u2019t have permission."},
                                   {"NSFilePath", "/srv/data/report.txt"},
                                   {"NSUnderlyingError", underlying()}});
}

NSErrorRef read(const NSData& data) {
  std::string reason;
  NSErrorRef error = NSKeyedUnarchiver::unarchivedError(data, &reason);
  EXPECT_EQ(error != nullptr, reason.empty()) << reason;
  return error;
}

NSErrorRef roundTrip(const NSErrorRef& error) {
  return read(NSKeyedArchiver::archivedDataWithRootObject(error));
}

// What comes back of one user-info value.
PropertyValue roundTripOf(const PropertyValue& value) {
  const NSErrorRef back = roundTrip(NSError::errorWithDomain("D", 1, {{"key", value}}));
  const PropertyValue* found = back != nullptr ? back->userInfo().objectForKey("key") : nullptr;
  EXPECT_NE(found, nullptr);
  return found != nullptr ? *found : PropertyValue();
}

std::string bytesOf(const NSData& data) { return {data.begin(), data.end()}; }

void expectExample(const NSErrorRef& error) {
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), NSCocoaErrorDomain);
  EXPECT_EQ(error->code(), 513);
  EXPECT_EQ(error->localizedDescription(), "You don\u2019t have permission.");
  EXPECT_EQ(error->userInfo().stringForKey("NSFilePath"), "/srv/data/report.txt");
  const NSErrorRef beneath = error->underlyingError();
  ASSERT_NE(beneath, nullptr);
  EXPECT_EQ(beneath->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(beneath->code(), 13);
  EXPECT_TRUE(beneath->userInfo().empty());
}

TEST(KeyedArchive, ExampleIsRead) { expectExample(read(fromHex(kExample))); }

TEST(KeyedArchive, ErrorSurvivesARoundTrip) { expectExample(roundTrip(exampleError())); }

TEST(KeyedArchive, HasTheStandardLayout) {
  const NSData data = NSKeyedArchiver::archivedDataWithRootObject(exampleError());
  EXPECT_THAT(bytesOf(data), testing::StartsWith("bplist00"));
  const PropertyListRef root = parsePropertyList(data, nullptr);
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(plist_dict_get_size(root.get()), 4U);
  EXPECT_EQ(stringOf(plist_dict_get_item(root.get(), "$archiver")), "NSKeyedArchiver");
  plist_t objects = plist_dict_get_item(root.get(), "$objects");
  EXPECT_EQ(stringOf(plist_array_get_item(objects, 0)), "$null");
  plist_t error = plist_array_get_item(objects, 1);
  for (const char* key : {"NSCode", "NSDomain", "NSUserInfo", "$class"}) {
    EXPECT_NE(plist_dict_get_item(error, key), nullptr) << key;
  }
  EXPECT_EQ(plist_get_node_type(plist_dict_get_item(error, "NSCode")), PLIST_UINT);
  EXPECT_EQ(plist_get_node_type(plist_dict_get_item(error, "NSDomain")), PLIST_UID);
}

TEST(KeyedArchive, CodesOfEverySizeSurvive) {
  for (const int64_t code :
       {int64_t{0}, int64_t{-1}, int64_t{-1009}, int64_t{255}, int64_t{65536}, int64_t{1} << 31,
        std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::min()}) {
    const NSErrorRef back = roundTrip(NSError::errorWithDomain("D", code));
    ASSERT_NE(back, nullptr) << code;
    EXPECT_EQ(back->code(), code);
  }
}

TEST(KeyedArchive, ValuesOfEveryTypeSurvive) {
  const PropertyValue values[] = {true,
                                  false,
                                  int64_t{-7},
                                  1.25,
                                  "",
                                  "\u00fc \U0001f600",
                                  "$null",
                                  NSDate::dateWithTimeIntervalSince1970(1000000000.5),
                                  NSData{0, 1, 2},
                                  NSData{},
                                  NSArray{"x", 1, NSArray{}},
                                  std::make_shared<const NSDictionary>(NSDictionary{{"k", "v"}, {"$k", 1}}),
                                  PropertyValue()};
  for (const PropertyValue& value : values) EXPECT_EQ(roundTripOf(value), value) << value.storage.index();
}

TEST(KeyedArchive, LongListsAndManyObjectsSurvive) {
  NSArray list;
  for (int i = 0; i < 1000; ++i) list.emplace_back("item \u00fc " + std::to_string(i));
  EXPECT_EQ(roundTripOf(list), PropertyValue(list));
  EXPECT_EQ(roundTripOf(NSArray(500, PropertyValue("same"))),
            PropertyValue(NSArray(500, PropertyValue("same"))));
}

TEST(KeyedArchive, TextsThatNoListCanHoldAreMadeReadable) {
  EXPECT_EQ(roundTripOf("a\xff"), PropertyValue("a\ufffd"));
  EXPECT_EQ(roundTripOf(std::string("a\0b", 3)), PropertyValue("a\ufffdb"));
}

TEST(KeyedArchive, ErrorsInAListSurvive) {
  const NSErrorRef error = NSError::errorWithDomain(
      "D", 1, {{"NSMultipleUnderlyingErrorsKey", NSArray{underlying(), underlying()}}});
  const NSErrorRef back = roundTrip(error);
  ASSERT_NE(back, nullptr);
  const NSArray* errors = back->userInfo().objectForKey("NSMultipleUnderlyingErrorsKey")->asArray();
  ASSERT_EQ(errors->size(), 2U);
  EXPECT_EQ(errors->at(1).asError()->code(), 13);
}

TEST(KeyedArchive, KeepsEightErrorsBeneath) {
  NSErrorRef error = NSError::errorWithDomain("D", 0);
  for (int i = 1; i <= 20; ++i) error = NSError::errorWithDomain("D", i, {{"NSUnderlyingError", error}});
  NSErrorRef back = roundTrip(error);
  ASSERT_NE(back, nullptr);
  int64_t last = 0;
  int links = -1;
  for (; back != nullptr; back = back->underlyingError(), ++links) last = back->code();
  EXPECT_EQ(links, 8);
  EXPECT_EQ(last, 12);
}

TEST(KeyedArchive, OfTooMuchIsCutAndStillReadable) {
  NSArray nested;
  for (int i = 0; i < 100; ++i) nested = NSArray{nested};
  NSArray many(200000, PropertyValue(1));
  const NSErrorRef error = NSError::errorWithDomain("D", 1,
                                                    {{"nested", nested},
                                                     {"long", std::string(size_t{5} << 20, 'x')},
                                                     {"data", NSData(size_t{5} << 20)},
                                                     {"many", many}});
  const NSErrorRef back = roundTrip(error);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->userInfo().stringForKey("long"), "(a text too long)");
  EXPECT_EQ(back->userInfo().stringForKey("data"), "(data too long)");
  EXPECT_GT(back->userInfo().objectForKey("many")->asArray()->size(), 1000U);
}

TEST(KeyedArchive, OfErrorsInTheDeepestListsIsStillReadable) {
  for (int depth = 0; depth < 40; ++depth) {
    PropertyValue value = exampleError();
    for (int i = 0; i < depth; ++i) value = NSArray{value};
    EXPECT_NE(roundTrip(NSError::errorWithDomain("D", 1, {{"key", value}})), nullptr) << depth;
  }
}

TEST(KeyedArchive, OfNothingHoldsNoError) {
  const NSData data = NSKeyedArchiver::archivedDataWithRootObject(nullptr);
  std::string reason;
  EXPECT_EQ(NSKeyedUnarchiver::unarchivedError(data, &reason), nullptr);
  EXPECT_EQ(reason, "the archive is refused: its root is no error");
}

TEST(KeyedArchive, CutAtAnyLengthIsRefused) {
  const NSData whole = fromHex(kExample);
  for (size_t length = 0; length < whole.size(); ++length) {
    std::string reason;
    const NSData part(whole.begin(), whole.begin() + static_cast<long>(length));
    EXPECT_EQ(NSKeyedUnarchiver::unarchivedError(part, &reason), nullptr) << length;
    EXPECT_FALSE(reason.empty());
  }
}

// The bytes that a byte is changed to: each bit turned, its neighbours, and the extremes.
std::vector<uint8_t> changesOf(uint8_t byte) {
  std::vector<uint8_t> changes{0, 0xFF, static_cast<uint8_t>(byte + 1), static_cast<uint8_t>(byte - 1)};
  for (int bit = 0; bit < 8; ++bit) changes.push_back(static_cast<uint8_t>(byte ^ 1 << bit));
  return changes;
}

TEST(KeyedArchive, WithAnyByteChangedIsRefusedOrSound) {
  const NSData whole = fromHex(kExample);
  size_t refused = 0;
  for (size_t at = 0; at < whole.size(); ++at) {
    for (const uint8_t byte : changesOf(whole[at])) {
      NSData data = whole;
      data[at] = byte;
      std::string reason;
      const NSErrorRef error = NSKeyedUnarchiver::unarchivedError(data, &reason);
      ASSERT_EQ(error != nullptr, reason.empty()) << at << " " << int{byte};
      if (error == nullptr) {
        ++refused;
      } else {
        ASSERT_NE(roundTrip(error), nullptr) << at << " " << int{byte};
      }
    }
  }
  EXPECT_GT(refused, 1000U);
}

// The other implementation of property lists at hand reads the same from our bytes.
TEST(KeyedArchive, IsReadByAnotherPropertyListReader) {
  if (system("python3 -c 'import plistlib; plistlib.UID' 2>/dev/null") != 0) {
    ASSERT_EQ(getenv("CI"), nullptr) << "python3 is needed";
    GTEST_SKIP() << "python3 is not installed";
  }
  NSArray list;
  for (int i = 0; i < 300; ++i) list.emplace_back("\u00fc\U0001f600" + std::to_string(i));
  const NSErrorRef error =
      NSError::errorWithDomain("D", -1009, {{"list", list}, {"NSUnderlyingError", underlying()}});
  TemporaryFolder folder;
  writeFile((folder / "archive"), bytesOf(NSKeyedArchiver::archivedDataWithRootObject(error)));
  writeFile((folder / "check.py"), R"(import plistlib, sys
archive = plistlib.load(open(sys.argv[1], 'rb'))
objects = archive['$objects']
at = lambda uid: objects[uid.data]
assert archive['$archiver'] == 'NSKeyedArchiver' and archive['$version'] == 100000 and objects[0] == '$null'
error = at(archive['$top']['root'])
code = error['NSCode']
assert code == -1009 or code == 2**64 - 1009, code
assert at(error['NSDomain']) == 'D' and at(error['$class'])['$classes'] == ['NSError', 'NSObject']
info = at(error['NSUserInfo'])
facts = {at(k): at(v) for k, v in zip(info['NS.keys'], info['NS.objects'])}
texts = [at(uid) for uid in facts['list']['NS.objects']]
assert texts == ['\u00fc\U0001f600%d' % i for i in range(300)], texts
assert facts['NSUnderlyingError']['NSCode'] == 13 and facts['NSUnderlyingError']['NSUserInfo'].data == 0
)");
  EXPECT_EQ(system(("python3 " + (folder / "check.py") + " " + (folder / "archive")).c_str()), 0);
}

}  // namespace
}  // namespace ombra
