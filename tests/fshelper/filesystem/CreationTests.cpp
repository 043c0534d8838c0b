// New folders and files.
#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

class Creation : public FileSystemTest {
 protected:
  Creation() { connectAt("/home/u"); }
  // Whether the folder was marked to be listed anew just now.
  void expectStale(std::string_view folder) {
    const auto node = fileSystem._nodeForPath(folder);
    ASSERT_NE(node, nullptr);
    EXPECT_TRUE(node->isExpired());
    EXPECT_EQ(node->modificationDate(), clock.now());
    EXPECT_FALSE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
  }
  void expectNotStale(std::string_view folder) {
    const auto node = fileSystem._nodeForPath(folder);
    ASSERT_NE(node, nullptr);
    EXPECT_FALSE(node->isExpired());
    EXPECT_EQ(node->modificationDate(), std::nullopt);
    EXPECT_TRUE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
  }
  void cacheVolume() { fileSystem.attributesOfFileSystemForPath("/", nullptr); }
};

using CreateDirectory = Creation;

TEST_F(CreateDirectory, AMissingPathIsInvalid) {
  EXPECT_FALSE(fileSystem.createDirectoryAtPath(std::nullopt, {}, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(CreateDirectory, AnUnknownParentIsNoSuchItemAndNothingIsSent) {
  EXPECT_FALSE(fileSystem.createDirectoryAtPath("/nowhere/new", {}, &error));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(server.count("createFolderAtPath"), 0u);
}

TEST_F(CreateDirectory, MakesTheFolderAndMarksTheParent) {
  cacheVolume();
  clock.advance(5);
  EXPECT_TRUE(fileSystem.createDirectoryAtPath("/new", {}, &error));
  EXPECT_TRUE(server.exists("/home/u/new"));
  expectStale("/");
}

TEST_F(CreateDirectory, TheFolderAppearsWithTheNextListing) {
  list("/");
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/new", {}, &error));
  EXPECT_EQ(fileSystem._nodeForPath("/new"), nullptr);
  EXPECT_NE(fileSystem.nodeForPath("/new"), nullptr);
}

TEST_F(CreateDirectory, TheServerChoosesTheMode) {
  EXPECT_TRUE(fileSystem.createDirectoryAtPath("/new", withMode(0700), &error));
  EXPECT_EQ(server.attributes("/home/u/new")->posixPermissions, 0755);
  EXPECT_EQ(server.count("changeAttributes"), 0u);
}

TEST_F(CreateDirectory, ARefusalIsAPermissionFailureWhateverItsReason) {
  cacheVolume();
  for (const QuarnKitErrorCode reason : {kQuarnKitItemExists, kQuarnKitNoSuchItem, kQuarnKitConnectionLost}) {
    server.fail("createFolderAtPath", "/home/u/new", refusal(reason));
    EXPECT_FALSE(fileSystem.createDirectoryAtPath("/new", {}, &error));
    EXPECT_EQ(code(), kEACCES);
    EXPECT_EQ(underlyingCode(), reason);
  }
  expectNotStale("/");
}

TEST_F(CreateDirectory, WithoutAConnectionTheRefusalIsTheOperations) {
  RecordedLog log;
  server.setAcquisitionFails(true);
  EXPECT_FALSE(fileSystem.createDirectoryAtPath("/new", {}, &error));
  EXPECT_EQ(code(), kEACCES);
  EXPECT_THAT(log.lines(), Contains("CONDITION FAILED: no connection"));
}

class CreateFile : public Creation {
 protected:
  bool create(std::string_view path, const NSFileAttributes& attributes = {}) {
    return fileSystem.createFileAtPath(path, attributes, &file, &error);
  }
  GMUserData file;
};

TEST_F(CreateFile, AMissingPathIsInvalid) {
  EXPECT_FALSE(fileSystem.createFileAtPath(std::nullopt, {}, &file, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(CreateFile, AnUnknownParentIsNoSuchItemAndNothingIsSent) {
  EXPECT_FALSE(create("/nowhere/new"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(file, nullptr);
  EXPECT_THAT(server.transfers(), IsEmpty());
}

TEST_F(CreateFile, MakesAnEmptyFileThatIsOpen) {
  ASSERT_TRUE(create("/new.txt"));
  EXPECT_EQ(server.content("/home/u/new.txt"), "");
  const auto remoteFile = std::dynamic_pointer_cast<OFSRemoteFile>(file);
  ASSERT_NE(remoteFile, nullptr);
  EXPECT_TRUE(remoteFile->isOpen());
  EXPECT_EQ(remoteFile->mode(), 0x602);
  EXPECT_EQ(remoteFile->remotePath(), "/home/u/new.txt");
}

TEST_F(CreateFile, TheNodeCarriesTheObjectOfTheHandle) {
  ASSERT_TRUE(create("/new.txt"));
  EXPECT_EQ(fileOnNode("/new.txt"), file);
  EXPECT_THAT(list("/"), ElementsAre("new.txt"));
  EXPECT_EQ(open("/new.txt"), file);
}

TEST_F(CreateFile, WritesGoThroughTheHandle) {
  ASSERT_TRUE(create("/new.txt"));
  EXPECT_EQ(write("/new.txt", file, "hello"), 5);
  EXPECT_EQ(server.content("/home/u/new.txt"), "hello");
}

TEST_F(CreateFile, AppliesTheAttributes) {
  ASSERT_TRUE(create("/new.txt", withMode(0640)));
  EXPECT_EQ(server.attributes("/home/u/new.txt")->posixPermissions, 0640);
  EXPECT_EQ(fileSystem._nodeForPath("/new.txt")->permissions()->mode() & 07777, 0640);
}

TEST_F(CreateFile, TheNodeHasTheFilesAttributes) {
  ASSERT_TRUE(create("/new.txt"));
  const auto node = fileSystem._nodeForPath("/new.txt");
  node->setSize(99);
  ASSERT_TRUE(create("/new.txt"));
  const NSFileAttributes attributes = fileOnNode("/new.txt")->attributes();
  EXPECT_EQ(fileSystem._nodeForPath("/new.txt"), node);
  EXPECT_EQ(node->size(), 0u);
  EXPECT_EQ(node->modificationDate(), attributes.modificationDate);
  EXPECT_EQ(node->permissions(), FilePermissions(attributes.posixPermissions.value_or(0)));
}

TEST_F(CreateFile, NeedsNoHandleSlot) {
  EXPECT_TRUE(fileSystem.createFileAtPath("/new.txt", {}, nullptr, &error));
  EXPECT_NE(fileOnNode("/new.txt"), nullptr);
}

TEST_F(CreateFile, ForgetsTheVolumesAttributesAndTouchesTheParent) {
  cacheVolume();
  clock.advance(5);
  ASSERT_TRUE(create("/new.txt"));
  EXPECT_FALSE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), clock.now());
  EXPECT_FALSE(fileSystem.rootNode()->isExpired());
}

TEST_F(CreateFile, AFailedOpeningAnswersTheFilesErrorAndMarksNothing) {
  cacheVolume();
  server.fail("uploadFileHandle", "/home/u/new.txt", refusal(kQuarnKitPermissionDenied));
  EXPECT_FALSE(create("/new.txt"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(server.count("contentsAtPath"), 0u);
  expectNotStale("/");
}

TEST_F(CreateFile, AFailedListingAnswersTheListingsError) {
  server.fail("contentsAtPath", "/home/u", refusal(kQuarnKitConnectionLost));
  EXPECT_FALSE(create("/new.txt"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_EQ(underlyingCode(), kQuarnKitConnectionLost);
}

TEST_F(CreateFile, AFileThatTheServerDoesNotListIsAnInputOutputError) {
  server.setHidden("/home/u/new.txt", true);
  EXPECT_FALSE(create("/new.txt"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(file, nullptr);
}

TEST_F(CreateFile, ARefusedAttributeAnswersTheFilesErrorAndLeavesTheFileOpenOnItsNode) {
  server.fail("changeAttributes", "/home/u/new.txt", refusal(kQuarnKitPermissionDenied));
  clock.advance(5);
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_FALSE(create("/new.txt", withMode(0600)));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(file, nullptr);
  ASSERT_NE(fileOnNode("/new.txt"), nullptr);
  EXPECT_TRUE(fileOnNode("/new.txt")->isOpen());
  EXPECT_THAT(log.linesWith("-[OFSRemoteFile close]"), IsEmpty());
  EXPECT_EQ(fileSystem._nodeForPath("/new.txt")->modificationDate(), clock.now());
}

TEST_F(CreateFile, AnObjectThatTheNodeHadIsReplaced) {
  server.addFile("/home/u/old.txt", "old");
  const GMUserData old = open("/old.txt");
  ASSERT_TRUE(create("/old.txt"));
  EXPECT_NE(file, old);
  EXPECT_EQ(fileOnNode("/old.txt"), file);
}

TEST_F(CreateFile, AFailedListingLeavesTheFileOnTheServer) {
  server.fail("contentsAtPath", "/home/u", refusal(kQuarnKitConnectionLost));
  EXPECT_FALSE(create("/new.txt"));
  EXPECT_EQ(file, nullptr);
  EXPECT_EQ(server.content("/home/u/new.txt"), "");
}

}  // namespace
}  // namespace ombra
