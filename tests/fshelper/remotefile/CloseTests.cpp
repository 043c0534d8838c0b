// Closing: what it waits for, for how long, and what it raises.

#include <future>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

using Closing = RemoteFileTest;
using ClosingUpload = UploadingFileTest;

TEST_F(Closing, ASettledFileReturnsAtOnce) {
  file = downloadedFile("hello");
  const TraceRecorder trace;
  file->close();
  EXPECT_THAT(trace.lines(), ElementsAre("{ -[OFSRemoteFile close] remotePath=/docs/a.bin", "close state=4",
                                         "} -[OFSRemoteFile close] remotePath=/docs/a.bin"));
}

TEST_F(Closing, ANewFileReturnsAtOnce) {
  file = makeFile();
  const TraceRecorder trace;
  file->close();
  EXPECT_THAT(trace.messages(), ElementsAre("close state=0"));
}

TEST_F(Closing, GivesARunningDownloadFiftyFourSeconds) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  const TraceRecorder trace;
  auto closer = inBackground([this] { file->close(); });
  advanceWithin(53.9);
  EXPECT_TRUE(isRunning(closer));
  clock->advance(0.2);
  finish(closer);
  EXPECT_THAT(trace.messages(), ElementsAre("close state=1", "continuing"));
  EXPECT_EQ(file->state(), kOFSDownloading) << "the transfer goes on";
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(read(*file, 10, 0), "0123456789");
}

TEST_F(Closing, ReturnsWhenTheDownloadEnds) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  const TraceRecorder trace;
  auto closer = inBackground([this] { file->close(); });
  waitForWaiters(*file, 1);
  hold->release();
  finish(closer);
  EXPECT_TRUE(trace.messagesWith("continuing").empty());
}

TEST_F(Closing, FollowsTheHardLimit) {
  gHardLimit = 10.0;
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  auto closer = inBackground([this] { file->close(); });
  clock->waitForSleepers(1);
  clock->advance(9.0);
  finish(closer);
  hold->release();
}

// The time stands still: nobody waits for the six seconds of a stream.
TEST_F(Closing, EndsAnIdleStream) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  const TraceRecorder trace;
  file->close();
  EXPECT_EQ(trace.messagesWith("close state=2").size(), 1u);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Closing, WaitsForAStreamThatStillHasDataToSend) {
  server.setStreamCapacity(2);
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "4567", 4), 4);
  auto closer = inBackground([this] { file->close(); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(closer));
  hold->release();
  finish(closer);
  EXPECT_EQ(onServer(), "01234567");
}

TEST_F(ClosingUpload, ThatCoversEverythingWaitsForIt) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  const TraceRecorder trace;
  auto closer = inBackground([this] { file->close(); });
  waitForWaiters(*file, 1);
  hold->release();
  finish(closer);
  EXPECT_EQ(trace.messagesWith("close state=3").size(), 1u);
  EXPECT_EQ(server.count("uploadFileAtPath"), 1u);
}

TEST_F(ClosingUpload, ThatDoesNotCoverEverythingStartsOneMoreOfTheWholeLength) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "ab", 10); });
  waitForWaiters(*file, 1);
  const TraceRecorder trace;
  auto closer = inBackground([this] { file->close(); });
  waitForWaiters(*file, 2);
  hold->release();
  finish(closer);
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(server.count("uploadFileAtPath"), 3u) << "the running one, its second pass, and close's own";
  EXPECT_EQ(onServer(), "0123456789ab");
  EXPECT_EQ(trace.messagesWith("bytesRequired=18446744073709551615=>12").size(), 1u)
      << "length 0 at offset 12";
}

// The mark that cancels an upload is no length that it could cover.
TEST_F(ClosingUpload, ThatIsBeingCancelledWaitsForItAndSendsTheWhole) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "X", 3); });
  waitForWaiters(*file, 1);
  ASSERT_EQ(file->bytesRequired(), OFSRemoteFile::kCancelMark);
  const TraceRecorder trace;
  auto closer = inBackground([this] { file->close(); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(trace.messagesWith("close state=3").size(), 1u);
  EXPECT_EQ(server.count("uploadFileAtPath"), 1u);
  hold->release();
  finish(closer);
  EXPECT_EQ(finish(writer), 1);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "012X456789");
  EXPECT_TRUE(file->isCovered());
}

// What a close raised, or "returned".
std::string closing(OFSRemoteFile& file) {
  try {
    file.close();
    return "returned";
  } catch (const KCException& exception) {
    return exception.reason();
  }
}

TEST_F(ClosingUpload, RaisesWhatTheUploadFailedOf) {
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 5);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "ab", 10), 2) << "half of its offset is confirmed";
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  auto closer = inBackground([this] { return closing(*file); });
  waitForWaiters(*file, 1);
  EXPECT_EQ(clock->sleepers(), 0u) << "for the upload that runs it waits without a limit";
  const auto own = server.hold("uploadFileAtPath");
  hold->releaseFailing(full);
  EXPECT_THAT(finish(closer),
              StartsWith("upload to /docs/a.bin failed: " + full->description() + "\n\nfile:"));
  own->release();
  // The condition was let go on the way out, and the upload that close started goes on.
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "0123456789ab");
}

TEST_F(ClosingUpload, GivesItsOwnUploadFiftyFourSecondsFromItsBeginning) {
  server.setChunkSize(1);
  const auto first = server.hold("uploadFileAtPath", kPath, 8);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(first->waitUntilHeld());
  ASSERT_EQ(write(*file, "ab", 10), 2);
  std::promise<void> go;
  calls.delayNextThread(go.get_future().share());
  const TraceRecorder trace;
  auto closer = inBackground([this] { return closing(*file); });
  waitForWaiters(*file, 1);
  clock->advance(100.0);
  first->releaseFailing(QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  advanceWithin(53.9);
  EXPECT_TRUE(isRunning(closer));
  EXPECT_THAT(trace.messagesWith("continuing"), IsEmpty());
  clock->advance(0.2);
  EXPECT_EQ(finish(closer), "returned");
  EXPECT_EQ(trace.messagesWith("continuing").size(), 1u);
  go.set_value();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "0123456789ab");
}

TEST_F(ClosingUpload, RaisesWhenItsOwnUploadIsTooSlow) {
  server.setChunkSize(1);
  const auto first = server.hold("uploadFileAtPath", kPath, 5);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(first->waitUntilHeld());
  ASSERT_EQ(write(*file, "ab", 10), 2);
  // The third upload is close's own, after the two passes of the one that runs. It is to have begun before
  // close looks at what has been confirmed.
  std::shared_ptr<ScriptedHold> slow;
  std::promise<void> begun;
  auto hasBegun = begun.get_future();
  int uploads = 1;
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "uploadFileAtPath" || ++uploads != 3) return;
    slow = server.hold("uploadFileAtPath", kPath, 1);
    begun.set_value();
  });
  calls.afterNextThread([&] { finish(hasBegun); });
  auto closer = inBackground([this] { return closing(*file); });
  waitForWaiters(*file, 1);
  first->release();
  clock->waitForSleepers(1);
  ASSERT_TRUE(slow->waitUntilHeld());
  clock->advance(30.0);
  eventually([this] { return file->bytesRequired() == OFSRemoteFile::kCancelMark; }, "the cancel mark");
  slow->release();
  EXPECT_THAT(finish(closer), StartsWith("upload to /docs/a.bin terminated: NSPOSIXErrorDomain 27"));
  EXPECT_TRUE(isPosixError(file->lastError(), kEFBIG));
  server.setObserver({});
}

}  // namespace
}  // namespace ombra
