// Extended attributes, kept on nodes.
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ExtendedAttributes : public FileSystemTest {
 protected:
  ExtendedAttributes() {
    server.addFile("/a.txt", "");
    server.addFile("/._a.txt", "");
    connect();
  }
  static NSData bytes(std::string_view text) { return {text.begin(), text.end()}; }
  bool set(std::string_view value, int64_t position = 0, int options = 0, std::string_view name = "user.x",
           std::string_view path = "/a.txt") {
    return fileSystem.setExtendedAttribute(name, path, bytes(value), position, options, &error);
  }
  std::optional<NSData> get(int64_t position = 0, std::string_view name = "user.x",
                            std::string_view path = "/a.txt") {
    return fileSystem.valueOfExtendedAttribute(name, path, position, &error);
  }
  std::optional<std::vector<std::string>> names(std::string_view path = "/a.txt") {
    return fileSystem.extendedAttributesOfItemAtPath(path, &error);
  }
  bool hasDictionary() {
    return fileSystem.nodeForPath("/a.txt")->userPropertyForKey(kOFSExtendedAttributes).has_value();
  }
};

TEST_F(ExtendedAttributes, AFreshItemHasNone) {
  ASSERT_TRUE(names().has_value());
  EXPECT_THAT(*names(), IsEmpty());
  EXPECT_TRUE(hasDictionary());
}

TEST_F(ExtendedAttributes, AQuestionForAValueMakesNoDictionary) {
  EXPECT_EQ(get(), std::nullopt);
  EXPECT_EQ(code(), kENOATTR);
  EXPECT_FALSE(hasDictionary());
}

TEST_F(ExtendedAttributes, AMissingValueIsTracedButNotLoggedAsAnError) {
  RecordedLog log;
  const TracingOn tracing;
  get();
  EXPECT_THAT(log.linesWith(": no extended attribute named user.x"), SizeIs(1));
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain"), IsEmpty());
}

TEST_F(ExtendedAttributes, WhatIsSetIsListedAndAnswered) {
  ASSERT_TRUE(set("one"));
  ASSERT_TRUE(set("two", 0, 0, "user.y"));
  EXPECT_THAT(*names(), ElementsAre("user.x", "user.y"));
  EXPECT_EQ(get(), bytes("one"));
}

TEST_F(ExtendedAttributes, NothingReachesTheServer) {
  fileSystem.nodeForPath("/a.txt");
  server.clearCalls();
  set("one");
  get();
  names();
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(ExtendedAttributes, AValueIsAnsweredFromThePositionOn) {
  set("abc");
  EXPECT_EQ(get(1), bytes("bc"));
  EXPECT_EQ(get(3), NSData());
}

TEST_F(ExtendedAttributes, APositionBeyondTheValueIsOutOfRange) {
  set("abc");
  EXPECT_EQ(get(4), std::nullopt);
  EXPECT_EQ(code(), kERANGE);
  EXPECT_EQ(get(-1), std::nullopt);
  EXPECT_EQ(code(), kERANGE);
}

struct Patch {
  std::optional<std::string> before;
  std::string value;
  int64_t position;
  std::string after;
};

class PatchedValues : public ExtendedAttributes, public ::testing::WithParamInterface<Patch> {};

TEST_P(PatchedValues, AreReplacedFromThePositionOn) {
  if (GetParam().before) {
    ASSERT_TRUE(set(*GetParam().before));
  }
  ASSERT_TRUE(set(GetParam().value, GetParam().position));
  EXPECT_EQ(get(), bytes(GetParam().after));
}

INSTANTIATE_TEST_SUITE_P(Values, PatchedValues,
                         ::testing::Values(Patch{std::nullopt, "abc", 5, "abc"},  // a new value ignores it
                                           Patch{"abc", "XY", 1, "aXY"}, Patch{"abc", "XYZ", 2, "abXYZ"},
                                           Patch{"abcdef", "X", 0, "Xbcdef"}, Patch{"abc", "", 1, "abc"},
                                           Patch{"abc", "de", 3, "abcde"}));

TEST_F(ExtendedAttributes, APatchBeyondTheValueIsOutOfRangeAndChangesNothing) {
  set("abc");
  EXPECT_FALSE(set("x", 4));
  EXPECT_EQ(code(), kERANGE);
  EXPECT_FALSE(set("x", -1));
  EXPECT_EQ(get(), bytes("abc"));
}

TEST_F(ExtendedAttributes, CreateOnlyRefusesAnExistingName) {
  set("abc");
  EXPECT_FALSE(set("new", 0, kXATTR_CREATE));
  EXPECT_EQ(code(), kEEXIST);
  EXPECT_EQ(get(), bytes("abc"));
}

TEST_F(ExtendedAttributes, ReplaceOnlyRefusesAMissingName) {
  EXPECT_FALSE(set("new", 0, kXATTR_REPLACE));
  EXPECT_EQ(code(), kENOATTR);
  EXPECT_THAT(*names(), IsEmpty());
}

TEST_F(ExtendedAttributes, AFailedSetLeavesAnEmptyDictionary) {
  set("new", 0, kXATTR_REPLACE);
  EXPECT_TRUE(hasDictionary());
}

TEST_F(ExtendedAttributes, OtherOptionsAreIgnored) {
  EXPECT_TRUE(set("abc", 0, 0xF9));
  EXPECT_TRUE(set("def", 0, 0xF9 | kXATTR_REPLACE));
  EXPECT_EQ(get(), bytes("def"));
}

TEST_F(ExtendedAttributes, AnEmptyNameIsInvalid) {
  EXPECT_FALSE(set("abc", 0, 0, ""));
  EXPECT_EQ(code(), kEINVAL);
  EXPECT_EQ(get(0, ""), std::nullopt);
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(ExtendedAttributes, CreateAndReplaceTogetherFitNoName) {
  EXPECT_FALSE(set("new", 0, kXATTR_CREATE | kXATTR_REPLACE));
  EXPECT_EQ(code(), kENOATTR);
  set("abc");
  EXPECT_FALSE(set("new", 0, kXATTR_CREATE | kXATTR_REPLACE));
  EXPECT_EQ(code(), kEEXIST);
}

// The name, then the path's last component, then the item.
TEST_F(ExtendedAttributes, ChecksComeInTheirOrder) {
  EXPECT_EQ(get(0, "", "/._nowhere"), std::nullopt);
  EXPECT_EQ(code(), kEINVAL);
  EXPECT_FALSE(set("x", 0, 0, "", "/._nowhere"));
  EXPECT_EQ(code(), kEINVAL);
  EXPECT_EQ(get(0, "user.x", "/._nowhere"), std::nullopt);
  EXPECT_EQ(code(), kEPERM);
  EXPECT_FALSE(set("x", 0, 0, "user.x", "/._nowhere"));
  EXPECT_EQ(code(), kEPERM);
  error = nullptr;
  EXPECT_EQ(names("/._nowhere"), std::nullopt);
  EXPECT_EQ(code(), kEPERM);
}

TEST_F(ExtendedAttributes, CompanionFilesRefuseAll) {
  EXPECT_EQ(names("/._a.txt"), std::nullopt);
  EXPECT_EQ(code(), kEPERM);
  error = nullptr;
  EXPECT_EQ(get(0, "user.x", "/._a.txt"), std::nullopt);
  EXPECT_EQ(code(), kEPERM);
  error = nullptr;
  EXPECT_FALSE(set("x", 0, 0, "user.x", "/._a.txt"));
  EXPECT_EQ(code(), kEPERM);
}

TEST_F(ExtendedAttributes, AnUnknownItemIsNoSuchItem) {
  EXPECT_EQ(names("/nowhere"), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
  error = nullptr;
  EXPECT_EQ(get(0, "user.x", "/nowhere"), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
  error = nullptr;
  EXPECT_FALSE(set("x", 0, 0, "user.x", "/nowhere"));
  EXPECT_EQ(code(), kENOENT);
  error = nullptr;
  EXPECT_EQ(fileSystem.extendedAttributesOfItemAtPath(std::nullopt, &error), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(ExtendedAttributes, ASetForgetsTheVolumesAttributes) {
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  set("abc");
  EXPECT_FALSE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

TEST_F(ExtendedAttributes, StayOnTheNodeThroughAMoveAndAListing) {
  set("abc");
  ASSERT_TRUE(fileSystem.moveItemAtPath("/a.txt", "/b.txt", &error));
  makeStale("/");
  list("/");
  EXPECT_EQ(get(0, "user.x", "/b.txt"), bytes("abc"));
}

TEST_F(ExtendedAttributes, GoWithTheirNode) {
  set("abc");
  server.removeItem("/a.txt");
  makeStale("/");
  list("/");
  server.addFile("/a.txt", "");
  makeStale("/");
  EXPECT_EQ(get(), std::nullopt);
  EXPECT_EQ(code(), kENOATTR);
}

TEST_F(ExtendedAttributes, NoNameIsSpecial) {
  for (const char* name : {"security.capability", "system.posix_acl_access", "._x", "a/b", " "}) {
    EXPECT_TRUE(set("abc", 0, 0, name)) << name;
    EXPECT_EQ(get(0, name), bytes("abc")) << name;
  }
}

TEST_F(ExtendedAttributes, NamesAreKeptByteForByte) {
  set("one", 0, 0, "caf\xC3\xA9");
  EXPECT_EQ(get(0, "cafe\xCC\x81"), std::nullopt);
  set("two", 0, 0, "cafe\xCC\x81");
  EXPECT_EQ(get(0, "caf\xC3\xA9"), bytes("one"));
  EXPECT_THAT(*names(), ElementsAre("cafe\xCC\x81", "caf\xC3\xA9"));
}

TEST_F(ExtendedAttributes, OnlyTheLastComponentMakesACompanion) {
  server.addFile("/._folder/a.txt", "");
  server.addFile("/folder/._a.txt", "");
  makeStale("/");
  EXPECT_TRUE(set("x", 0, 0, "user.x", "/._folder/a.txt"));
  EXPECT_FALSE(set("x", 0, 0, "user.x", "/folder/._a.txt"));
  EXPECT_EQ(code(), kEPERM);
}

TEST_F(ExtendedAttributes, AFailedSetKeepsTheVolumesAttributes) {
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  EXPECT_FALSE(set("abc", 0, kXATTR_REPLACE));
  EXPECT_TRUE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

}  // namespace
}  // namespace ombra
