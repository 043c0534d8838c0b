#include "platform/foundation/NSKeyedArchiver.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

std::string uid(size_t index) {
  return "<dict><key>CF$UID</key><integer>" + std::to_string(index) + "</integer></dict>";
}
std::string key(const std::string& name) { return "<key>" + name + "</key>"; }
std::string text(const std::string& contents) { return "<string>" + contents + "</string>"; }
std::string dictionary(const std::string& contents) { return "<dict>" + contents + "</dict>"; }
std::string classNamed(const std::string& name, const std::string& chain = "") {
  return dictionary(key("$classname") + text(name) +
                    (chain.empty() ? "" : key("$classes") + "<array>" + chain + "</array>"));
}

NSData asData(const std::string& contents) {
  const std::string whole = "<?xml version=\"1.0\"?><plist version=\"1.0\">" + contents + "</plist>";
  return {whole.begin(), whole.end()};
}

// Objects 1 error, 2 domain, 3 class NSError, 4 class NSDictionary, 5 the key "k", 6 class NSArray; then
// `more` from 7.
struct Archive {
  std::string archiver = key("$archiver") + text("NSKeyedArchiver");
  std::string version = key("$version") + "<integer>100000</integer>";
  std::string top = key("$top") + dictionary(key("root") + uid(1));
  std::string null = text("$null");
  std::string code = key("NSCode") + "<integer>5</integer>";
  std::string domain = key("NSDomain") + uid(2);
  std::string userInfo = "";
  std::string errorClass = key("$class") + uid(3);
  std::string more = "";

  NSData data() const {
    return asData(dictionary(archiver + version + top + key("$objects") + "<array>" + null +
                             dictionary(code + domain + userInfo + errorClass) + text("D") +
                             classNamed("NSError") + classNamed("NSDictionary") + text("k") +
                             classNamed("NSArray") + more + "</array>"));
  }
  NSErrorRef read(std::string* reason = nullptr) const {
    return NSKeyedUnarchiver::unarchivedError(data(), reason);
  }
  std::string refusal() const {
    std::string reason;
    EXPECT_EQ(read(&reason), nullptr);
    return reason;
  }
};

// An archive whose error has a user info of one entry "k" with object 8, that is `value`.
Archive withValue(const std::string& value, const std::string& more = "") {
  Archive archive;
  archive.userInfo = key("NSUserInfo") + uid(7);
  archive.more = dictionary(key("NS.keys") + "<array>" + uid(5) + "</array>" + key("NS.objects") + "<array>" +
                            uid(8) + "</array>" + key("$class") + uid(4)) +
                 value + more;
  return archive;
}

PropertyValue valueOf(const Archive& archive) {
  std::string reason;
  const NSErrorRef error = archive.read(&reason);
  EXPECT_NE(error, nullptr) << reason;
  const PropertyValue* value = error != nullptr ? error->userInfo().objectForKey("k") : nullptr;
  EXPECT_NE(value, nullptr);
  return value != nullptr ? *value : PropertyValue();
}

std::string arrayOf(const std::string& items) {
  return dictionary(key("NS.objects") + "<array>" + items + "</array>" + key("$class") + uid(6));
}

TEST(KeyedArchiveInXML, IsReadWithItsFormOfReferences) {
  const NSErrorRef error = Archive().read();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->domain(), "D");
  EXPECT_EQ(error->code(), 5);
}

TEST(KeyedArchiveReader, TreatsEveryFormOfNoUserInfoAlike) {
  for (const std::string& userInfo :
       {std::string(), key("NSUserInfo") + uid(0), key("NSUserInfo") + uid(7)}) {
    Archive archive;
    archive.userInfo = userInfo;
    archive.more =
        dictionary(key("NS.keys") + "<array/>" + key("NS.objects") + "<array/>" + key("$class") + uid(4));
    const NSErrorRef error = archive.read();
    ASSERT_NE(error, nullptr) << userInfo;
    EXPECT_TRUE(error->userInfo().empty());
  }
}

TEST(KeyedArchiveReader, RefusesReferencesPastTheTable) {
  Archive archive;
  archive.top = key("$top") + dictionary(key("root") + uid(7));
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("past the last object"));
  archive = Archive();
  archive.domain = key("NSDomain") + uid(4294967295);
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("past the last object"));
  archive = Archive();
  archive.errorClass = key("$class") + uid(100);
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("has no class"));
}

TEST(KeyedArchiveReader, RefusesAClassThatIsNone) {
  Archive archive;
  archive.errorClass = key("$class") + uid(2);
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("a class is malformed"));
  archive.errorClass = key("$class") + text("NSError");
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("has no class"));
  archive.errorClass = "";
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("has no class"));
}

TEST(KeyedArchiveReader, RefusesCycles) {
  EXPECT_THAT(withValue(arrayOf(uid(8))).refusal(), testing::HasSubstr("contains itself"));
  // An array in a dictionary in that array.
  const std::string inner = dictionary(key("NS.keys") + "<array>" + uid(5) + "</array>" + key("NS.objects") +
                                       "<array>" + uid(8) + "</array>" + key("$class") + uid(4));
  EXPECT_THAT(withValue(arrayOf(uid(9)), inner).refusal(), testing::HasSubstr("contains itself"));
  // An error that is its own underlying error.
  Archive archive = withValue(text("x"));
  archive.more = dictionary(key("NS.keys") + "<array>" + uid(5) + "</array>" + key("NS.objects") + "<array>" +
                            uid(1) + "</array>" + key("$class") + uid(4));
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("contains itself"));
}

TEST(KeyedArchiveReader, RefusesAnotherArchiverOrVersion) {
  for (const std::string& field : {text("NSArchiver"), std::string("<integer>1</integer>"), text("")}) {
    Archive archive;
    archive.archiver = key("$archiver") + field;
    EXPECT_FALSE(archive.refusal().empty()) << field;
  }
  for (const std::string& field :
       {text("100000"), std::string("<integer>99999</integer>"), std::string("<true/>")}) {
    Archive archive;
    archive.version = key("$version") + field;
    EXPECT_FALSE(archive.refusal().empty()) << field;
  }
}

TEST(KeyedArchiveReader, RefusesMissingOrMistypedParts) {
  Archive archive;
  archive.top = "";
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("no keyed archive"));
  archive.top = key("$top") + uid(1);
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("no root"));
  archive.top = key("$top") + dictionary(key("root") + text("x"));
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("no root"));
  const std::string head = Archive().archiver + Archive().version + Archive().top;
  for (const std::string& objects :
       {std::string(), key("$objects") + dictionary(""), key("$objects") + "<array/>"}) {
    std::string reason;
    EXPECT_EQ(NSKeyedUnarchiver::unarchivedError(asData(dictionary(head + objects)), &reason), nullptr);
    EXPECT_FALSE(reason.empty());
  }
  std::string reason;
  EXPECT_EQ(NSKeyedUnarchiver::unarchivedError(asData("<array/>"), &reason), nullptr);
  EXPECT_THAT(reason, testing::HasSubstr("no dictionary"));
}

TEST(KeyedArchiveReader, RefusesARootThatIsNoError) {
  Archive archive;
  archive.top = key("$top") + dictionary(key("root") + uid(2));
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("its root is no error"));
}

TEST(KeyedArchiveReader, NeedsAnIntegerCode) {
  for (const std::string& field : {std::string(), key("NSCode") + uid(5), key("NSCode") + text("5")}) {
    Archive archive;
    archive.code = field;
    EXPECT_THAT(archive.refusal(), testing::HasSubstr("no code"));
  }
  for (const int64_t code : {int64_t{-1}, int64_t{0}, int64_t{1} << 40}) {
    Archive archive;
    archive.code = key("NSCode") + "<integer>" + std::to_string(code) + "</integer>";
    const NSErrorRef error = archive.read();
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(error->code(), code);
  }
}

TEST(KeyedArchiveReader, NeedsADomain) {
  for (const std::string& field :
       {std::string(), key("NSDomain") + uid(0), key("NSDomain") + text("D"), key("NSDomain") + uid(3)}) {
    Archive archive;
    archive.domain = field;
    EXPECT_FALSE(archive.refusal().empty()) << field;
  }
}

TEST(KeyedArchiveReader, NeedsAsManyKeysAsValuesAllReferences) {
  const auto lists = [](const std::string& keys, const std::string& objects) {
    Archive archive = withValue(text("x"));
    archive.more =
        dictionary(key("NS.keys") + keys + key("NS.objects") + objects + key("$class") + uid(4)) + text("x");
    return archive.refusal();
  };
  EXPECT_THAT(lists("<array>" + uid(5) + uid(5) + "</array>", "<array>" + uid(8) + "</array>"),
              testing::HasSubstr("keys without values"));
  EXPECT_THAT(lists("<array>" + text("k") + "</array>", "<array>" + uid(8) + "</array>"),
              testing::HasSubstr("no reference"));
  EXPECT_THAT(lists("<array>" + uid(5) + "</array>", "<array>" + text("x") + "</array>"),
              testing::HasSubstr("no reference"));
  EXPECT_THAT(lists(uid(5), "<array/>"), testing::HasSubstr("no contents"));
}

TEST(KeyedArchiveReader, DropsKeysThatAreNoTexts) {
  Archive archive = withValue("<integer>7</integer>");
  archive.more = dictionary(key("NS.keys") + "<array>" + uid(8) + uid(5) + "</array>" + key("NS.objects") +
                            "<array>" + uid(2) + uid(8) + "</array>" + key("$class") + uid(4)) +
                 "<integer>7</integer>";
  const NSErrorRef error = archive.read();
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->userInfo(), (NSDictionary{{"k", 7}}));
}

TEST(KeyedArchiveReader, ADictionaryWithMoreThanTheReferenceKeyIsNone) {
  Archive archive;
  archive.domain =
      key("NSDomain") + dictionary(key("CF$UID") + "<integer>2</integer>" + key("x") + text("y"));
  EXPECT_THAT(archive.refusal(), testing::HasSubstr("no domain"));
}

TEST(KeyedArchiveReader, AnObjectOfAnUnknownClassBecomesAPlaceholder) {
  EXPECT_EQ(valueOf(withValue(dictionary(key("$class") + uid(9)), classNamed("XYThing"))),
            PropertyValue("object of class XYThing"));
}

TEST(KeyedArchiveReader, ASubclassIsReadAsTheFirstKnownClassAboveIt) {
  const std::string chain = text("XYString") + text("NSMutableString") + text("NSString") + text("NSObject");
  EXPECT_EQ(valueOf(withValue(dictionary(key("NS.string") + text("x") + key("$class") + uid(9)),
                              classNamed("XYString", chain))),
            PropertyValue("x"));
}

TEST(KeyedArchiveReader, ReadsWrappedTextsDataDatesAndIdentifiers) {
  const auto wrapped = [](const std::string& fields, const std::string& className,
                          const std::string& more = "") {
    return valueOf(withValue(dictionary(fields + key("$class") + uid(9)), classNamed(className) + more));
  };
  EXPECT_EQ(wrapped(key("NS.string") + text("x"), "NSMutableString"), PropertyValue("x"));
  EXPECT_EQ(wrapped(key("NS.data") + "<data>AAE=</data>", "NSMutableData"), PropertyValue(NSData{0, 1}));
  EXPECT_EQ(wrapped(key("NS.time") + "<real>21692800</real>", "NSDate"),
            PropertyValue(NSDate::dateWithTimeIntervalSince1970(1000000000)));
  EXPECT_EQ(wrapped(key("NS.time") + "<real>1e300</real>", "NSDate"), PropertyValue("a date out of range"));
  EXPECT_EQ(wrapped(key("NS.time") + "<real>nan</real>", "NSDate"), PropertyValue("a date out of range"));
  EXPECT_EQ(wrapped(key("NS.uuidbytes") + "<data>AAECAwQFBgcICQoLDA0ODw==</data>", "NSUUID"),
            PropertyValue("00010203-0405-0607-0809-0A0B0C0D0E0F"));
  EXPECT_EQ(wrapped(key("NS.base") + uid(0) + key("NS.relative") + uid(10), "NSURL", text("http://x/")),
            PropertyValue("http://x/"));
  EXPECT_TRUE(wrapped("", "NSNull").isNull());
  EXPECT_EQ(wrapped(key("NS.objects") + "<array>" + uid(2) + "</array>", "NSSet"),
            PropertyValue(NSArray{"D"}));
}

TEST(KeyedArchiveReader, DoesNotDecodeOldStyleArrays) {
  EXPECT_EQ(valueOf(withValue(
                dictionary(key("NS.count") + "<integer>1073741825</integer>" + key("$class") + uid(9)),
                classNamed("_NSKeyedCoderOldStyleArray"))),
            PropertyValue("object of class _NSKeyedCoderOldStyleArray"));
}

TEST(KeyedArchiveReader, RefusesNestingOver32Levels) {
  const auto nested = [](size_t levels) {
    std::string more;
    for (size_t i = 0; i < levels; ++i) more += arrayOf(uid(10 + i));
    return withValue(arrayOf(uid(9)), more + text("x"));
  };
  EXPECT_NE(nested(28).read(), nullptr);
  EXPECT_THAT(nested(29).refusal(), testing::HasSubstr("nested too deeply"));
}

TEST(KeyedArchiveReader, RefusesObjectsThatStandForTooMuch) {
  // Each list, from object 8 on, names the next one ten times; the last names a text.
  const auto namingTenTimes = [](size_t next) {
    std::string items;
    for (int n = 0; n < 10; ++n) items += uid(next);
    return arrayOf(items);
  };
  std::string more;
  for (size_t next = 10; next < 20; ++next) more += namingTenTimes(next);
  EXPECT_THAT(withValue(namingTenTimes(9), more + text("x")).refusal(),
              testing::HasSubstr("contents are too large"));
}

TEST(KeyedArchiveReader, RefusesAListThatUsesOneObjectVeryOften) {
  std::string items;
  for (int i = 0; i < 200; ++i) items += uid(2);
  EXPECT_THAT(withValue(arrayOf(items)).refusal(), testing::HasSubstr("used too often"));
}

TEST(KeyedArchiveReader, KeepsTheErrorWhenThereAreTooManyBeneath) {
  // Errors 8, 10, 12, … each with a user info behind it that names the next error.
  std::string more;
  for (size_t i = 0; i < 12; ++i) {
    const std::string facts =
        dictionary(key("NS.keys") + "<array>" + uid(5) + "</array>" + key("NS.objects") + "<array>" +
                   uid(10 + 2 * i) + "</array>" + key("$class") + uid(4));
    more += dictionary(key("NSCode") + "<integer>" + std::to_string(i) + "</integer>" + key("NSDomain") +
                       uid(2) + key("NSUserInfo") + uid(9 + 2 * i) + key("$class") + uid(3)) +
            facts;
  }
  const Archive archive = withValue(more + text("end"));
  std::string reason;
  NSErrorRef error = archive.read(&reason);
  ASSERT_NE(error, nullptr) << reason;
  int links = -1;
  for (; error != nullptr; ++links) {
    const PropertyValue* next = error->userInfo().objectForKey("k");
    error = next != nullptr ? next->asError() : nullptr;
  }
  EXPECT_EQ(links, 8);
}

TEST(KeyedArchiveReader, RefusesEmptyAndForeignData) {
  for (const std::string& contents :
       {std::string(), std::string("hello"), std::string("bplist00"), std::string(100, '\0')}) {
    std::string reason;
    EXPECT_EQ(NSKeyedUnarchiver::unarchivedError(NSData(contents.begin(), contents.end()), &reason), nullptr);
    EXPECT_FALSE(reason.empty());
  }
  EXPECT_EQ(NSKeyedUnarchiver::unarchivedError({}, nullptr), nullptr);
}

}  // namespace
}  // namespace ombra
