// Changing attributes.
#include <thread>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class SetAttributes : public FileSystemTest {
 protected:
  SetAttributes() {
    server.addFile("/a.txt", "content");
    server.addFolder("/folder");
  }
  bool set(const NSFileAttributes& attributes, std::string_view path, const GMUserData& file = nullptr) {
    return fileSystem.setAttributes(attributes, path, file, &error);
  }
  bool volumeIsCached() {
    return ofs_property<NSFileAttributes>(*fileSystem.rootNode(), kOFSFileSystemAttributes).has_value();
  }
  void cacheVolume() { fileSystem.attributesOfFileSystemForPath("/", nullptr); }
};

TEST_F(SetAttributes, TheFrameworksEntryRefusesAMissingPath) {
  connect();
  EXPECT_FALSE(fileSystem.MacFUSE_1_7_setAttributes(withMode(0600), std::nullopt, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(SetAttributes, TheFrameworksEntrySetsWithoutAHandle) {
  connect();
  EXPECT_TRUE(fileSystem.MacFUSE_1_7_setAttributes(withMode(0700), "/folder", &error));
  EXPECT_EQ(server.attributes("/folder")->posixPermissions, 0700);
}

TEST_F(SetAttributes, AnUnknownItemIsNoSuchItem) {
  connect();
  EXPECT_FALSE(set(withMode(0600), "/nowhere"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_FALSE(fileSystem.setAttributes(withMode(0600), std::nullopt, nullptr, &error));
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(SetAttributes, AFoldersModeGoesToTheServerAlone) {
  connect();
  NSFileAttributes attributes = withMode(0711);
  attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(5);
  EXPECT_TRUE(set(attributes, "/folder"));
  EXPECT_THAT(server.callTexts(),
              ::testing::Contains("changeAttributes /folder " + withMode(0711).description()));
}

TEST_F(SetAttributes, OtherAttributesOfAFolderAreAcceptedAndIgnored) {
  connect();
  list("/");
  cacheVolume();
  server.clearCalls();
  NSFileAttributes attributes;
  attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(5);
  EXPECT_TRUE(set(attributes, "/folder"));
  EXPECT_THAT(server.callTexts(), IsEmpty());
  EXPECT_FALSE(volumeIsCached());
}

TEST_F(SetAttributes, OnWebDAVAFoldersModeIsSkipped) {
  server.setIsWebDAV(true);
  connect();
  list("/");
  EXPECT_TRUE(set(withMode(0700), "/folder"));
  EXPECT_THAT(serverCalls(), ElementsAre("contentsAtPath /"));
}

TEST_F(SetAttributes, AFoldersModeThatTheServerCannotChangeCountsAsChanged) {
  connect();
  cacheVolume();
  server.fail("changeAttributes", "/folder", refusal(kQuarnKitAttributeChangeNotSupported));
  EXPECT_TRUE(set(withMode(0700), "/folder"));
  EXPECT_FALSE(volumeIsCached());
}

TEST_F(SetAttributes, ARefusedModeOfAFolderIsAnInputOutputError) {
  connect();
  cacheVolume();
  server.fail("changeAttributes", "/folder", refusal(kQuarnKitPermissionDenied));
  EXPECT_FALSE(set(withMode(0700), "/folder"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kQuarnKitPermissionDenied);
  EXPECT_TRUE(volumeIsCached());
}

TEST_F(SetAttributes, ASizeOfAClosedFileOpensItAndChangesNothingElse) {
  connect();
  RecordedLog log;
  {
    const TracingOn tracing;
    EXPECT_TRUE(set(withSize(3), "/a.txt"));
  }
  EXPECT_THAT(log.linesWith("-[OFSRemoteFile openWithMode:error:] mode=02"), ::testing::SizeIs(2));
  EXPECT_THAT(log.linesWith("-[OFSRemoteFile setAttributes:error:]"), IsEmpty());
  EXPECT_EQ(server.content("/a.txt"), "con");
  EXPECT_EQ(server.count("changeAttributes"), 0u);
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt")->size(), 3u);
}

TEST_F(SetAttributes, AFileThatWasOpenedForItStaysOpen) {
  connect();
  RecordedLog log;
  {
    const TracingOn tracing;
    ASSERT_TRUE(set(withSize(3), "/a.txt"));
  }
  EXPECT_THAT(log.linesWith("-[OFSRemoteFile close]"), IsEmpty());
  ASSERT_NE(fileOnNode("/a.txt"), nullptr);
  EXPECT_TRUE(fileOnNode("/a.txt")->isOpen());
  EXPECT_EQ(fileOnNode("/a.txt")->mode(), kO_RDWR);
}

TEST_F(SetAttributes, AFilesModeReachesTheServerAndTheNode) {
  connect();
  cacheVolume();
  EXPECT_TRUE(set(withMode(0600), "/a.txt"));
  EXPECT_EQ(server.attributes("/a.txt")->posixPermissions, 0600);
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt")->permissions()->mode() & 07777, 0600);
  EXPECT_FALSE(volumeIsCached());
}

TEST_F(SetAttributes, ASizeWithAModeChangesBoth) {
  connect();
  NSFileAttributes attributes = withMode(0600);
  attributes.fileSize = 4;
  EXPECT_TRUE(set(attributes, "/a.txt"));
  EXPECT_EQ(server.content("/a.txt"), "cont");
  EXPECT_EQ(server.attributes("/a.txt")->posixPermissions, 0600);
}

TEST_F(SetAttributes, ASizeWithADateChangesBothOnTheNodeAndTheDateNotOnTheServer) {
  connect();
  NSFileAttributes attributes = withSize(4);
  attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(1234);
  EXPECT_TRUE(set(attributes, "/a.txt"));
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt")->size(), 4u);
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt")->modificationDate(), attributes.modificationDate);
  EXPECT_EQ(server.count("changeAttributes"), 0u);
}

TEST_F(SetAttributes, GoToTheServersPathOfTheItem) {
  server.addFile("/home/u/a.txt", "content");
  server.addFolder("/home/u/folder");
  connectAt("/home/u");
  NSFileAttributes attributes = withMode(0700);
  EXPECT_TRUE(set(attributes, "/folder"));
  attributes.fileSize = 3;
  EXPECT_TRUE(set(attributes, "/a.txt"));
  EXPECT_EQ(server.attributes("/home/u/folder")->posixPermissions, 0700);
  EXPECT_EQ(server.attributes("/home/u/a.txt")->posixPermissions, 0700);
  EXPECT_EQ(server.content("/home/u/a.txt"), "con");
}

TEST_F(SetAttributes, AHandleIsUsedAsItIs) {
  connect();
  const GMUserData file = open("/a.txt");
  EXPECT_TRUE(set(withSize(2), "/a.txt", file));
  EXPECT_EQ(fileOnNode("/a.txt"), file);
  EXPECT_EQ(server.content("/a.txt"), "co");
}

// The change ends with the attributes of the cache file, which wait for the file's first open.
TEST_F(SetAttributes, AHandleThatIsNotOpenIsNotTruncated) {
  connect();
  fileSystem.nodeForPath("/a.txt");
  const auto file = OFSRemoteFile::remoteFileForPath("/a.txt");
  file->setConnectionPool(server.pool());
  bool isSet = false;
  std::thread setter([&] { isSet = set(withSize(2), "/a.txt", file); });
  while (file->waiterCount() == 0) std::this_thread::yield();
  EXPECT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  setter.join();
  EXPECT_TRUE(isSet);
  EXPECT_EQ(server.content("/a.txt"), "content");
}

TEST_F(SetAttributes, AFailedOpeningAnswersTheFilesError) {
  connect();
  fileSystem.nodeForPath("/a.txt");
  const NoTemporaryFolder none;
  EXPECT_FALSE(set(withSize(3), "/a.txt"));
  EXPECT_EQ(code(), kEIO);
}

TEST_F(SetAttributes, AFailedTruncationAnswersTheFilesErrorAndLeavesTheNode) {
  connect();
  cacheVolume();
  const GMUserData file = open("/a.txt");
  server.fail("uploadFileHandle", "/a.txt", refusal(kQuarnKitOutOfSpace));
  EXPECT_FALSE(set(withSize(3), "/a.txt", file));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt")->size(), 7u);
  EXPECT_TRUE(volumeIsCached());
}

TEST_F(SetAttributes, AFailedTruncationKeepsTheOtherAttributes) {
  connect();
  const GMUserData file = open("/a.txt");
  server.fail("uploadFileHandle", "/a.txt", refusal(kQuarnKitOutOfSpace));
  NSFileAttributes attributes = withMode(0600);
  attributes.fileSize = 3;
  EXPECT_FALSE(set(attributes, "/a.txt", file));
  EXPECT_EQ(server.count("changeAttributes"), 0u);
}

TEST_F(SetAttributes, ARefusedModeOfAFileAnswersTheFilesErrorAndLeavesTheNode) {
  connect();
  cacheVolume();
  server.fail("changeAttributes", "/a.txt", refusal(kQuarnKitPermissionDenied));
  EXPECT_FALSE(set(withMode(0600), "/a.txt"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt")->permissions(), FilePermissions(0644));
  EXPECT_TRUE(volumeIsCached());
}

TEST_F(SetAttributes, ALinkIsChangedThroughItsOpenFile) {
  server.addLink("/l", "a.txt");
  connect();
  EXPECT_TRUE(set(withMode(0600), "/l"));
  ASSERT_NE(fileOnNode("/l"), nullptr);
  EXPECT_TRUE(fileOnNode("/l")->isOpen());
  EXPECT_EQ(server.count("changeAttributes"), 1u);
}

TEST_F(SetAttributes, AnEmptyDictionaryReachesTheOpenFileToo) {
  connect();
  const GMUserData file = open("/a.txt");
  read(file);
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_TRUE(set({}, "/a.txt", file));
  EXPECT_THAT(log.linesWith("{ -[OFSRemoteFile setAttributes:error:]"), ::testing::SizeIs(1));
}

}  // namespace
}  // namespace ombra
