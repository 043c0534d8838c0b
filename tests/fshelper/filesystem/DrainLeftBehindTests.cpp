// The end of the volume: what hangs on no node any more, and what has taken its place.
#include "tests/fshelper/filesystem/DrainFixture.h"

namespace ombra {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

TEST_F(Drain, KeepsWhatWasLeftBehindAsideWhereANewerFileOfThePathIsStored) {
  leaveOldBehind();
  store(kPath, "new");
  const auto undelivered = fileSystem.drainAll();
  EXPECT_EQ(server.content(kPath), "new");
  ASSERT_THAT(undelivered, SizeIs(1));
  EXPECT_EQ(undelivered[0].path, kPath);
  ASSERT_NE(undelivered[0].error, nullptr);
  EXPECT_EQ(undelivered[0].error->code(), kEEXIST);
  EXPECT_EQ(contentOf(undelivered[0].savedAs), "old");
}

TEST_F(Drain, KeepsWhatWasLeftBehindAsideWhereSomebodyElseMadeAFileOfThePath) {
  leaveOldBehind();
  server.addFile(kPath, "another's");
  makeStale("/");
  list("/");
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
  EXPECT_EQ(server.content(kPath), "another's");
}

TEST_F(Drain, DoesNotBringBackWhatWasLeftBehindAfterTheNewerFileHasMoved) {
  leaveOldBehind();
  store(kPath, "new");
  ASSERT_TRUE(fileSystem.moveItemAtPath(kPath, "/moved.txt", &error));
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
  EXPECT_FALSE(server.exists(kPath));
  EXPECT_EQ(server.content("/moved.txt"), "new");
}

TEST_F(Drain, DoesNotBringBackWhatWasLeftBehindAfterThePathWasRemoved) {
  leaveOldBehind();
  store(kPath, "new");
  ASSERT_TRUE(fileSystem.removeItemAtPath(kPath, &error));
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_FALSE(server.exists(kPath));
}

TEST_F(Drain, StillKnowsWhatWasLeftBehindWhenTheRemovalOfItsPathIsRefused) {
  leaveOldBehind();
  store(kPath, "new");
  server.fail("deleteItemAtPath", kPath, refusal());
  ASSERT_FALSE(fileSystem.removeItemAtPath(kPath, &error));
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
}

TEST_F(Drain, AFileThatIsStillOpenIsNotSentOverANewerOneAtItsRelease) {
  const GMUserData old = writeRefused(kPath, "old");
  server.removeItem(kPath);
  makeStale("/");
  list("/");
  server.stopFailing();
  store(kPath, "new");
  EXPECT_THAT(fileSystem.drainAll(), SizeIs(1));
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath(kPath, old, &error));
  release(kPath, old);
  EXPECT_EQ(server.content(kPath), "new");
}

TEST_F(Drain, AFileThatIsStillOpenSendsNothingOnceANewerOneIsThere) {
  const GMUserData old = writeRefused(kPath, "old");
  server.removeItem(kPath);
  makeStale("/");
  list("/");
  server.stopFailing();
  store(kPath, "new");
  EXPECT_EQ(write(kPath, old, "er", 3), 2);
  EXPECT_FALSE(fileSystem.synchronizeFileAtPath(kPath, old, &error));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kEEXIST);
  release(kPath, old);
  EXPECT_EQ(server.content(kPath), "new");
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("older"));
}

TEST_F(Drain, AFileThatIsBeingSentDoesNotGetOverANewerOne) {
  gStreamingSupported = false;
  const GMUserData old = create(kPath);
  const auto hold = server.hold("uploadFileAtPath", kPath);
  ASSERT_EQ(write(kPath, old, "old"), 3);
  ASSERT_TRUE(hold->waitUntilHeld());
  server.removeItem(kPath);
  makeStale("/");
  list("/");
  const GMUserData file = create(kPath);
  EXPECT_EQ(server.heldConnections(), 0u);
  hold->release();
  EXPECT_EQ(server.content(kPath), "");
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
}

TEST_F(Drain, KeepsWhatWasLeftBehindAsideWhereSomebodyElsesFileIsNotListedYet) {
  leaveOldBehind();
  server.addFile(kPath, "another's");
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
  EXPECT_EQ(server.content(kPath), "another's");
}

TEST_F(Drain, KeepsWhatWasLeftBehindAsideWhereNobodyKnowsWhatIsThere) {
  leaveOldBehind();
  server.addFile(kPath, "another's");
  server.failAlways("contentsAtPath", "/", refusal());
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
  EXPECT_EQ(server.content(kPath), "another's");
}

TEST_F(Drain, SendsWhatWasLeftBehindWhereNothingHasTakenItsPlace) {
  leaveOldBehind();
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_EQ(server.content(kPath), "old");
}

TEST_F(Drain, AMoveTakesTheNewerFileAlong) {
  leaveOldBehind();
  store(kPath, "new");
  ASSERT_TRUE(fileSystem.settleBeforeMoveAtPath(kPath, &error));
  ASSERT_TRUE(fileSystem.moveItemAtPath(kPath, "/moved.txt", &error));
  fileSystem.movedItemAtPath(kPath, "/moved.txt");
  EXPECT_EQ(server.content("/moved.txt"), "new");
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
  EXPECT_FALSE(server.exists(kPath));
}

TEST_F(Drain, AMoveIsNotRefusedForWhatWasLeftBehind) {
  leaveOldBehind();
  store(kPath, "new");
  refuseUploads();
  EXPECT_TRUE(fileSystem.settleBeforeMoveAtPath(kPath, &error));
  fileSystem.moveFailedAtPath(kPath);
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
}

// A file that hangs on no node any more, whose upload has arrived, and only the answer to it has not.
class DrainAnswering : public Drain {
 protected:
  DrainAnswering() {
    gStreamingSupported = false;
    other = writeRefused("/other.txt", "other");
    server.stopFailing();
    file = create(kPath);
    answer = server.hold("uploadFileAtPath", kPath, kAtEnd);
    EXPECT_EQ(write(kPath, file, "old"), 3);
    EXPECT_TRUE(answer->waitUntilHeld());
    server.removeItem(kPath);
    makeStale("/");
    list("/");
    server.addFile(kPath, "old");
  }
  // The answer comes once the other file is being sent: then the end of the volume has begun.
  std::vector<GMUndelivered> drainWhileItIsAnswered() {
    const auto begun = server.hold("uploadFileAtPath", "/other.txt");
    const std::jthread answering([this, &begun] {
      begun->waitUntilHeld();
      answer->release();
      begun->release();
    });
    return fileSystem.drainAll();
  }
  GMUserData other, file;
  std::shared_ptr<ScriptedHold> answer;
};

TEST_F(DrainAnswering, IsNotTakenForSomebodyElses) {
  EXPECT_THAT(drainWhileItIsAnswered(), IsEmpty());
  EXPECT_EQ(server.content(kPath), "old");
  EXPECT_EQ(server.content("/other.txt"), "other");
}

TEST_F(DrainAnswering, IsNotTakenForSomebodyElsesWhereAListingHasShownIt) {
  makeStale("/");
  list("/");
  EXPECT_THAT(drainWhileItIsAnswered(), IsEmpty());
  EXPECT_EQ(server.content(kPath), "old");
}

// A file below a folder that somebody else removes, or moves away, while it is unsent.
class DrainBelow : public Drain {
 protected:
  DrainBelow() {
    server.addFolder("/d/e");
    makeStale("/");
    const GMUserData old = writeRefused(kBelow, "old");
    server.removeItem("/d");
    makeStale("/");
    list("/");
    release(kBelow, old);
    server.stopFailing();
    EXPECT_TRUE(fileSystem.createDirectoryAtPath("/d", {}, &error));
    EXPECT_TRUE(fileSystem.createDirectoryAtPath("/d/e", {}, &error));
    store(kBelow, "new");
  }
  static constexpr const char* kBelow = "/d/e/f";
};

TEST_F(DrainBelow, KeepsAsideWhatWentWithItsFolder) {
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("old"));
  EXPECT_EQ(server.content(kBelow), "new");
}

TEST_F(DrainBelow, DoesNotBringBackAfterARemovalWhatWentWithItsFolder) {
  ASSERT_TRUE(fileSystem.removeItemAtPath(kBelow, &error));
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_FALSE(server.exists(kBelow));
}

TEST_F(Drain, EachOfTwoFilesOfOnePathIsSaved) {
  leaveOldBehind();
  const GMUserData file = writeRefused(kPath, "new");
  const auto undelivered = fileSystem.drainAll();
  EXPECT_THAT(contentsOf(undelivered), UnorderedElementsAre("old", "new"));
}

}  // namespace
}  // namespace ombra
