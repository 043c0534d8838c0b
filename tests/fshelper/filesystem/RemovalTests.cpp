// Removing files, links and folders.
#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Removal : public FileSystemTest {
 protected:
  Removal() {
    server.addFile("/a.txt", "a");
    server.addFolder("/empty");
    server.addFile("/full/x.txt", "x");
    connect();
    list("/");
    server.clearCalls();
  }
  bool remove(std::string_view path) { return fileSystem.removeItemAtPath(path, &error); }
};

TEST_F(Removal, AMissingPathIsInvalid) {
  EXPECT_FALSE(fileSystem.removeItemAtPath(std::nullopt, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(Removal, AnUnknownItemIsNoSuchItem) {
  EXPECT_FALSE(remove("/nowhere"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Removal, AFileGoesFromTheServerAndTheTree) {
  clock.advance(1);
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  EXPECT_TRUE(remove("/a.txt"));
  EXPECT_THAT(server.callTexts(), Contains("deleteItemAtPath /a.txt 0"));
  EXPECT_FALSE(server.exists("/a.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), clock.now());
  EXPECT_FALSE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

TEST_F(Removal, TheParentIsNotListedAgain) {
  remove("/a.txt");
  EXPECT_FALSE(fileSystem.rootNode()->isExpired());
  server.clearCalls();
  list("/");
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Removal, AnEmptyFolderIsDeletedAsAFolder) {
  EXPECT_TRUE(remove("/empty"));
  EXPECT_THAT(serverCalls(), Contains("deleteItemAtPath /empty 1"));
}

TEST_F(Removal, ALinkIsDeletedAsAFileAndItsTargetStays) {
  server.addLink("/l", "full");
  makeStale("/");
  EXPECT_TRUE(remove("/l"));
  EXPECT_THAT(serverCalls(), Contains("deleteItemAtPath /l 0"));
  EXPECT_TRUE(server.exists("/full/x.txt"));
}

TEST_F(Removal, AnOpenFileIsNeitherClosedNorTold) {
  const GMUserData file = open("/a.txt");
  read(file);
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_TRUE(remove("/a.txt"));
  EXPECT_THAT(log.linesWith("OFSRemoteFile close"), IsEmpty());
  EXPECT_EQ(std::dynamic_pointer_cast<OFSRemoteFile>(file)->remotePath(), "/a.txt");
  EXPECT_EQ(read(file), "a");
}

TEST_F(Removal, AFolderWithEntriesIsNotEmptyAndNothingIsDeleted) {
  EXPECT_FALSE(remove("/full"));
  EXPECT_EQ(code(), kENOTEMPTY);
  EXPECT_EQ(server.count("deleteItemAtPath"), 0u);
  EXPECT_NE(fileSystem._nodeForPath("/full"), nullptr);
}

TEST_F(Removal, OfAListedFolderWithEntriesAsksNoServer) {
  list("/full");
  server.clearCalls();
  EXPECT_FALSE(remove("/full"));
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Removal, TheNodeIsVisitedAsItLeaves) {
  list("/empty");
  RecordedLog log;
  {
    const TracingOn tracing;
    EXPECT_TRUE(remove("/empty"));
  }
  EXPECT_THAT(log.linesWith("{ -[OmbraFileSystem _forgetNode:]"),
              ElementsAre(::testing::EndsWith("_forgetNode:] /empty")));
}

TEST_F(Removal, AFolderThatCannotBeListedCountsAsEmpty) {
  server.fail("contentsAtPath", "/empty", refusal(kQuarnKitListingNotPermitted));
  EXPECT_TRUE(remove("/empty"));
  EXPECT_FALSE(server.exists("/empty"));
}

struct Refused {
  std::optional<QuarnKitErrorCode> reason;
  int64_t code;
};

class RefusedRemoval : public Removal, public ::testing::WithParamInterface<Refused> {};

TEST_P(RefusedRemoval, IsToldByItsReasonAndChangesNothing) {
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  const auto date = fileSystem.rootNode()->modificationDate();
  clock.advance(5);
  server.fail("deleteItemAtPath", "/a.txt", GetParam().reason ? refusal(*GetParam().reason) : nullptr);
  EXPECT_FALSE(remove("/a.txt"));
  EXPECT_EQ(code(), GetParam().code);
  EXPECT_EQ(underlyingCode(), GetParam().reason.value_or(static_cast<QuarnKitErrorCode>(0)));
  EXPECT_NE(fileSystem._nodeForPath("/a.txt"), nullptr);
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), date);
  EXPECT_TRUE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

INSTANTIATE_TEST_SUITE_P(Reasons, RefusedRemoval,
                         ::testing::Values(Refused{kQuarnKitNoSuchItem, kENOENT},
                                           Refused{kQuarnKitPermissionDenied, kEACCES},
                                           Refused{kQuarnKitConnectionLost, kEACCES},
                                           Refused{std::nullopt, kEACCES}));

TEST_F(Removal, AnOpenFileGoesOnServingItsHandle) {
  const GMUserData file = open("/a.txt");
  EXPECT_EQ(read(file), "a");
  fileSystem.abandonFile(file);
  EXPECT_TRUE(remove("/a.txt"));
  EXPECT_EQ(read(file), "a");
  EXPECT_EQ(write("/a.txt", file, "b"), 1);
  EXPECT_EQ(read(file), "b");
  fileSystem.releaseFileAtPath("/a.txt", file);
  EXPECT_FALSE(server.exists("/a.txt"));
}

TEST_F(Removal, AFileWhoseRemovalFailedIsSentAgain) {
  const GMUserData file = open("/a.txt");
  fileSystem.abandonFile(file);
  server.fail("deleteItemAtPath", "/a.txt", refusal());
  EXPECT_FALSE(remove("/a.txt"));
  fileSystem.reclaimFile(file);
  EXPECT_EQ(write("/a.txt", file, "b"), 1);
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/a.txt", file, &error));
  EXPECT_EQ(server.content("/a.txt"), "b");
}

TEST_F(Removal, ARemovedFileHasTheAttributesOfItsCopy) {
  const GMUserData file = open("/a.txt");
  read(file);
  fileSystem.abandonFile(file);
  ASSERT_TRUE(remove("/a.txt"));
  write("/a.txt", file, "longer");
  EXPECT_EQ(fileSystem.attributesOfAbandonedFile(file)->fileSize, 6u);
  EXPECT_TRUE(fileSystem.truncateAbandonedFile(file, 2, &error));
  EXPECT_EQ(read(file), "lo");
  EXPECT_FALSE(server.exists("/a.txt"));
  EXPECT_EQ(fileSystem.attributesOfAbandonedFile(nullptr), std::nullopt);
  EXPECT_FALSE(fileSystem.truncateAbandonedFile(nullptr, 2, &error));
}

TEST_F(Removal, ARemovedFileIsNotSentAtTheEnd) {
  const GMUserData file = open("/a.txt");
  remove("/a.txt");
  server.failAlways("uploadFileHandle", kAnyPath, refusal());
  write("/a.txt", file, "b");
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_FALSE(server.exists("/a.txt"));
}

}  // namespace
}  // namespace ombra
