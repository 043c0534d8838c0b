// The way from requests to open-file objects.
#include <future>
#include <thread>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class FileIO : public FileSystemTest {
 protected:
  FileIO() {
    server.addFile("/a.txt", "content");
    connect();
  }
  bool volumeIsCached() {
    return fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value();
  }
  void cacheVolume() { fileSystem.attributesOfFileSystemForPath("/", nullptr); }
  std::shared_ptr<KCRemoteFileNode> node() { return fileSystem.nodeForPath("/a.txt"); }
};

using Open = FileIO;

TEST_F(Open, AMissingPathIsInvalid) {
  GMUserData file;
  EXPECT_FALSE(fileSystem.openFileAtPath(std::nullopt, kO_RDONLY, &file, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(Open, AnUnknownItemIsNoSuchItemAndLeavesTheSlot) {
  const GMUserData other = OFSRemoteFile::remoteFileForPath("/other");
  GMUserData file = other;
  EXPECT_FALSE(fileSystem.openFileAtPath("/nowhere", kO_RDONLY, &file, &error));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(file, other);
}

TEST_F(Open, AllOpensOfAPathShareOneObject) {
  const GMUserData reader = open("/a.txt", kO_RDONLY);
  const GMUserData writer = open("/a.txt", kO_RDWR | kO_TRUNC);
  EXPECT_EQ(reader, writer);
  EXPECT_EQ(server.count("downloadFileAtPath"), 1u);
  EXPECT_EQ(fileOnNode("/a.txt")->mode(), kO_RDONLY);
  EXPECT_EQ(server.content("/a.txt"), "content");
}

TEST_F(Open, NeedsNoSlot) {
  EXPECT_TRUE(fileSystem.openFileAtPath("/a.txt", kO_RDONLY, nullptr, &error));
  EXPECT_TRUE(fileOnNode("/a.txt")->isOpen());
}

TEST_F(Open, OnlyTheLowSixteenBitsOfTheFlagsCount) {
  RecordedLog log;
  {
    const TracingOn tracing;
    open("/a.txt", 0x70000 | kO_RDWR);
  }
  EXPECT_THAT(log.linesWith("{ -[OFSRemoteFile openWithMode:error:]"),
              ::testing::ElementsAre(::testing::EndsWith(" mode=02")));
  EXPECT_EQ(fileOnNode("/a.txt")->mode(), kO_RDWR);
  EXPECT_EQ(server.count("downloadFileAtPath"), 1u);
}

TEST_F(Open, AFailedOpeningAnswersTheFilesError) {
  server.fail("uploadFileHandle", "/a.txt", refusal());
  GMUserData file;
  EXPECT_FALSE(fileSystem.openFileAtPath("/a.txt", kO_RDWR | kO_TRUNC, &file, &error));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(file, nullptr);
}

TEST_F(FileIO, AReadIsAnsweredByTheFile) {
  const GMUserData file = open("/a.txt", kO_RDONLY);
  EXPECT_EQ(read(file, 4, 2), "nten");
  EXPECT_EQ(read(file, 100, 7), "");
}

TEST_F(FileIO, AReadLeavesTheNode) {
  const GMUserData file = open("/a.txt", kO_RDONLY);
  cacheVolume();
  node()->setSize(99);
  read(file);
  EXPECT_EQ(node()->size(), 99u);
  EXPECT_TRUE(volumeIsCached());
}

// A file without a cache copy tries to open itself for the read.
TEST_F(FileIO, AFailedReadAnswersTheFilesError) {
  const NoTemporaryFolder none;
  char byte = 0;
  EXPECT_EQ(
      fileSystem.readFileAtPath("/a.txt", OFSRemoteFile::remoteFileForPath("/a.txt"), &byte, 1, 0, &error),
      -1);
  EXPECT_EQ(code(), kEIO);
}

TEST_F(FileIO, AMissingHandleReadsAndWritesNothing) {
  char byte = 0;
  cacheVolume();
  EXPECT_EQ(fileSystem.readFileAtPath("/a.txt", nullptr, &byte, 1, 0, &error), 0);
  EXPECT_EQ(fileSystem.writeFileAtPath("/a.txt", nullptr, &byte, 1, 0, &error), 0);
  EXPECT_EQ(error, nullptr);
  EXPECT_TRUE(volumeIsCached());
  EXPECT_EQ(server.content("/a.txt"), "content");
}

TEST_F(FileIO, AWriteUpdatesTheNodeAndForgetsTheVolumesAttributes) {
  const GMUserData file = open("/a.txt");
  cacheVolume();
  EXPECT_EQ(write("/a.txt", file, "longer content"), 14);
  EXPECT_EQ(node()->size(), 14u);
  EXPECT_FALSE(volumeIsCached());
  EXPECT_EQ(server.content("/a.txt"), "longer content");
}

TEST_F(FileIO, AWriteToAnItemThatIsGoneReachesTheHandlesFile) {
  const GMUserData file = open("/a.txt");
  cacheVolume();
  EXPECT_EQ(write("/nowhere", file, "x"), 1);
  EXPECT_EQ(server.content("/a.txt"), "xontent");
  EXPECT_FALSE(volumeIsCached());
}

TEST_F(FileIO, AWriteShowsTheFilesDateAndModeOnTheNode) {
  const GMUserData file = open("/a.txt");
  node()->setModificationDate(std::nullopt);
  node()->setPermissions(std::nullopt);
  EXPECT_EQ(write("/a.txt", file, "x"), 1);
  const auto attributes = fileOnNode("/a.txt")->attributes();
  ASSERT_TRUE(attributes.modificationDate && attributes.posixPermissions);
  EXPECT_EQ(node()->modificationDate(), attributes.modificationDate);
  EXPECT_EQ(node()->permissions(), FilePermissions(*attributes.posixPermissions));
}

TEST_F(FileIO, AWriteOfNothingChangesNeither) {
  const GMUserData file = open("/a.txt");
  cacheVolume();
  node()->setSize(99);
  EXPECT_EQ(write("/a.txt", file, ""), 0);
  EXPECT_EQ(node()->size(), 99u);
  EXPECT_TRUE(volumeIsCached());
}

TEST_F(FileIO, AFailedWriteChangesNeither) {
  const GMUserData file = open("/a.txt");
  read(file);
  cacheVolume();
  node()->setSize(99);
  server.failAlways("uploadFileHandle", "/a.txt", refusal(kQuarnKitOutOfSpace));
  EXPECT_EQ(write("/a.txt", file, "x"), -1);
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kQuarnKitOutOfSpace);
  EXPECT_EQ(node()->size(), 99u);
  EXPECT_TRUE(volumeIsCached());
}

// What the log says of failures of these operations: one line each, under the error's number.
TEST_F(Open, ItsOwnFailuresAreLogged) {
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_FALSE(fileSystem.openFileAtPath(std::nullopt, kO_RDONLY, nullptr, &error));
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain 22"), SizeIs(1));
  EXPECT_FALSE(fileSystem.openFileAtPath("/nowhere", kO_RDONLY, nullptr, &error));
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain 2 "), SizeIs(1));
}

using Truncate = FileIO;

TEST_F(Truncate, OfAnUnknownPathIsLogged) {
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_FALSE(fileSystem.truncateFileAtPath("/nowhere", nullptr, 0, &error));
  EXPECT_THAT(log.linesWith("NSPOSIXErrorDomain 2 "), SizeIs(1));
}

TEST_F(Truncate, AnUnknownPathIsNoSuchItemAlsoWithAHandle) {
  const GMUserData file = open("/a.txt");
  EXPECT_FALSE(fileSystem.truncateFileAtPath("/nowhere", file, 0, &error));
  EXPECT_EQ(code(), kENOENT);
  error = nullptr;
  EXPECT_FALSE(fileSystem.truncateFileAtPath(std::nullopt, file, 0, &error));
  EXPECT_EQ(code(), kENOENT);
}

TEST_F(Truncate, AHandleIsTruncated) {
  const GMUserData file = open("/a.txt");
  cacheVolume();
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/a.txt", file, 3, &error));
  EXPECT_EQ(server.content("/a.txt"), "con");
  EXPECT_EQ(node()->size(), 3u);
  EXPECT_TRUE(volumeIsCached());
}

TEST_F(Truncate, ShowsTheFilesDateAndModeOnTheNode) {
  const GMUserData file = open("/a.txt");
  node()->setModificationDate(std::nullopt);
  node()->setPermissions(std::nullopt);
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/a.txt", file, 3, &error));
  const auto attributes = fileOnNode("/a.txt")->attributes();
  ASSERT_TRUE(attributes.modificationDate && attributes.posixPermissions);
  EXPECT_EQ(node()->modificationDate(), attributes.modificationDate);
  EXPECT_EQ(node()->permissions(), FilePermissions(*attributes.posixPermissions));
}

TEST_F(Truncate, OfAClosedFileKeepsTheVolumesAttributes) {
  cacheVolume();
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/a.txt", nullptr, 3, &error));
  EXPECT_TRUE(volumeIsCached());
}

TEST_F(Truncate, AClosedFileIsOpenedReadWriteAndStaysOpen) {
  // A name of its own: a worker of an earlier test may close that one's file just now.
  server.addFile("/stays-open.txt", "content");
  RecordedLog log;
  {
    const TracingOn tracing;
    EXPECT_TRUE(fileSystem.truncateFileAtPath("/stays-open.txt", nullptr, 3, &error));
  }
  EXPECT_THAT(log.linesWith("-[OFSRemoteFile close] remotePath=/stays-open.txt"), IsEmpty());
  EXPECT_EQ(server.content("/stays-open.txt"), "con");
  EXPECT_EQ(fileSystem.nodeForPath("/stays-open.txt")->size(), 3u);
  ASSERT_NE(fileOnNode("/stays-open.txt"), nullptr);
  EXPECT_TRUE(fileOnNode("/stays-open.txt")->isOpen());
  EXPECT_EQ(fileOnNode("/stays-open.txt")->mode(), kO_RDWR);
}

TEST_F(Truncate, AClosedFileIsFoundAtItsPathOnTheServer) {
  server.addFile("/home/u/a.txt", "content");
  fileSystem.setRootNode(KCRemoteFolderNode::folderNodeWithPath("/home/u", server.credentials()));
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/a.txt", nullptr, 3, &error));
  EXPECT_EQ(server.content("/home/u/a.txt"), "con");
}

TEST_F(Truncate, AFailureAfterTheOpeningStillReportsSuccess) {
  server.failAlways("uploadFileHandle", "/a.txt", refusal(kQuarnKitOutOfSpace));
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/a.txt", nullptr, 3, &error));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(node()->size(), 7u);
  error = nullptr;
  const GMUserData file = open("/a.txt");
  EXPECT_TRUE(fileSystem.truncateFileAtPath("/a.txt", file, 3, &error));
  EXPECT_EQ(code(), kEIO);
}

TEST_F(Truncate, AFailedOpeningAnswersTheFilesError) {
  list("/");
  const NoTemporaryFolder none;
  EXPECT_FALSE(fileSystem.truncateFileAtPath("/a.txt", nullptr, 3, &error));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(server.content("/a.txt"), "content");
}

using Release = FileIO;

TEST_F(Release, TheObjectStaysOnItsNodeAndServesTheNextOpen) {
  const GMUserData file = open("/a.txt", kO_RDONLY);
  read(file);
  fileSystem.releaseFileAtPath("/a.txt", file);
  EXPECT_EQ(fileOnNode("/a.txt"), file);
  EXPECT_EQ(open("/a.txt", kO_RDONLY), file);
  EXPECT_EQ(server.count("downloadFileAtPath"), 1u);
}

TEST_F(Release, ClosesTheFileAndNothingElse) {
  const GMUserData file = open("/a.txt");
  read(file);
  cacheVolume();
  node()->setSize(99);
  const auto date = fileSystem.rootNode()->modificationDate();
  clock.advance(5);
  server.clearCalls();
  RecordedLog log;
  const TracingOn tracing;
  fileSystem.releaseFileAtPath("/a.txt", file);
  EXPECT_EQ(log.linesWith("{ -[OFSRemoteFile close]").size(), 1u);
  EXPECT_EQ(node()->size(), 99u);
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), date);
  EXPECT_TRUE(volumeIsCached());
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

// What is not in use any more makes room for others.
TEST_F(Release, EndsTheUseAlsoWhenTheLastUploadRaises) {
  server.setSupportsUploadByteOffset(false);
  gStreamingSupported = false;
  server.setChunkSize(1);
  const GMUserData file = open("/a.txt");
  read(file);
  const auto running = server.hold("uploadFileAtPath", "/a.txt", 5);
  ASSERT_EQ(write("/a.txt", file, "0123456789"), 10);
  ASSERT_TRUE(running->waitUntilHeld());
  ASSERT_EQ(write("/a.txt", file, "ab", 10), 2) << "half of its offset is confirmed";
  auto releasing = std::async(
      std::launch::async, [&] { EXPECT_THROW(fileSystem.releaseFileAtPath("/a.txt", file), KCException); });
  while (fileOnNode("/a.txt")->waiterCount() == 0) std::this_thread::yield();
  const auto own = server.hold("uploadFileAtPath");
  running->releaseFailing(refusal());
  releasing.get();
  own->release();
  ASSERT_TRUE(fileSystem.synchronizeFileAtPath("/a.txt", file, &error));
  fileSystem.setCacheBudget(0, 0);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/a.txt"), nullptr);
}

TEST_F(Release, AMissingHandleIsLetBe) {
  const GMUserData file = open("/a.txt");
  read(file);
  server.clearCalls();
  fileSystem.releaseFileAtPath("/a.txt", nullptr);
  EXPECT_THAT(server.callTexts(), IsEmpty());
  fileSystem.setCacheBudget(0, 0);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/a.txt"), file) << "it is still in use";
}

}  // namespace
}  // namespace ombra
