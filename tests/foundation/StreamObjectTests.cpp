#include "platform/foundation/NSUnarchiver.h"
#include "tests/foundation/StreamVectors.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

constexpr const char* kNSObject = "8484084e534f626a6563740085";

const char* vectorNamed(std::string_view name) {
  for (const StreamVector& vector : kValidStreams) {
    if (vector.name == name) return vector.hex;
  }
  return "";
}

TypedStream read(const std::string& hex) {
  std::string reason;
  auto stream = NSUnarchiver::unarchiveStream(fromHex(hex), &reason);
  EXPECT_TRUE(stream) << reason;
  return stream.value_or(TypedStream());
}

std::optional<PropertyValue> decode(const std::string& hex) {
  const TypedStream stream = read(hex);
  if (stream.values.empty()) return std::nullopt;
  return NSUnarchiver::propertyValue(stream, stream.values.front());
}

// An object of a class directly below NSObject.
std::string object(const std::string& className, int version, const std::string& groups) {
  const NSData name(className.begin(), className.end());
  return kHeader + std::string("840140") +
         "8484"
         "84" +
         toHex({static_cast<uint8_t>(name.size())}) + toHex(name) + toHex({static_cast<uint8_t>(version)}) +
         kNSObject + groups + "86";
}

TEST(StreamObjects, TextsAreRead) {
  EXPECT_EQ(*decode(vectorNamed("string"))->asString(), "hello");
  EXPECT_EQ(*decode(vectorNamed("string_be"))->asString(), "hello");
  EXPECT_EQ(*decode(vectorNamed("mutable_utf8"))->asString(), "Привет");
}

TEST(StreamObjects, EmptyTextIsAText) {
  EXPECT_EQ(*decode(object("NSString", 1, "84012b00"))->asString(), "");
}

TEST(StreamObjects, DictionariesAreReadInOrder) {
  const TypedStream stream = read(vectorNamed("dict"));
  const auto entries = NSUnarchiver::stringDictionaryValue(stream, stream.values.front());
  ASSERT_TRUE(entries);
  EXPECT_THAT(*entries, testing::ElementsAre(testing::Pair("host", "nas"), testing::Pair("user", "anna")));
  EXPECT_EQ(decode(vectorNamed("dict"))->asDictionary()->stringForKey("user"), "anna");
}

TEST(StreamObjects, NumbersAreRead) {
  EXPECT_EQ(*decode(vectorNamed("num_333"))->asInteger(), 333);
  EXPECT_EQ(*decode(vectorNamed("num_i64"))->asInteger(), -9000000000);
  EXPECT_EQ(*decode(vectorNamed("num_Q"))->asReal(), 18446744073709551613.0);
  const TypedStream stream = read(vectorNamed("num_Q"));
  EXPECT_EQ(std::get<uint64_t>(stream.object(*stream.root)->values.at(1).data), 18446744073709551613U);
}

TEST(StreamObjects, DataIsReadEvenWhenItLooksLikeTags) {
  EXPECT_EQ(*decode(vectorNamed("data_tags"))->asData(), (NSData{0x84, 0x85, 0x86, 0x00}));
}

TEST(StreamObjects, EmptyDataMayComeWithoutItsArray) {
  EXPECT_TRUE(decode(object("NSData", 0,
                            "84016900"
                            "84045b30635d"))
                  ->asData()
                  ->empty());
  EXPECT_TRUE(decode(object("NSData", 0, "84016900"))->asData()->empty());
  EXPECT_FALSE(decode(object("NSData", 0, "84016901")));
}

TEST(StreamObjects, DatesCountFrom2001) {
  EXPECT_EQ(*decode(vectorNamed("date"))->asDate(), NSDate::dateWithTimeIntervalSince1970(1000000000));
  EXPECT_FALSE(decode(object("NSDate", 0,
                             "840164"
                             "83000000000000f07f")));  // infinity
  EXPECT_FALSE(decode(object("NSDate", 0,
                             "840164"
                             "83000000000000f87f")));  // not a number
}

TEST(StreamObjects, SetsReadAsArraysAndNullAsNull) {
  EXPECT_EQ(decode(object("NSSet", 0,
                          "84014901"
                          "92"
                          "85"))
                ->asArray()
                ->size(),
            1U);
  EXPECT_FALSE(decode(object("NSSet", 0,
                             "84016901"
                             "92"
                             "85")))
      << "a set's count is unsigned";
  EXPECT_TRUE(decode(object("NSNull", 0, ""))->isNull());
}

TEST(StreamObjects, NilElementsOfAnArrayAreNull) {
  const auto array = decode(object("NSArray", 0,
                                   "84016902"
                                   "92"
                                   "85"
                                   "92"
                                   "85"));
  ASSERT_TRUE(array);
  EXPECT_EQ(array->asArray()->size(), 2U);
  EXPECT_TRUE(array->asArray()->front().isNull());
}

TEST(StreamObjects, ThatAreMalformedHaveNoValue) {
  for (const StreamVector& vector : kMalformedObjects) {
    SCOPED_TRACE(vector.name);
    const TypedStream stream = read(vector.hex);
    ASSERT_EQ(stream.values.size(), 1U);
    EXPECT_FALSE(NSUnarchiver::propertyValue(stream, stream.values.front()));
    EXPECT_FALSE(NSUnarchiver::stringValue(stream, stream.values.front()));
  }
}

TEST(StreamObjects, OfUnknownVersionsOrSuperclassesHaveNoValue) {
  EXPECT_TRUE(decode(object("NSString", 1, "84012b0161")));
  EXPECT_FALSE(decode(object("NSString", 0, "84012b0161")));
  EXPECT_FALSE(decode(object("NSString", 2, "84012b0161")));
  EXPECT_FALSE(decode(object("NSMutableString", 1, "84012b0161"))) << "not below NSString";
  EXPECT_FALSE(decode(object("NSNumber", 0,
                             "84012a84840169"
                             "9605")))
      << "not below NSValue";
  EXPECT_FALSE(decode(object("KCSomething", 0, "")));
}

TEST(StreamObjects, ContainersNeedExactlyAsManyElementsAsTheySay) {
  EXPECT_TRUE(decode(object("NSArray", 0,
                            "84016901"
                            "9285")));
  EXPECT_FALSE(decode(object("NSArray", 0,
                             "84016902"
                             "9285")));
  EXPECT_FALSE(decode(object("NSArray", 0,
                             "84016900"
                             "9285")));
  EXPECT_FALSE(decode(object("NSDictionary", 0,
                             "84016901"
                             "9285")));
}

TEST(StreamObjects, DictionaryKeysAreTextsAndUnique) {
  EXPECT_FALSE(decode(object("NSDictionary", 0,
                             "84016901"
                             "9285"
                             "9285")));
  const std::string twice = std::string(vectorNamed("dict"));
  // The second key "user" becomes "host".
  const std::string duplicate =
      twice.substr(0, twice.rfind("75736572")) + "686f7374" + twice.substr(twice.rfind("75736572") + 8);
  const TypedStream stream = read(duplicate);
  EXPECT_FALSE(NSUnarchiver::stringDictionaryValue(stream, stream.values.front()));
  EXPECT_FALSE(NSUnarchiver::propertyValue(stream, stream.values.front()));
}

TEST(StreamObjects, RecordsFlattenTheirGroups) {
  const TypedStream single = read(vectorNamed("kc"));
  const TypedStream grouped = read(vectorNamed("kc_grouped"));
  EXPECT_EQ(single.className(*single.root), "KCCredentials");
  EXPECT_EQ(grouped.className(*grouped.root), "KCCredentials");
  const auto& values = single.object(*single.root)->values;
  const auto& others = grouped.object(*grouped.root)->values;
  ASSERT_EQ(values.size(), 7U);
  ASSERT_EQ(others.size(), 7U);
  EXPECT_EQ(NSUnarchiver::stringValue(single, values[0]), "anna");
  EXPECT_EQ(NSUnarchiver::stringValue(grouped, others[0]), "anna");
  EXPECT_EQ(NSUnarchiver::stringValue(single, values[1]), "nas.local");
  EXPECT_TRUE(std::holds_alternative<TypedStream::Nil>(others[2].data));
  EXPECT_EQ(NSUnarchiver::stringValue(single, values[3]), "anna") << "a reference to the first";
  EXPECT_EQ(NSUnarchiver::integerValue(values[4]), 445);
  EXPECT_EQ(NSUnarchiver::integerValue(others[4]), 445);
}

TEST(StreamObjects, BooleansComeAsCharactersOrAsBooleans) {
  EXPECT_EQ(NSUnarchiver::boolValue({'c', int64_t{1}}), true);
  EXPECT_EQ(NSUnarchiver::boolValue({'B', uint64_t{0}}), false);
  EXPECT_EQ(NSUnarchiver::boolValue({'c', int64_t{2}}), std::nullopt);
  EXPECT_EQ(NSUnarchiver::boolValue({'i', int64_t{1}}), std::nullopt);
  const TypedStream single = read(vectorNamed("kc"));
  const TypedStream grouped = read(vectorNamed("kc_grouped"));
  for (const TypedStream* stream : {&single, &grouped}) {
    EXPECT_EQ(NSUnarchiver::boolValue(stream->object(*stream->root)->values[5]), true);
    EXPECT_EQ(NSUnarchiver::boolValue(stream->object(*stream->root)->values[6]), false);
  }
}

TEST(StreamObjects, OfAnUnknownClassBeginWithTheirSuperclassesValues) {
  // A text subclass with one more number behind the text.
  const std::string hex = std::string(kHeader) +
                          "840140"
                          "8484 84 02 5858 05 8484 08 4e53537472696e67 01" +
                          kNSObject + "84012b0161 840169 07 86";
  const TypedStream stream = read(hex);
  const auto& values = stream.object(*stream.root)->values;
  ASSERT_EQ(values.size(), 2U);
  EXPECT_EQ(values[0].type, '+');
  EXPECT_EQ(NSUnarchiver::integerValue(values[1]), 7);
}

TEST(StreamRecords, AreWrittenAndReadBack) {
  using Field = NSArchiver::Field;
  const NSData data = NSArchiver::archivedDataWithRecord(
      "KCCredentials", 1,
      {Field{Field::Type::kUnsignedInt, {}, 0x53465450, {}}, Field{Field::Type::kString, "nas.local", 0, {}},
       Field{Field::Type::kInt, {}, -1, {}}, Field{Field::Type::kString, std::nullopt, 0, {}},
       Field{Field::Type::kStringDictionary, {}, 0, {{"region", "eu"}, {"endpoint", ""}}}});
  const TypedStream stream = read(toHex(data));
  ASSERT_TRUE(stream.root);
  EXPECT_EQ(stream.className(*stream.root), "KCCredentials");
  const auto& values = stream.object(*stream.root)->values;
  ASSERT_EQ(values.size(), 5U);
  EXPECT_EQ(std::get<uint64_t>(values[0].data), 0x53465450U);
  EXPECT_EQ(NSUnarchiver::stringValue(stream, values[1]), "nas.local");
  EXPECT_EQ(std::get<int64_t>(values[2].data), -1);
  EXPECT_TRUE(std::holds_alternative<TypedStream::Nil>(values[3].data));
  EXPECT_THAT(*NSUnarchiver::stringDictionaryValue(stream, values[4]),
              testing::ElementsAre(testing::Pair("region", "eu"), testing::Pair("endpoint", "")));
  EXPECT_EQ(NSArchiver::archivedDataWithStream(stream), data);
}

TEST(StreamRecords, HaveTheBytesOfTheFormat) {
  using Field = NSArchiver::Field;
  const NSData data = NSArchiver::archivedDataWithRecord("A", 2, {Field{Field::Type::kString, "x", 0, {}}});
  EXPECT_EQ(toHex(data), std::string(kHeader) +
                             "840140"
                             "84"
                             "84840141"
                             "02"
                             "8484084e534f626a656374"
                             "00"
                             "85"
                             "92"
                             "84"
                             "8484084e53537472696e67"
                             "01"
                             "94"
                             "84012b"
                             "0178"
                             "86"
                             "86");
}

TEST(StreamWriter, RefusesWhatDoesNotHangTogether) {
  using Value = TypedStream::Value;
  const auto written = [](std::vector<std::string> groups, std::vector<Value> values) {
    TypedStream stream;
    stream.groups = std::move(groups);
    stream.values = std::move(values);
    return NSArchiver::archivedDataWithStream(stream);
  };
  EXPECT_FALSE(written({"i"}, {{'i', int64_t{1}}}).empty());
  EXPECT_TRUE(written({"i"}, {}).empty());
  EXPECT_TRUE(written({"i"}, {{'i', int64_t{1}}, {'i', int64_t{1}}}).empty());
  EXPECT_TRUE(written({"i"}, {{'q', int64_t{1}}}).empty());
  EXPECT_TRUE(written({"i"}, {{'i', 1.0}}).empty());
  EXPECT_TRUE(written({"@"}, {{'@', TypedStream::ObjectRef{7}}}).empty());
  EXPECT_TRUE(written({"[3c]"}, {{'[', TypedStream::Bytes("xx")}}).empty());
  EXPECT_TRUE(written({"[3!]"}, {{'[', std::vector<Value>()}}).empty());
  EXPECT_TRUE(written({"?"}, {{'?', int64_t{1}}}).empty());
}

TEST(Wiping, LeavesNothingInTheBuffer) {
  std::string text = "a secret that is longer than short";
  const char* bytes = text.data();
  const size_t capacity = text.capacity();
  text.resize(3);
  wipe(text);
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(std::string(bytes, capacity), std::string(capacity, '\0'));
  NSData data(40, 0x55);
  const uint8_t* first = data.data();
  data.resize(1);
  wipe(data);
  EXPECT_TRUE(data.empty());
  EXPECT_EQ(data.data(), first) << "the buffer is still there to look at";
}

}  // namespace
}  // namespace ombra
