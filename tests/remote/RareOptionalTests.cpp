// What few of many objects have.
#include <gtest/gtest.h>

#include <string>

#include "remote/RareOptional.h"
#include "remote/Session.h"

namespace ombra {
namespace {

TEST(RareOptional, HoldsAValueOrNone) {
  RareOptional<std::string> text;
  EXPECT_FALSE(text.has_value());
  text = "a";
  ASSERT_TRUE(text);
  EXPECT_EQ(*text, "a");
  EXPECT_EQ(text->size(), 1u);
  text.reset();
  EXPECT_FALSE(text);
}

TEST(RareOptional, CopiesItsValueAndMovesItself) {
  RareOptional<std::string> text = std::string("a");
  RareOptional<std::string> copy = text;
  *copy += 'b';
  EXPECT_EQ(*text, "a");
  text = copy;
  EXPECT_EQ(*text, "ab");
  const std::string* place = &*text;
  copy = std::move(text);
  EXPECT_EQ(&*copy, place);
  text = RareOptional<std::string>();
  copy = text;
  EXPECT_FALSE(copy);
}

TEST(RareOptional, ComesFromAnOptionalAndTurnsIntoOne) {
  const std::optional<std::string> none;
  EXPECT_FALSE(RareOptional<std::string>(none));
  EXPECT_FALSE(RareOptional<std::string>(std::nullopt));
  RareOptional<std::string> text = std::optional<std::string>("a");
  const std::optional<std::string> copied = text;
  EXPECT_EQ(copied, "a");
  const std::optional<std::string> moved = std::move(text);
  EXPECT_EQ(moved, "a");
  EXPECT_EQ(std::optional<std::string>(RareOptional<std::string>()), std::nullopt);
}

TEST(RareOptional, IsEqualByItsValue) {
  const RareOptional<std::string> none;
  const RareOptional<std::string> text = "a";
  EXPECT_TRUE(text == "a");
  EXPECT_FALSE(text == "b");
  EXPECT_FALSE(none == "");
  EXPECT_TRUE(text == std::optional<std::string>("a"));
  EXPECT_FALSE(text == std::optional<std::string>());
  EXPECT_TRUE(none == std::optional<std::string>());
  EXPECT_FALSE(none == std::optional<std::string>("a"));
}

// A folder of a million files has a million of them at a time.
TEST(RemoteEntry, IsSmall) { EXPECT_LE(sizeof(RemoteEntry), 192u); }

}  // namespace
}  // namespace ombra
