// The end of the volume: what is sent, what is kept aside, and over which connections.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

class Drain : public FileSystemTest {
 protected:
  Drain() {
    gStreamingSupported = true;
    server.setSupportsUploadByteOffset(false);
    mountPoint.path = "/Volumes/Srv";
    std::filesystem::remove_all(recovered);
    connect();
  }
  void refuseUploads() {
    for (const char* operation : {"uploadFileHandle", "uploadFileAtPath", "streamBytesWithFilename"}) {
      server.failAlways(operation, kAnyPath, refusal(kQuarnKitOutOfSpace));
    }
  }
  GMUserData create(const std::string& path) {
    GMUserData file;
    EXPECT_TRUE(fileSystem.createFileAtPath(path, {}, &file, &error));
    return file;
  }
  void release(const std::string& path, const GMUserData& file) {
    try {
      fileSystem.releaseFileAtPath(path, file);
    } catch (const KCException&) {
    }
    server.waitUntilAllReleased();
  }
  // A file whose content the server refuses, still open.
  GMUserData writeRefused(const std::string& path, const std::string& text) {
    const GMUserData file = create(path);
    refuseUploads();
    fileSystem.writeFileAtPath(path, file, text.data(), text.size(), 0, nullptr);
    // What the write has started ends refused, and does not go on when the server accepts uploads again.
    while (std::dynamic_pointer_cast<OFSRemoteFile>(file)->state() != kOFSSettled) std::this_thread::yield();
    server.waitUntilAllReleased();
    return file;
  }
  // The same, and then the server loses the file and a listing shows that.
  void leaveOldBehind() {
    const GMUserData old = writeRefused(kPath, "old");
    server.removeItem(kPath);
    makeStale("/");
    list("/");
    release(kPath, old);
    ASSERT_EQ(fileSystem._nodeForPath(kPath), nullptr);
    server.stopFailing();
  }
  void store(const std::string& path, const std::string& text) {
    const GMUserData file = create(path);
    ASSERT_EQ(write(path, file, text), static_cast<int>(text.size()));
    ASSERT_TRUE(fileSystem.synchronizeFileAtPath(path, file, &error));
    release(path, file);
  }
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }
  static std::vector<std::string> contentsOf(const std::vector<GMUndelivered>& undelivered) {
    std::vector<std::string> contents;
    for (const GMUndelivered& one : undelivered) contents.push_back(contentOf(one.savedAs));
    return contents;
  }

  static constexpr const char* kPath = "/new.txt";
  const std::string recovered = std::string(getenv("XDG_STATE_HOME")) + "/ombrafs/recovered";
  RecordedLog log;
};

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

TEST_F(Drain, SendsOverNewConnectionsAfterTheOldOnesWereGivenUp) {
  ScriptedServer again;
  again.setSupportsUploadByteOffset(false);
  fileSystem.setPoolMaker([&again] { return again.pool(); });
  const GMUserData file = writeRefused(kPath, "precious");
  fileSystem.giveUpConnections();
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_EQ(again.content(kPath), "precious");
  again.waitUntilAllReleased();
  fileSystem.setConnectionPool(server.pool());
}

TEST_F(Drain, SavesAtOnceWhereTheServerCannotBeReachedAfterTheConnectionsWereGivenUp) {
  ScriptedServer again;
  again.failAlways("contentsAtPath", kAnyPath, refusal(kQuarnKitConnectionLost));
  fileSystem.setPoolMaker([&again] { return again.pool(); });
  const GMUserData file = writeRefused(kPath, "precious");
  fileSystem.giveUpConnections();
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("precious"));
  EXPECT_THAT(again.transfers(), IsEmpty());
  EXPECT_THAT(log.linesWith("The server cannot be reached any more"), SizeIs(1));
}

TEST_F(Drain, OpensNoConnectionsAgainWhereNothingIsUnsent) {
  bool isAsked = false;
  fileSystem.setPoolMaker([&isAsked] {
    isAsked = true;
    return nullptr;
  });
  store(kPath, "stored");
  fileSystem.giveUpConnections();
  EXPECT_THAT(fileSystem.drainAll(), IsEmpty());
  EXPECT_FALSE(isAsked);
}

TEST_F(Drain, DoesNotLookForAServerThatWasGivenUpForGood) {
  bool isAsked = false;
  fileSystem.setPoolMaker([&isAsked] {
    isAsked = true;
    return nullptr;
  });
  const GMUserData file = writeRefused(kPath, "precious");
  fileSystem.giveUpServer();
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("precious"));
  EXPECT_FALSE(isAsked);
}

// The look at the server hangs; how it ends is the subject.
class DrainLooking : public Drain {
 protected:
  void beginDraining() {
    fileSystem.setPoolMaker([this] { return again.pool(); });
    file = writeRefused(kPath, "precious");
    fileSystem.giveUpConnections();
    draining = std::async(std::launch::async, [this] { return fileSystem.drainAll(); });
    ASSERT_TRUE(look->waitUntilHeld());
  }
  ScriptedServer again;
  std::shared_ptr<ScriptedHold> look = again.hold("contentsAtPath");
  GMUserData file;
  std::future<std::vector<GMUndelivered>> draining;
};

TEST_F(DrainLooking, EndsWhenTheServerIsGivenUpMeanwhile) {
  beginDraining();
  fileSystem.giveUpServer();
  EXPECT_THAT(contentsOf(draining.get()), UnorderedElementsAre("precious"));
}

TEST_F(DrainLooking, EndsAfterAWhile) {
  beginDraining();
  clock.waitForSleepers(1);
  clock.advance(19);
  EXPECT_NE(draining.wait_for(std::chrono::seconds(0)), std::future_status::ready);
  clock.advance(2);
  EXPECT_THAT(contentsOf(draining.get()), UnorderedElementsAre("precious"));
}

TEST_F(Drain, DownloadsEndWhenTheyAreAskedTo) {
  server.addFile("/big", std::string(1000, 'x'));
  makeStale("/");
  const auto hold = server.hold("downloadFileAtPath", "/big", 500);
  const GMUserData file = open("/big", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  fileSystem.endDownloads();
  fileSystem.waitForContent(file, 1000);
  EXPECT_EQ(fileSystem.contentStateOfFile(file), GMContentState::kFailed);
}

TEST_F(Drain, TheBytesThatMoveAreCounted) {
  server.addFile("/big", std::string(1000, 'x'));
  makeStale("/");
  const uint64_t before = fileSystem.bytesMoved();
  const GMUserData file = open("/big");
  fileSystem.waitForContent(file, 1000);
  const uint64_t downloaded = fileSystem.bytesMoved();
  EXPECT_GT(downloaded, before);
  ASSERT_EQ(write("/big", file, "y", 3), 1);
  ASSERT_TRUE(fileSystem.synchronizeFileAtPath("/big", file, &error));
  const uint64_t uploaded = fileSystem.bytesMoved();
  EXPECT_GT(uploaded, downloaded);
  server.setSupportsUploadByteOffset(true);
  ASSERT_EQ(write("/big", file, "z", 3), 1);
  const uint64_t inPlace = fileSystem.bytesMoved();
  EXPECT_GT(inPlace, uploaded);
  EXPECT_EQ(fileSystem.bytesMoved(), inPlace) << "nothing moves";
}

TEST_F(Drain, EachOfTwoFilesOfOnePathIsSaved) {
  leaveOldBehind();
  const GMUserData file = writeRefused(kPath, "new");
  const auto undelivered = fileSystem.drainAll();
  EXPECT_THAT(contentsOf(undelivered), UnorderedElementsAre("old", "new"));
}

}  // namespace
}  // namespace ombra
