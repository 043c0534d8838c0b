// Renaming, and moving between folders.
#include <thread>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class Move : public FileSystemTest {
 protected:
  Move() {
    server.addFile("/home/u/a.txt", "a");
    server.addFile("/home/u/b.txt", "b");
    server.addFolder("/home/u/empty");
    server.addFile("/home/u/full/x.txt", "x");
    connectAt("/home/u");
    list("/");
    list("/empty");
    list("/full");
    server.clearCalls();
  }
  bool move(std::string_view from, std::string_view to) {
    return fileSystem.moveItemAtPath(from, to, &error);
  }
  void expectRefused() {
    EXPECT_EQ(code(), kEACCES);
    EXPECT_EQ(underlyingCode(), 0);
    EXPECT_EQ(server.count("moveItemFromPath"), 0u);
  }
};

TEST_F(Move, AMissingSourceOrDestinationIsInvalid) {
  EXPECT_FALSE(fileSystem.moveItemAtPath(std::nullopt, "/c", &error));
  EXPECT_EQ(code(), kEINVAL);
  error = nullptr;
  EXPECT_FALSE(fileSystem.moveItemAtPath("/a.txt", std::nullopt, &error));
  EXPECT_EQ(code(), kEINVAL);
}

TEST_F(Move, AnUnknownSourceOrFolderIsNoSuchItemWithoutAConnection) {
  EXPECT_FALSE(move("/nowhere", "/c"));
  EXPECT_EQ(code(), kENOENT);
  error = nullptr;
  EXPECT_FALSE(move("/a.txt", "/full/nowhere/c"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Move, ARenamedNodeKeepsItsIdentityUnderItsNewName) {
  const auto node = fileSystem.nodeForPath("/a.txt");
  ASSERT_TRUE(move("/a.txt", "/c.txt"));
  EXPECT_THAT(serverCalls(), ElementsAre("moveItemFromPath /home/u/a.txt 0 /home/u/c.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/c.txt"), node);
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
  EXPECT_EQ(node->path(), "/home/u/c.txt");
  EXPECT_EQ(node->displayName(), "c.txt");
}

TEST_F(Move, AFolderIsMovedAsAFolder) {
  ASSERT_TRUE(move("/full", "/renamed"));
  EXPECT_THAT(serverCalls(), ElementsAre("moveItemFromPath /home/u/full 1 /home/u/renamed"));
  EXPECT_NE(fileSystem._nodeForPath("/renamed/x.txt"), nullptr);
}

TEST_F(Move, AnOpenFileLearnsItsNewPath) {
  const GMUserData file = open("/a.txt");
  ASSERT_TRUE(move("/a.txt", "/c.txt"));
  EXPECT_EQ(fileOnNode("/c.txt"), file);
  EXPECT_EQ(fileOnNode("/c.txt")->remotePath(), "/home/u/c.txt");
  EXPECT_EQ(write("/c.txt", file, "new"), 3);
  EXPECT_EQ(server.content("/home/u/c.txt"), "new");
}

TEST_F(Move, BetweenFoldersTheNodeChangesItsParent) {
  const auto node = fileSystem.nodeForPath("/a.txt");
  const GMUserData file = open("/a.txt");
  ASSERT_TRUE(move("/a.txt", "/full/c.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/full/c.txt"), node);
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
  EXPECT_EQ(node->parent(), fileSystem._nodeForPath("/full"));
  EXPECT_EQ(fileOnNode("/full/c.txt")->remotePath(), "/home/u/full/c.txt");
}

TEST_F(Move, FoldersAreTouchedButNeitherListedAgainNorTheVolumeAskedAnew) {
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  clock.advance(7);
  ASSERT_TRUE(move("/a.txt", "/full/c.txt"));
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), clock.now());
  EXPECT_EQ(fileSystem._nodeForPath("/full")->modificationDate(), clock.now());
  EXPECT_FALSE(fileSystem.rootNode()->isExpired());
  EXPECT_FALSE(fileSystem._nodeForPath("/full")->isExpired());
  EXPECT_TRUE(fileSystem.rootNode()->userPropertyForKey(kOFSFileSystemAttributes).has_value());
}

TEST_F(Move, TheNewNameIsWrittenInTheServersEncoding) {
  server.credentials()->setEncoding("ISO-8859-1");
  ASSERT_TRUE(move("/a.txt", "/caf\xC3\xA9"));
  EXPECT_THAT(serverCalls(), ElementsAre("moveItemFromPath /home/u/a.txt 0 /home/u/caf\xE9"));
  EXPECT_NE(fileSystem._nodeForPath("/caf\xC3\xA9"), nullptr);
  ASSERT_TRUE(move("/caf\xC3\xA9", "/full/caf\xC3\xA9"));
  EXPECT_TRUE(server.exists("/home/u/full/caf\xE9"));
  EXPECT_NE(fileSystem._nodeForPath("/full/caf\xC3\xA9"), nullptr);
}

TEST_F(Move, AnExistingFileIsDeletedFirst) {
  const auto node = fileSystem.nodeForPath("/a.txt");
  ASSERT_TRUE(move("/a.txt", "/b.txt"));
  EXPECT_THAT(serverCalls(), ElementsAre("deleteItemAtPath /home/u/b.txt 0",
                                         "moveItemFromPath /home/u/a.txt 0 /home/u/b.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/b.txt"), node);
  EXPECT_EQ(server.content("/home/u/b.txt"), "a");
}

TEST_F(Move, ARefusedMoveLeavesTheOldDestinationDeleted) {
  server.fail("moveItemFromPath", "/home/u/a.txt", refusal(kQuarnKitOutOfSpace));
  EXPECT_FALSE(move("/a.txt", "/b.txt"));
  EXPECT_EQ(code(), kEACCES);
  EXPECT_EQ(underlyingCode(), kQuarnKitOutOfSpace);
  EXPECT_FALSE(server.exists("/home/u/b.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/b.txt"), nullptr);
  EXPECT_NE(fileSystem._nodeForPath("/a.txt"), nullptr);
}

TEST_F(Move, ARefusedMoveLeavesTheTree) {
  const GMUserData file = open("/a.txt");
  clock.advance(3);
  server.fail("moveItemFromPath", "/home/u/a.txt", refusal());
  EXPECT_FALSE(move("/a.txt", "/full/c.txt"));
  EXPECT_EQ(fileOnNode("/a.txt"), file);
  EXPECT_EQ(fileOnNode("/a.txt")->remotePath(), "/home/u/a.txt");
  EXPECT_EQ(fileSystem._nodeForPath("/full/c.txt"), nullptr);
  EXPECT_NE(fileSystem.rootNode()->modificationDate(), clock.now());
  EXPECT_NE(fileSystem._nodeForPath("/full")->modificationDate(), clock.now());
}

TEST_F(Move, TheNodeIsVisitedAsItChangesItsName) {
  for (const char* destination : {"/c.txt", "/full/c.txt"}) {
    const std::string source = fileSystem._nodeForPath("/a.txt") != nullptr ? "/a.txt" : "/c.txt";
    RecordedLog log;
    const TracingOn tracing;
    ASSERT_TRUE(move(source, destination));
    EXPECT_THAT(log.linesWith("{ -[OmbraFileSystem _forgetNode:] /home/u" + source), SizeIs(1));
  }
}

// The source is not asked for again: where somebody else has removed it, the destination is gone by the time
// that the server says so.
TEST_F(Move, ASourceThatHasVanishedCostsTheDestination) {
  server.removeItem("/home/u/a.txt");
  EXPECT_FALSE(move("/a.txt", "/b.txt"));
  EXPECT_EQ(code(), kEACCES);
  EXPECT_EQ(underlyingCode(), kQuarnKitNoSuchItem);
  EXPECT_THAT(serverCalls(), ElementsAre("deleteItemAtPath /home/u/b.txt 0",
                                         "moveItemFromPath /home/u/a.txt 0 /home/u/b.txt"));
  EXPECT_FALSE(server.exists("/home/u/b.txt"));
}

TEST_F(Move, AFolderOntoAFileIsRefusedAndOnlyTheLogSaysWhy) {
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_FALSE(move("/full", "/b.txt"));
  expectRefused();
  EXPECT_THAT(log.linesWith(": NSPOSIXErrorDomain 20 "), SizeIs(1));
  EXPECT_THAT(log.linesWith(": NSPOSIXErrorDomain 13 "), SizeIs(1));
  EXPECT_TRUE(server.exists("/home/u/b.txt"));
}

TEST_F(Move, AnythingOntoAFolderWithEntriesIsRefusedAndOnlyTheLogSaysWhy) {
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_FALSE(move("/a.txt", "/full"));
  expectRefused();
  EXPECT_THAT(log.linesWith(": NSPOSIXErrorDomain 66 "), SizeIs(1));
  EXPECT_THAT(log.linesWith(": NSPOSIXErrorDomain 5 "), IsEmpty());
  EXPECT_FALSE(move("/empty", "/full"));
  expectRefused();
}

TEST_F(Move, ADestinationThatCannotBeDeletedIsRefusedAndOnlyTheLogSaysWhy) {
  server.fail("deleteItemAtPath", "/home/u/b.txt", refusal(kQuarnKitPermissionDenied));
  RecordedLog log;
  const TracingOn tracing;
  EXPECT_FALSE(move("/a.txt", "/b.txt"));
  expectRefused();
  EXPECT_THAT(log.linesWith(": NSPOSIXErrorDomain 5 "),
              ElementsAre(::testing::HasSubstr(" <- NSPOSIXErrorDomain 13 ")));
}

TEST_F(Move, AFolderOntoALinkIsRefusedToo) {
  server.addLink("/home/u/link", "empty");
  makeStale("/");
  EXPECT_FALSE(move("/full", "/link"));
  expectRefused();
  EXPECT_TRUE(server.exists("/home/u/link"));
}

TEST_F(Move, ADestinationThatCannotBeListedCountsAsEmpty) {
  makeStale("/empty");
  server.failAlways("contentsAtPath", "/home/u/empty", refusal(kQuarnKitListingNotPermitted));
  ASSERT_TRUE(move("/a.txt", "/empty"));
  EXPECT_EQ(server.count("deleteItemAtPath"), 1u);
}

TEST_F(Move, AFileOntoAnEmptyFolderReplacesIt) {
  ASSERT_TRUE(move("/a.txt", "/empty"));
  EXPECT_THAT(serverCalls(), ElementsAre("deleteItemAtPath /home/u/empty 1",
                                         "moveItemFromPath /home/u/a.txt 0 /home/u/empty"));
  EXPECT_EQ(fileSystem._nodeForPath("/empty")->type(), kNodeTypeFile);
}

TEST_F(Move, AFolderOntoAnEmptyFolderReplacesIt) {
  ASSERT_TRUE(move("/full", "/empty"));
  EXPECT_NE(fileSystem._nodeForPath("/empty/x.txt"), nullptr);
}

// The framework answers such a rename itself.
TEST_F(Move, AnotherFormOfTheOwnNameIsAnExistingDestination) {
  server.addFile("/home/u/caf\xC3\xA9", "e");
  makeStale("/");
  list("/");
  server.clearCalls();
  move("/caf\xC3\xA9", "/cafe\xCC\x81");
  EXPECT_THAT(serverCalls(), Contains("deleteItemAtPath /home/u/cafe\xCC\x81 0"));
}

TEST_F(Move, ANodeThatIsNotInItsFolderFailsAConditionAndTheMoveSucceeds) {
  const auto node = fileSystem.nodeForPath("/a.txt");
  clock.advance(3);
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "moveItemFromPath") return;
    RecursiveMutexLock lock(fileSystem.rootNode()->objectLock());
    ofs_contentsSet(*fileSystem.rootNode())->remove(*node);
  });
  RecordedLog log;
  EXPECT_TRUE(move("/a.txt", "/c.txt"));
  EXPECT_THAT(log.lines(), Contains("CONDITION FAILED: no node to be moved"));
  EXPECT_EQ(node->path(), "/home/u/a.txt");
  EXPECT_EQ(fileSystem._nodeForPath("/c.txt"), nullptr);
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), clock.now());
}

TEST_F(Move, ANodeThatIsNotInItsFolderIsNotPutIntoAnotherOne) {
  const auto node = fileSystem.nodeForPath("/a.txt");
  clock.advance(3);
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "moveItemFromPath") return;
    RecursiveMutexLock lock(fileSystem.rootNode()->objectLock());
    ofs_contentsSet(*fileSystem.rootNode())->remove(*node);
  });
  RecordedLog log;
  EXPECT_TRUE(move("/a.txt", "/full/c.txt"));
  EXPECT_THAT(log.lines(), Contains("CONDITION FAILED: no node to be moved"));
  EXPECT_EQ(fileSystem._nodeForPath("/full/c.txt"), nullptr);
  EXPECT_EQ(node->parent(), fileSystem.rootNode());
  EXPECT_EQ(fileSystem.rootNode()->modificationDate(), clock.now());
  EXPECT_EQ(fileSystem._nodeForPath("/full")->modificationDate(), clock.now());
}

// What a listing of another thread may put under the new name while the server is asked to move.
class StaleEntry : public Move {
 protected:
  void appearInFolder(const std::string& folder, const std::string& name) {
    stale = std::make_shared<KCRemoteFileNode>("/elsewhere/" + name, nullptr);
    server.setObserver([this, folder](const ScriptedCall& call) {
      if (call.name != "moveItemFromPath") return;
      const auto node = fileSystem._nodeForPath(folder);
      RecursiveMutexLock lock(node->objectLock());
      ofs_contentsSet(*node)->add(stale);
    });
  }
  std::shared_ptr<KCRemoteFileNode> stale;
};

TEST_F(StaleEntry, IsTakenOutByAMoveBetweenFolders) {
  const auto node = fileSystem.nodeForPath("/a.txt");
  appearInFolder("/full", "c.txt");
  ASSERT_TRUE(move("/a.txt", "/full/c.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/full/c.txt"), node);
}

TEST_F(StaleEntry, StaysInARenameWithinOneFolder) {
  appearInFolder("/", "c.txt");
  ASSERT_TRUE(move("/a.txt", "/c.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/c.txt"), stale);
}

// What hangs below a moved folder.
class MovedFolder : public Move {
 protected:
  MovedFolder() {
    server.addFile("/home/u/full/deep/y.txt", "y");
    server.addFile("/srv/out.txt", "out");
    server.addLink("/home/u/full/out", "/srv/out.txt");
    makeStale("/full");
    list("/full");
    list("/full/deep");
  }
  void moveFolder() {
    ASSERT_TRUE(fileSystem.settleBeforeMoveAtPath("/full", &error));
    ASSERT_TRUE(move("/full", "/empty/moved"));
    fileSystem.movedItemAtPath("/full", "/empty/moved");
  }
};

TEST_F(MovedFolder, OpenFilesBelowLearnTheirNewPaths) {
  const GMUserData x = open("/full/x.txt");
  const GMUserData y = open("/full/deep/y.txt");
  const GMUserData other = open("/b.txt");
  moveFolder();
  EXPECT_EQ(std::dynamic_pointer_cast<OFSRemoteFile>(x)->remotePath(), "/home/u/empty/moved/x.txt");
  EXPECT_EQ(std::dynamic_pointer_cast<OFSRemoteFile>(y)->remotePath(), "/home/u/empty/moved/deep/y.txt");
  EXPECT_EQ(std::dynamic_pointer_cast<OFSRemoteFile>(other)->remotePath(), "/home/u/b.txt");
  EXPECT_EQ(write("/empty/moved/deep/y.txt", y, "new"), 3);
  EXPECT_EQ(server.content("/home/u/empty/moved/deep/y.txt"), "new");
}

TEST_F(MovedFolder, WritesBelowWaitAndGoToTheNewPath) {
  const GMUserData x = open("/full/x.txt");
  read(x);
  ASSERT_TRUE(fileSystem.settleBeforeMoveAtPath("/full", &error));
  std::thread writer([&] { EXPECT_EQ(write("/full/x.txt", x, "longer"), 6); });
  while (std::dynamic_pointer_cast<OFSRemoteFile>(x)->waiterCount() == 0) std::this_thread::yield();
  ASSERT_TRUE(move("/full", "/empty/moved"));
  EXPECT_FALSE(server.exists("/home/u/full/x.txt"));
  fileSystem.movedItemAtPath("/full", "/empty/moved");
  writer.join();
  EXPECT_EQ(server.content("/home/u/empty/moved/x.txt"), "longer");
  EXPECT_FALSE(server.exists("/home/u/full/x.txt"));
  EXPECT_EQ(fileSystem._nodeForPath("/empty/moved/x.txt")->size(), 6u);
}

TEST_F(MovedFolder, WritesBelowGoOnWhenTheMoveFails) {
  const GMUserData x = open("/full/x.txt");
  read(x);
  ASSERT_TRUE(fileSystem.settleBeforeMoveAtPath("/full", &error));
  std::thread writer([&] { EXPECT_EQ(write("/full/x.txt", x, "longer"), 6); });
  while (std::dynamic_pointer_cast<OFSRemoteFile>(x)->waiterCount() == 0) std::this_thread::yield();
  fileSystem.moveFailedAtPath("/full");
  writer.join();
  EXPECT_EQ(server.content("/home/u/full/x.txt"), "longer");
}

TEST_F(MovedFolder, TruncationsBelowWaitAsWell) {
  const GMUserData x = open("/full/x.txt");
  read(x);
  const auto file = std::dynamic_pointer_cast<OFSRemoteFile>(x);
  ASSERT_TRUE(fileSystem.settleBeforeMoveAtPath("/full", &error));
  std::thread writer([&] { EXPECT_TRUE(file->_truncateToOffset(0, nullptr)); });
  while (file->waiterCount() == 0) std::this_thread::yield();
  ASSERT_TRUE(move("/full", "/empty/moved"));
  fileSystem.movedItemAtPath("/full", "/empty/moved");
  writer.join();
  EXPECT_EQ(server.content("/home/u/empty/moved/x.txt"), "");
}

TEST_F(MovedFolder, NodesBelowLearnTheirNewPathsAndKeepTheirNames) {
  const auto node = fileSystem.nodeForPath("/full/deep/y.txt");
  moveFolder();
  EXPECT_EQ(fileSystem._nodeForPath("/empty/moved/deep/y.txt"), node);
  EXPECT_EQ(node->path(), "/home/u/empty/moved/deep/y.txt");
}

TEST_F(MovedFolder, WhatALinkLedToOutsideKeepsItsPath) {
  moveFolder();
  const auto node = fileSystem._nodeForPath("/empty/moved/out");
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->path(), "/srv/out.txt");
  EXPECT_EQ(node->displayName(), "out");
}

TEST_F(MovedFolder, AFolderWhoseNameBeginsAlikeStaysWhereItIs) {
  server.addFile("/home/u/full2/z.txt", "z");
  makeStale("/");
  const GMUserData z = open("/full2/z.txt");
  moveFolder();
  EXPECT_EQ(std::dynamic_pointer_cast<OFSRemoteFile>(z)->remotePath(), "/home/u/full2/z.txt");
}

TEST_F(MovedFolder, WhatIsUnsentBelowIsSentBefore) {
  server.setSupportsUploadByteOffset(false);
  const GMUserData x = open("/full/x.txt");
  read(x);
  ASSERT_EQ(write("/full/x.txt", x, "longer"), 6);
  moveFolder();
  EXPECT_EQ(server.content("/home/u/empty/moved/x.txt"), "longer");
}

TEST_F(MovedFolder, WhatCannotBeSentIsToldBefore) {
  server.setSupportsUploadByteOffset(false);
  const GMUserData x = open("/full/x.txt");
  read(x);
  for (const char* operation : {"uploadFileHandle", "uploadFileAtPath", "streamBytesWithFilename"}) {
    server.failAlways(operation, kAnyPath, refusal(kQuarnKitOutOfSpace));
  }
  write("/full/x.txt", x, "longer");
  EXPECT_FALSE(fileSystem.settleBeforeMoveAtPath("/full", &error));
  EXPECT_EQ(code(), kEIO);
  EXPECT_TRUE(fileSystem.settleBeforeMoveAtPath("/b.txt", &error));
  server.stopFailing();
  EXPECT_TRUE(fileSystem.settleBeforeMoveAtPath("/full/x.txt", &error));
}

}  // namespace
}  // namespace ombra
