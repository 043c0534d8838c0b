#include "platform/foundation/NSDictionary.h"
#include "platform/foundation/NSError.h"

namespace ombra {
namespace {

std::vector<std::string> keysOf(const NSDictionary& dictionary) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : dictionary) keys.push_back(key);
  return keys;
}

TEST(Dictionary, OfPairsStopsAtTheFirstAbsentValue) {
  const auto dictionary = NSDictionary::dictionaryWithObjectsAndKeys(
      {{"volumeName", "nas"}, {"mountPath", std::nullopt}, {"address", "nas.local"}});
  EXPECT_THAT(keysOf(dictionary), testing::ElementsAre("volumeName"));
}

TEST(Dictionary, KeepsInsertionOrderAndReplacesInPlace) {
  NSDictionary dictionary{{"a", 1}, {"b", 2}};
  dictionary.setObject(3, "a");
  EXPECT_THAT(keysOf(dictionary), testing::ElementsAre("a", "b"));
  EXPECT_EQ(*dictionary.objectForKey("a")->asInteger(), 3);
}

TEST(Dictionary, SetIfPresentIgnoresAbsentAndNullValues) {
  NSDictionary dictionary;
  dictionary.kc_setObject(std::nullopt, "a");
  dictionary.kc_setObject(PropertyValue(), "b");
  EXPECT_TRUE(dictionary.empty());
  dictionary.kc_setObject("text", "c");
  EXPECT_EQ(dictionary.stringForKey("c"), "text");
}

TEST(Dictionary, EqualityLooksIntoNestedDictionaries) {
  const PropertyValue one = std::make_shared<const NSDictionary>(NSDictionary{{"k", "v"}});
  const PropertyValue same = std::make_shared<const NSDictionary>(NSDictionary{{"k", "v"}});
  const PropertyValue other = std::make_shared<const NSDictionary>(NSDictionary{{"k", "w"}});
  EXPECT_EQ(one, same);
  EXPECT_FALSE(one == other);
}

TEST(Error, DescribesItselfByItsTextOrItsNumber) {
  EXPECT_EQ(NSError("NSPOSIXErrorDomain", 66).localizedDescription(), "Directory not empty");
  EXPECT_EQ(NSError("KCErrorDomain", 14).localizedDescription(), "KCErrorDomain 14");
  EXPECT_EQ(NSError("KCErrorDomain", 14, {{"NSLocalizedDescription", "No such item"}}).localizedDescription(),
            "No such item");
}

TEST(Error, DescriptionEndsInALongChain) {
  NSErrorRef error = NSError::errorWithDomain("D", 0);
  for (int i = 1; i <= 100; ++i)
    error = NSError::errorWithDomain("D", i, {{std::string(NSUnderlyingErrorKey), error}});
  const std::string text = error->description();
  EXPECT_NE(text.find("D 100"), std::string::npos);
  EXPECT_NE(text.find("D 92"), std::string::npos);
  EXPECT_EQ(text.find("D 91"), std::string::npos);
}

}  // namespace
}  // namespace ombra
