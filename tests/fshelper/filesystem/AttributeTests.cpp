// Attributes of items and of the volume.
#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class ItemAttributes : public FileSystemTest {
 protected:
  NSFileAttributes attributes(std::string_view path) {
    const auto found = fileSystem.attributesOfItemAtPath(path, nullptr, &error);
    EXPECT_TRUE(found.has_value()) << path;
    return found.value_or(NSFileAttributes());
  }
  uint16_t modeOf(std::string_view path) { return attributes(path).posixPermissions.value_or(0); }
};

TEST_F(ItemAttributes, AMissingPathIsABadAddress) {
  EXPECT_EQ(fileSystem.attributesOfItemAtPath(std::nullopt, nullptr, &error), std::nullopt);
  EXPECT_EQ(code(), kEFAULT);
  EXPECT_EQ(fileSystem.MacFUSE_1_7_attributesOfItemAtPath(std::nullopt, &error), std::nullopt);
  EXPECT_EQ(code(), kEFAULT);
}

TEST_F(ItemAttributes, AnUnknownItemIsNoSuchItem) {
  connect();
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/nowhere", nullptr, &error), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(ItemAttributes, AnUnknownItemIsNotLoggedAsAnError) {
  connect();
  list("/");
  RecordedLog log;
  const TracingOn tracing;
  fileSystem.attributesOfItemAtPath("/nowhere", nullptr, &error);
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain"), IsEmpty());
}

TEST_F(ItemAttributes, AMissingPathIsLoggedAsAnError) {
  RecordedLog log;
  const TracingOn tracing;
  fileSystem.attributesOfItemAtPath(std::nullopt, nullptr, &error);
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain 14"), SizeIs(1));
}

TEST_F(ItemAttributes, AnUnknownTypeIsNoSuchItem) {
  server.addFile("/a", "a");
  connect();
  fileSystem.nodeForPath("/a")->setType(fourCharacterCode("pipe"));
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/a", nullptr, &error), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(ItemAttributes, AnUnknownTypeIsToldBeforeTheMode) {
  server.addFile("/a", "a");
  connect();
  fileSystem.nodeForPath("/a")->setType(fourCharacterCode("pipe"));
  RecordedLog log;
  const TracingOn tracing;
  fileSystem.attributesOfItemAtPath("/a", nullptr, &error);
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain 2"), SizeIs(1));
  EXPECT_THAT(log.linesWith("mode="), IsEmpty());
}

TEST_F(ItemAttributes, AFileHasTypeSizeDatesModeAndNumber) {
  server.addFile("/a", "abc");
  const NSDate made = NSDate::dateWithTimeIntervalSince1970(100);
  const NSDate changed = NSDate::dateWithTimeIntervalSince1970(200);
  server.setCreationDate("/a", made);
  server.setModificationDate("/a", changed);
  server.setPermissions("/a", 0640);
  connect();
  NSFileAttributes expected;
  expected.fileType = NSFileTypeValue::NSFileTypeRegular;
  expected.fileSize = 3;
  expected.creationDate = made;
  expected.modificationDate = changed;
  expected.posixPermissions = 0640;
  const KCRemoteFileNode* const node = fileSystem.nodeForPath("/a").get();
  expected.systemFileNumber = reinterpret_cast<uintptr_t>(node);
  EXPECT_EQ(attributes("/a"), expected);
}

TEST_F(ItemAttributes, AFolderHasNoSize) {
  server.addFolder("/f");
  server.setListedSize("/f", 4096);
  connect();
  ASSERT_EQ(fileSystem.nodeForPath("/f")->size(), 4096u);
  EXPECT_EQ(attributes("/f").fileType, NSFileTypeValue::NSFileTypeDirectory);
  EXPECT_EQ(attributes("/f").fileSize, std::nullopt);
}

TEST_F(ItemAttributes, ALinkIsAnsweredAsALinkWithoutASize) {
  server.addLink("/l", "a");
  connect();
  EXPECT_EQ(attributes("/l").fileType, NSFileTypeValue::NSFileTypeSymbolicLink);
  EXPECT_EQ(attributes("/l").fileSize, std::nullopt);
}

TEST_F(ItemAttributes, AFileWithoutAListedSizeHasNone) {
  server.addFile("/a", "abc");
  server.setListedSize("/a", std::nullopt);
  connect();
  EXPECT_EQ(attributes("/a").fileSize, std::nullopt);
}

TEST_F(ItemAttributes, WithoutADateTheMountDateIsShown) {
  server.addFile("/a", "");
  server.setModificationDate("/a", std::nullopt);
  server.setCreationDate("/a", std::nullopt);
  connect();
  clock.advance(10);
  EXPECT_EQ(attributes("/a").modificationDate, fileSystem.mountDate());
  EXPECT_EQ(attributes("/a").creationDate, std::nullopt);
}

TEST_F(ItemAttributes, AreThoseOfTheNodeWhateverTheHandle) {
  server.addFile("/a", "abc");
  server.addFile("/b", "longer");
  connect();
  const GMUserData other = open("/b");
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/a", other, &error), attributes("/a"));
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/nowhere", other, &error), std::nullopt);
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(ItemAttributes, AFolderIsAlwaysSearchableByItsOwner) {
  server.addFolder("/f");
  server.setPermissions("/f", 0644);
  connect();
  EXPECT_EQ(modeOf("/f"), 0744);
}

TEST_F(ItemAttributes, AFilesModeIsShownAsItIs) {
  server.addFile("/a", "");
  server.setPermissions("/a", 0644);
  connect();
  EXPECT_EQ(modeOf("/a"), 0644);
  fileSystem.nodeForPath("/a")->setPermissions(FilePermissions(0xFFFF));
  EXPECT_EQ(modeOf("/a"), 0xFFFF);
}

TEST_F(ItemAttributes, ALinksModeIsShownAsItIs) {
  server.addLink("/l", "a");
  server.setPermissions("/l", 0644);
  connect();
  EXPECT_EQ(modeOf("/l"), 0644);
}

TEST_F(ItemAttributes, TheRootShowsItsOwnMode) {
  connect();
  fileSystem.rootNode()->setPermissions(FilePermissions(0750));
  EXPECT_EQ(modeOf("/"), 0750);
  fileSystem.rootNode()->setPermissions(std::nullopt);
  EXPECT_EQ(modeOf("/"), 0775);
}

TEST_F(ItemAttributes, WithoutAModeAnItemShows0775) {
  server.addFile("/a", "");
  server.addFolder("/f");
  server.setPermissions("/a", std::nullopt);
  server.setPermissions("/f", std::nullopt);
  connect();
  EXPECT_EQ(modeOf("/a"), 0775);
  EXPECT_EQ(modeOf("/f"), 0775);
}

TEST_F(ItemAttributes, TheNumberChangesWithTheNode) {
  server.addFile("/a", "");
  connect();
  const auto old = fileSystem.nodeForPath("/a");
  const auto number = attributes("/a").systemFileNumber;
  server.removeItem("/a");
  makeStale("/");
  list("/");
  server.addFile("/a", "");
  makeStale("/");
  EXPECT_NE(attributes("/a").systemFileNumber, number);
}

TEST(BucketList, ShowsReadAndSearchWhateverTheNodeSays) {
  ManualClock clock;
  ScriptedServer server(kProtocolS3);
  server.addFolder("/bucket");
  server.setPermissions("/bucket", 0700);
  OmbraFileSystem fileSystem;
  fileSystem.setConnectionPool(server.pool());
  ASSERT_TRUE(fileSystem.preflight(nullptr));
  fileSystem.rootNode()->setPermissions(FilePermissions(0700));
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/", nullptr, nullptr)->posixPermissions, 0555);
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/bucket", nullptr, nullptr)->posixPermissions, 0700);
}

TEST(BucketList, IsNotTheRootOfAVolumeThatIsOneBucket) {
  ManualClock clock;
  ScriptedServer server(kProtocolS3);
  server.addFolder("/bucket");
  server.setLoginPath("/bucket");
  OmbraFileSystem fileSystem;
  fileSystem.setConnectionPool(server.pool());
  ASSERT_TRUE(fileSystem.preflight(nullptr));
  fileSystem.rootNode()->setPermissions(FilePermissions(0700));
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/", nullptr, nullptr)->posixPermissions, 0700);
}

class VolumeAttributes : public FileSystemTest {
 protected:
  static NSFileAttributes volume(uint64_t size, uint64_t free) {
    NSFileAttributes attributes;
    attributes.systemSize = size;
    attributes.systemFreeSize = free;
    return attributes;
  }
  const NSFileAttributes unknown = volume(32212254720, 32212254720);
};

TEST_F(VolumeAttributes, AMissingPathIsABadAddress) {
  connect();
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath(std::nullopt, &error), std::nullopt);
  EXPECT_EQ(code(), kEFAULT);
}

TEST_F(VolumeAttributes, AreAskedOnceForTheRootWhateverThePath) {
  server.setFileSystemAttributes(volume(1000, 400));
  connectAt("/home/u");
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/some/where", &error), volume(1000, 400));
  server.setFileSystemAttributes(volume(1000, 300));
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), volume(1000, 400));
  EXPECT_THAT(serverCalls(), ElementsAre("fileSystemAttributesAtPath /home/u"));
}

TEST_F(VolumeAttributes, AreAskedAgainOnceSomethingHasChanged) {
  server.setFileSystemAttributes(volume(1000, 400));
  connect();
  fileSystem.attributesOfFileSystemForPath("/", &error);
  server.setFileSystemAttributes(volume(1000, 300));
  fileSystem.fileSystemAttributesNeedUpdate(false);
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), volume(1000, 400));
  fileSystem.fileSystemAttributesNeedUpdate(true);
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), volume(1000, 300));
}

TEST_F(VolumeAttributes, AServerThatCannotTellShowsThirtyGibibytesUntilSomethingChanges) {
  connect();
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), unknown);
  EXPECT_EQ(error, nullptr);
  server.setFileSystemAttributes(volume(1000, 400));
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), unknown);
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/new", {}, &error));
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), volume(1000, 400));
}

TEST_F(VolumeAttributes, TheTraceSaysWhereTheyComeFrom) {
  connect();
  RecordedLog log;
  const TracingOn tracing;
  fileSystem.attributesOfFileSystemForPath("/", &error);
  EXPECT_THAT(log.linesWith(": using default"), SizeIs(1));
  fileSystem.attributesOfFileSystemForPath("/", &error);
  EXPECT_THAT(log.linesWith(": unchanged"), SizeIs(1));
}

// Both find nothing kept, and both ask.
TEST_F(VolumeAttributes, OfTwoFirstQuestionsTheLaterAnswerIsKept) {
  connect();
  bool isFirst = true;
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "fileSystemAttributesAtPath" || !std::exchange(isFirst, false)) return;
    server.setFileSystemAttributes(volume(1000, 400));
    EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", nullptr), volume(1000, 400));
    server.setFileSystemAttributes(volume(1000, 300));
  });
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), volume(1000, 300));
  EXPECT_EQ(fileSystem.attributesOfFileSystemForPath("/", &error), volume(1000, 300));
  EXPECT_EQ(server.count("fileSystemAttributesAtPath"), 2u);
}

}  // namespace
}  // namespace ombra
