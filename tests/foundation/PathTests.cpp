#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(PathComponents, BeginWithTheSlashOfAnAbsolutePathAndDropEmptyNames) {
  EXPECT_THAT(pathComponents("/a//b/"), ElementsAre("/", "a", "b"));
  EXPECT_THAT(pathComponents("a/b"), ElementsAre("a", "b"));
  EXPECT_THAT(pathComponents("/"), ElementsAre("/"));
  EXPECT_THAT(pathComponents(""), IsEmpty());
  EXPECT_THAT(pathComponents("a"), ElementsAre("a"));
}

TEST(PathComponents, JoinAgainToTheSamePath) {
  for (const char* path : {"/a/b", "a/b", "/", "", "a"})
    EXPECT_EQ(pathWithComponents(pathComponents(path)), path);
}

TEST(AppendingPathComponent, PutsExactlyOneSlashBetween) {
  EXPECT_EQ(stringByAppendingPathComponent("/a", "b"), "/a/b");
  EXPECT_EQ(stringByAppendingPathComponent("/a/", "b"), "/a/b");
  EXPECT_EQ(stringByAppendingPathComponent("/a//", "//b"), "/a/b");
  EXPECT_EQ(stringByAppendingPathComponent("/", "b"), "/b");
  EXPECT_EQ(stringByAppendingPathComponent("/", "/b"), "/b");
  EXPECT_EQ(stringByAppendingPathComponent("/a", "b/c"), "/a/b/c");
}

TEST(AppendingPathComponent, LeavesThePathWhenThereIsNothingToAppend) {
  EXPECT_EQ(stringByAppendingPathComponent("/a", ""), "/a");
  EXPECT_EQ(stringByAppendingPathComponent("/a", "/"), "/a");
  EXPECT_EQ(stringByAppendingPathComponent("/", ""), "/");
}

TEST(AppendingPathComponent, ToAnEmptyPathGivesTheComponent) {
  EXPECT_EQ(stringByAppendingPathComponent("", "b"), "b");
  EXPECT_EQ(stringByAppendingPathComponent("", "/b"), "/b");
}

TEST(DeletingLastPathComponent, GoesOneFolderUp) {
  EXPECT_EQ(stringByDeletingLastPathComponent("/a/b"), "/a");
  EXPECT_EQ(stringByDeletingLastPathComponent("/a/b/"), "/a");
  EXPECT_EQ(stringByDeletingLastPathComponent("/a//b"), "/a");
  EXPECT_EQ(stringByDeletingLastPathComponent("/a"), "/");
  EXPECT_EQ(stringByDeletingLastPathComponent("/"), "/");
  EXPECT_EQ(stringByDeletingLastPathComponent("a"), "");
  EXPECT_EQ(stringByDeletingLastPathComponent("a/b"), "a");
  EXPECT_EQ(stringByDeletingLastPathComponent(""), "");
}

TEST(LastPathComponent, IsTheNameWithoutSlashes) {
  EXPECT_EQ(lastPathComponent("/a/b"), "b");
  EXPECT_EQ(lastPathComponent("/a/b//"), "b");
  EXPECT_EQ(lastPathComponent("a"), "a");
  EXPECT_EQ(lastPathComponent("/"), "/");
  EXPECT_EQ(lastPathComponent("//"), "/");
  EXPECT_EQ(lastPathComponent(""), "");
}

TEST(CommonPathPrefix, IsMadeOfWholeComponents) {
  EXPECT_EQ(kc_commonPathPrefix("/Volumes/nas/docs/a", "/Volumes/nas"), "/Volumes/nas");
  EXPECT_EQ(kc_commonPathPrefix("/Volumes/nas", "/Volumes/nas"), "/Volumes/nas");
  EXPECT_EQ(kc_commonPathPrefix("/Volumes/nas2", "/Volumes/nas"), "/Volumes");
  EXPECT_EQ(kc_commonPathPrefix("/a", "/b"), "/");
  EXPECT_EQ(kc_commonPathPrefix("a/b", "a/c"), "a");
  EXPECT_EQ(kc_commonPathPrefix("/a", "a"), "");
  EXPECT_EQ(kc_commonPathPrefix("", "/a"), "");
}

TEST(FirstMismatch, IsTheShorterLengthWhenOneBeginsTheOther) {
  EXPECT_EQ(kc_indexOfFirstMismatchedObjectInArray({"/", "a", "b"}, {"/", "a"}), 2U);
  EXPECT_EQ(kc_indexOfFirstMismatchedObjectInArray({"/", "a"}, {"/", "a", "b"}), 2U);
  EXPECT_EQ(kc_indexOfFirstMismatchedObjectInArray({"/", "a"}, {"/", "b"}), 1U);
  EXPECT_EQ(kc_indexOfFirstMismatchedObjectInArray({}, {"/"}), 0U);
}

TEST(CompletePathPrefix, IsALeadingSlash) {
  EXPECT_TRUE(kc_hasCompletePathPrefix("/"));
  EXPECT_TRUE(kc_hasCompletePathPrefix("/a"));
  EXPECT_FALSE(kc_hasCompletePathPrefix("a/b"));
  EXPECT_FALSE(kc_hasCompletePathPrefix("~/a"));
  EXPECT_FALSE(kc_hasCompletePathPrefix(""));
}

}  // namespace
}  // namespace ombra
