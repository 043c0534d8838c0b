// The end of the volume: over which connections it sends, what it ends, what it counts.
#include <future>

#include "tests/fshelper/filesystem/DrainFixture.h"

namespace ombra {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

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

// At most as many as are tried at the same time find out for themselves.
TEST_F(Drain, SavesAllAtOnceWhenTheServerTurnsOutToBeAway) {
  gStreamingSupported = false;
  std::vector<GMUserData> files;
  for (int number = 0; number < 20; ++number) {
    const std::string path = "/file" + std::to_string(number);
    files.push_back(writeRefused(path, path));
    server.stopFailing();
  }
  for (const char* operation : {"uploadFileHandle", "uploadFileAtPath"}) {
    server.failAlways(operation, kAnyPath, refusal(kQuarnKitCouldNotConnect));
  }
  const size_t before = server.count("uploadFileAtPath");
  const auto undelivered = fileSystem.drainAll();
  EXPECT_LE(server.count("uploadFileAtPath") - before, 4u);
  ASSERT_THAT(undelivered, SizeIs(20));
  for (const GMUndelivered& one : undelivered) {
    EXPECT_EQ(contentOf(one.savedAs), one.path);
    EXPECT_TRUE(QuarnKitError::isCode(one.error->underlyingError(), kQuarnKitCouldNotConnect));
  }
}

TEST_F(Drain, TriesEachFileWhereTheServerOnlyRefusesSome) {
  gStreamingSupported = false;
  const GMUserData first = writeRefused(kPath, "first");
  server.stopFailing();
  const GMUserData second = writeRefused("/second", "second");
  server.stopFailing();
  server.failAlways("uploadFileAtPath", kPath, refusal(kQuarnKitPermissionDenied));
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("first"));
  EXPECT_EQ(server.content("/second"), "second");
}

// Its release comes after that, and would wait for the server once more.
TEST_F(Drain, SendsNothingMoreOfWhatItHasSaved) {
  const GMUserData file = writeRefused(kPath, "precious");
  EXPECT_THAT(contentsOf(fileSystem.drainAll()), UnorderedElementsAre("precious"));
  server.stopFailing();
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath(kPath, file, &error));
  release(kPath, file);
  EXPECT_EQ(server.content(kPath), "");
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
  clock.advanceWithin(19, 1);
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

}  // namespace
}  // namespace ombra
