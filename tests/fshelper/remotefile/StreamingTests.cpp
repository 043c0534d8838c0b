// Sequential writes to a server that cannot write at an offset.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <future>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class Streaming : public RemoteFileTest {
 protected:
  std::vector<ScriptedTransfer> streams() const { return server.transfers("streamBytesWithFilename"); }
  // Moves the time past the idle limit of the pull callback that waits.
  void letTheStreamIdleOut() {
    clock->waitForSleepers(1);
    clock->advance(6.0);
    waitForState(*file, kOFSSettled);
    EXPECT_TRUE(server.waitUntilAllReleased());
  }
};

TEST_F(Streaming, OfANewFileFrontToBackIsOneStream) {
  file = createdFile();
  EXPECT_EQ(write(*file, "hello", 0), 5);
  EXPECT_EQ(file->state(), kOFSStreaming);
  EXPECT_EQ(write(*file, " wor", 5), 4);
  EXPECT_EQ(write(*file, "ld", 9), 2);
  eventually([this] { return file->bytesAvailable() == 11; }, "the stream taking all bytes");
  letTheStreamIdleOut();
  ASSERT_EQ(streams().size(), 1u);
  EXPECT_EQ(streams()[0].bytes, "hello world");
  EXPECT_EQ(streams()[0].name, "/docs/a.bin");
  EXPECT_EQ(onServer(), "hello world");
  EXPECT_EQ(file->bytesRequired(), 0u);
  EXPECT_EQ(file->streamWork(), std::nullopt);
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Streaming, TellsTheEndOfTheDataWrittenSoFar) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 3);
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(file->bytesRequired(), 5u);
  EXPECT_EQ(file->bytesAvailable(), 3u);
  hold->release();
  EXPECT_EQ(finish(writer), 5);
}

TEST_F(Streaming, ReturnsFromTheFirstWriteWhenTheStreamHasTakenItAll) {
  const auto hold = server.hold("streamBytesWithFilename");
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(writer));
  EXPECT_THAT(*file->streamWork(), ElementsAre(5u));
  hold->release();
  EXPECT_EQ(finish(writer), 5);
  EXPECT_EQ(file->bytesAvailable(), 5u);
}

TEST_F(Streaming, LeavesAtMostTwoBuffersQueuedWhenALaterWriteReturns) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(write(*file, "4567", 4), 4);
  EXPECT_EQ(write(*file, "89ab", 8), 4);
  EXPECT_THAT(*file->streamWork(), ElementsAre(4u, 4u));
  auto writer = inBackground([this] { return write(*file, "cdef", 12); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(writer)) << "two buffers are queued already";
  hold->release();
  EXPECT_EQ(finish(writer), 4);
  file->close();
  EXPECT_EQ(onServer(), "0123456789abcdef");
}

TEST_F(Streaming, KeepsACopyOfWhatIsQueued) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  std::string buffer = "4567";
  ASSERT_EQ(write(*file, buffer, 4), 4);
  buffer.replace(0, 4, "next");  // as a program does that has been told that it is written
  hold->release();
  file->close();
  EXPECT_EQ(onServer(), "01234567");
}

TEST_F(Streaming, TakesOneConnectionWithTheFileAsDelegate) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  file->close();
  ASSERT_TRUE(server.waitUntilAllReleased());
  const auto sent = server.calls("streamBytesWithFilename");
  ASSERT_EQ(sent.size(), 1u);
  std::vector<std::string> ofTheWorker;
  for (const ScriptedCall& call : server.calls()) {
    if (call.connection == sent[0].connection) ofTheWorker.push_back(call.text());
  }
  EXPECT_THAT(ofTheWorker,
              ElementsAre("setDelegate delegate", "streamBytesWithFilename /docs/a.bin /docs/a.bin",
                          "setDelegate none"));
  EXPECT_EQ(server.count("acquireConnection"), 2u) << "the writer's and the worker's";
}

TEST_F(Streaming, NamesTheFileInItsDisplayForm) {
  server.credentials()->setEncoding("ISO-8859-1");
  server.addFolder("/docs");
  const std::string path = "/docs/caf\xe9.bin";
  file = makeFile(path);
  ASSERT_TRUE(file->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  ASSERT_EQ(write(*file, "hello", 0), 5);
  file->close();
  ASSERT_EQ(streams().size(), 1u);
  EXPECT_EQ(streams()[0].name, "/docs/caf\xc3\xa9.bin");
  EXPECT_EQ(onServer(path), "hello");
}

TEST_F(Streaming, CutsABufferToTheCapacityOfTheLibrary) {
  server.setStreamCapacity(4);
  file = createdFile();
  EXPECT_EQ(write(*file, "0123456789", 0), 10);
  file->close();
  EXPECT_THAT(streams()[0].pieces, ElementsAre(4u, 4u, 2u, 0u));
  EXPECT_EQ(onServer(), "0123456789");
}

TEST_F(Streaming, OfAnAppendToADownloadedFileStartsWithTheWholeContent) {
  file = downloadedFile("existing");
  const TraceRecorder trace;
  EXPECT_EQ(write(*file, " more", 8), 5);
  EXPECT_THAT(trace.messagesHere(),
              ElementsAre("added work up to 8", "sync to 1 remaining", "now has 1 remaining",
                          "sync to 0 remaining", "now has 0 remaining"));
  file->close();
  EXPECT_EQ(onServer(), "existing more");
  EXPECT_EQ(streams().size(), 1u);
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Streaming, CountsTheHeadAsOneOfTheTwoBuffers) {
  const auto hold = server.hold("streamBytesWithFilename");
  file = downloadedFile("existing");
  auto writer = inBackground([this] { return write(*file, " more", 8); });
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_THAT(*file->streamWork(), ElementsAre(8u, 5u));
  hold->release();
  EXPECT_EQ(finish(writer), 5);
}

TEST_F(Streaming, OfAWriteAtZeroIntoADownloadedFileCancelsAndStartsWithoutAHead) {
  file = downloadedFile("existing");
  const TraceRecorder trace;
  EXPECT_EQ(write(*file, "EXI", 0), 3);
  EXPECT_THAT(trace.messagesHere(),
              ElementsAre("canceling: offset=0, bytesAvailable=8", "sync to 1 remaining",
                          "now has 0 remaining", "sync to 0 remaining", "now has 0 remaining"));
  eventually([&] { return streams().size() == 1 && streams()[0].bytes == "EXI"; },
             "the stream taking the bytes");
  EXPECT_EQ(file->state(), kOFSStreaming)
      << "the mark met no worker: it must not cancel the stream that came after";
  EXPECT_EQ(file->bytesRequired(), 3u);
  letTheStreamIdleOut();
  EXPECT_EQ(onServer(), "EXI") << "a stream replaces the file";
  EXPECT_FALSE(file->isCovered());
}

TEST_F(Streaming, OfAWriteElsewhereCancelsTheRunningStreamAndSendsTheHeadAgain) {
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  const TraceRecorder trace;
  EXPECT_EQ(write(*file, "XY", 4), 2);
  EXPECT_THAT(
      trace.messagesHere(),
      ElementsAre("canceling: offset=4, bytesAvailable=10", "added work up to 4", "sync to 1 remaining",
                  "now has 1 remaining", "sync to 0 remaining", "now has 0 remaining"));
  EXPECT_EQ(trace.messagesWith("canceling upload").size(), 1u);
  ASSERT_EQ(streams().size(), 2u);
  EXPECT_TRUE(QuarnKitError::isCode(streams()[0].error, kQuarnKitCancelled));
  eventually([this] { return streams()[1].bytes == "0123XY"; }, "the new stream taking head and bytes");
  EXPECT_EQ(file->lastError(), nullptr);
  EXPECT_THAT(trace.messagesWith("error="), IsEmpty()) << "a cancelled stream has not failed";
}

TEST_F(Streaming, EndsAfterSixSecondsWithoutData) {
  file = createdFile();
  const TraceRecorder trace;
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  clock->advance(5.9);
  const std::string waiting = "waiting until 2001-09-09 01:46:46 +0000";
  eventually([&] { return trace.messagesWith("waiting until").size() == 2; }, "the stream looking again");
  EXPECT_THAT(trace.messagesWith("waiting until"), ElementsAre(waiting, waiting)) << "one limit for a call";
  EXPECT_EQ(file->state(), kOFSStreaming) << "a pausing program keeps its stream";
  EXPECT_EQ(write(*file, " world", 5), 6);
  eventually([this] { return file->bytesAvailable() == 11; }, "the stream taking the later bytes");
  EXPECT_EQ(streams().size(), 1u);
  letTheStreamIdleOut();
  EXPECT_EQ(onServer(), "hello world");
}

TEST_F(Streaming, AfterAPauseOfMoreThanSixSecondsSendsTheFileFromTheStart) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  letTheStreamIdleOut();
  EXPECT_EQ(onServer(), "hello");
  EXPECT_EQ(write(*file, " world", 5), 6);
  file->close();
  ASSERT_EQ(streams().size(), 2u);
  EXPECT_EQ(streams()[1].bytes, "hello world");
  EXPECT_EQ(onServer(), "hello world");
}

TEST_F(Streaming, IdleLimitFollowsTheHardLimit) {
  gHardLimit = 10.0;
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  advanceWithin(0.9);
  clock->advance(0.1);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Streaming, LimitOfAWriterFollowsTheHardLimit) {
  gHardLimit = 10.0;
  const auto hold = server.hold("streamBytesWithFilename");
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  clock->waitForSleepers(1);
  clock->advance(2.0);
  EXPECT_EQ(finish(writer), 5);
  hold->release();
}

TEST_F(Streaming, ThatFailsBeforeItTookTheFirstWriteFallsBackForTheWholeProcess) {
  const NSErrorRef refused = QuarnKitError::errorWithCode(kQuarnKitNotSupported);
  server.fail("streamBytesWithFilename", kPath, refused);
  file = createdFile();
  const TraceRecorder trace;
  EXPECT_EQ(write(*file, "hello", 0), 5);
  EXPECT_FALSE(gStreamingSupported);
  EXPECT_EQ(trace.messagesWith("stream fallback").size(), 1u);
  ASSERT_TRUE(server.waitForTransfers("uploadFileAtPath", 1));
  file->close();
  EXPECT_EQ(onServer(), "hello");

  const auto other = makeFile("/docs/b.bin");
  ASSERT_TRUE(other->openWithMode(kO_CREAT, nullptr));
  EXPECT_EQ(write(*other, "more", 0), 4);
  other->close();
  EXPECT_EQ(streams().size(), 1u) << "no later write in the process streams";
  EXPECT_EQ(onServer("/docs/b.bin"), "more");
}

TEST_F(Streaming, FallbackOfAnAppendIsNotMistakenForAFailedUpload) {
  server.fail("streamBytesWithFilename", kPath, QuarnKitError::errorWithCode(kQuarnKitNotSupported));
  file = downloadedFile("existing");
  NSErrorRef error;
  EXPECT_EQ(write(*file, " more", 8, &error), 5) << (error ? error->description() : "");
  ASSERT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "existing more");
}

TEST_F(Streaming, ThatFailsWithoutAnErrorFallsBackToo) {
  server.fail("streamBytesWithFilename", kPath, nullptr);
  file = createdFile();
  EXPECT_EQ(write(*file, "hello", 0), 5);
  EXPECT_FALSE(gStreamingSupported);
}

TEST_F(Streaming, IsNotGivenUpForAStaleErrorOfAnEarlierStream) {
  server.failAfter("streamBytesWithFilename", kPath, 5,
                   QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  ASSERT_NE(file->lastError(), nullptr);
  std::promise<void> go;
  calls.delayNextThread(go.get_future().share());
  auto writer = inBackground([this] { return write(*file, "!", 5); });
  clock->waitForSleepers(1);
  EXPECT_EQ(file->lastError(), nullptr) << "the new worker has not run yet, but this error is not its own";
  // Wakes the writer, which looks at the error.
  auto closer = inBackground([this] { file->close(); });
  clock->waitForSleepers(2);
  go.set_value();
  EXPECT_EQ(finish(writer), 1);
  finish(closer);
  EXPECT_TRUE(gStreamingSupported);
  EXPECT_EQ(onServer(), "hello!");
}

TEST_F(Streaming, ThatIsTooSlowForItsFirstWriteGoesOnWithoutAFallback) {
  const auto hold = server.hold("streamBytesWithFilename");
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  clock->waitForSleepers(1);
  clock->advance(12.0);
  EXPECT_EQ(finish(writer), 5);
  EXPECT_TRUE(gStreamingSupported);
  EXPECT_EQ(file->state(), kOFSStreaming);
  hold->release();
  file->close();
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Streaming, ThatIsTooSlowForALaterWriteFailsItAfterTwelveSeconds) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "4567", 4), 4);
  ASSERT_EQ(write(*file, "89ab", 8), 4);
  const TraceRecorder trace;
  NSErrorRef error;
  auto writer = inBackground([&] { return write(*file, "cdef", 12, &error); });
  advanceWithin(11.9);
  EXPECT_TRUE(isRunning(writer));
  clock->advance(0.2);
  EXPECT_EQ(finish(writer), -1);
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), nullptr);
  EXPECT_EQ(trace.messagesWith("streaming to /docs/a.bin failed: (null)\n\nfile:").size(), 1u);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 0u);
  EXPECT_EQ(file->bytesRequired(), 0u);
  EXPECT_EQ(file->streamWork(), std::nullopt);
  hold->release();
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123456789abcdef") << "the bytes of the failed write are in the cache file";
}

TEST_F(Streaming, ThatFailsWhileALaterWriteWaitsFailsItWithTheReasonBeneath) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "4567", 4), 4);
  ASSERT_EQ(write(*file, "89ab", 8), 4);
  const TraceRecorder trace;
  NSErrorRef error;
  auto writer = inBackground([&] { return write(*file, "cdef", 12, &error); });
  waitForWaiters(*file, 1);
  const NSErrorRef lost = QuarnKitError::errorWithCode(kQuarnKitConnectionLost);
  hold->releaseFailing(lost);
  EXPECT_EQ(finish(writer), -1);
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), lost);
  EXPECT_EQ(
      trace.messagesWith("streaming to /docs/a.bin failed: " + lost->description() + "\n\nfile:").size(), 1u);
  EXPECT_EQ(trace.messagesWith("error=").size(), 1u);
  EXPECT_TRUE(gStreamingSupported) << "only a stream that could not be started switches streaming off";
}

TEST_F(Streaming, ThatFailedBetweenTwoWritesIsStartedAgain) {
  server.failAfter("streamBytesWithFilename", kPath, 5,
                   QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_TRUE(QuarnKitError::isCode(file->lastError(), kQuarnKitConnectionLost));
  EXPECT_EQ(write(*file, " world", 5), 6);
  file->close();
  EXPECT_EQ(onServer(), "hello world");
}

TEST_F(Streaming, TracesEveryStep) {
  file = createdFile();
  const TraceRecorder trace;
  ASSERT_EQ(write(*file, "hello", 0), 5);
  letTheStreamIdleOut();
  EXPECT_EQ(trace.lines().front(), "{ -[OFSRemoteFile _writeFromBuffer:size:offset:error:] size=5, offset=0");
  EXPECT_THAT(trace.messagesHere(), ElementsAre("sync to 1 remaining", "now has 0 remaining",
                                                "sync to 0 remaining", "now has 0 remaining"));
  EXPECT_THAT(trace.messagesElsewhere(),
              ElementsAre("began streaming /docs/a.bin", "streaming from 0", "streamed up to 5 5",
                          "streaming from 5", "waiting until 2001-09-09 01:46:46 +0000", "streamed up to 5 5",
                          "finished streaming /docs/a.bin: bytesAvailable=5, bytesRequired=5"));
  EXPECT_EQ(server.calls("streamBytesWithFilename")[0].threadName, "streaming /docs/a.bin");
  EXPECT_EQ(server.calls("streamBytesWithFilename")[0].text(),
            "streamBytesWithFilename /docs/a.bin /docs/a.bin");
}

TEST_F(Streaming, IntoTheTailOfAStreamThatIsJustEndingStartsAnew) {
  const auto end = server.hold("streamBytesWithFilename", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  clock->advance(6.0);
  ASSERT_TRUE(end->waitUntilHeld());
  ASSERT_EQ(file->state(), kOFSStreaming) << "the library has got the end and has not answered yet";
  auto writer = inBackground([this] { return write(*file, " world", 5); });
  waitForWaiters(*file, 1);
  end->release();
  EXPECT_EQ(finish(writer), 6);
  file->close();
  EXPECT_EQ(onServer(), "hello world");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Streaming, OfAHugeHeadGoesInPiecesOutOfTheCacheFile) {
  const std::string content(3 * 1024 * 1024 + 17, 'h');
  file = downloadedFile(content);
  server.setStreamCapacity(65536);
  const auto hold = server.hold("streamBytesWithFilename");
  auto writer = inBackground([&] { return write(*file, "tail", static_cast<int64_t>(content.size())); });
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_THAT(*file->streamWork(), ElementsAre(content.size(), 4u));
  hold->release();
  EXPECT_EQ(finish(writer), 4);
  file->close();
  EXPECT_EQ(onServer(), content + "tail");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Streaming, WhoseHeadCannotBeReadFailsInsteadOfSendingADamagedFile) {
  file = downloadedFile("existing");
  const auto hold = server.hold("streamBytesWithFilename");
  auto writer = inBackground([&] { return write(*file, " more", 8); });
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(::ftruncate(file->fileHandle()->fileDescriptor(), 2), 0);  // behind the object's back
  hold->release();
  EXPECT_EQ(finish(writer), 5) << "by the fallback";
  EXPECT_FALSE(gStreamingSupported);
  EXPECT_EQ(streams()[0].bytes, "");
}

TEST_F(Streaming, OfTwoWritersOneAfterTheOtherLosesNothing) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "4567", 4), 4);
  ASSERT_EQ(write(*file, "89ab", 8), 4);
  auto first = inBackground([this] { return write(*file, "cdef", 12); });
  waitForWaiters(*file, 1);
  auto second = inBackground([this] { return write(*file, "ghij", 16); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(file->bytesRequired(), OFSRemoteFile::kCancelMark)
      << "the second does not continue what is queued";
  hold->release();
  EXPECT_EQ(finish(first), 4);
  EXPECT_EQ(finish(second), 4);
  EXPECT_EQ(streams()[0].bytes, "0123456789ab") << "what is queued goes out before the mark counts";
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123456789abcdefghij");
}

TEST_F(Streaming, ThatDiesWhileOneWriterWaitsAndAnotherCancelsLosesNothing) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "4567", 4), 4);
  ASSERT_EQ(write(*file, "89ab", 8), 4);
  auto first = inBackground([this] { return write(*file, "cdef", 12); });
  waitForWaiters(*file, 1);
  auto second = inBackground([this] { return write(*file, "XY", 1); });
  waitForWaiters(*file, 2);
  // Cancelled, so without an error, but before the queue was empty: the queue is gone when the first writer
  // looks.
  hold->releaseFailing(QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  EXPECT_EQ(finish(first), 4);
  EXPECT_EQ(finish(second), 2);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0XY3456789abcdef");
  // Whoever came first: the first writer began again with the whole head before its bytes.
  const auto sent = streams();
  EXPECT_TRUE(
      std::any_of(sent.begin(), sent.end(), [](const auto& one) { return one.bytes == "0XY3456789abcdef"; }));
}

TEST_F(Streaming, OfNothingSendsNothing) {
  file = downloadedFile("existing");
  EXPECT_EQ(write(*file, "", 0), 0);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_THAT(streams(), IsEmpty());
  EXPECT_EQ(onServer(), "existing");
}

TEST_F(Streaming, OfAnInterruptedWriteSendsNothingAndTellsNoError) {
  file = downloadedFile("existing");
  calls.fail(Call::kPwrite, EINTR);
  NSErrorRef error;
  EXPECT_EQ(write(*file, "x", 0, &error), -1);
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(streams(), IsEmpty());
}

TEST_F(Streaming, ReportsDuringAStreamMeasureTheCacheFile) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  const auto pool = server.pool();
  const auto other = pool->acquireConnection();
  ConnectionDelegate& delegate = *file;
  ASSERT_EQ(::ftruncate(file->fileHandle()->fileDescriptor(), 9), 0);
  delegate.connection(*other, 1, 0.0, false);
  EXPECT_EQ(file->bytesAvailable(), 9u);
  EXPECT_EQ(file->bytesRequired(), 0u) << "satisfied by the report";
  pool->releaseConnection(other);
}

TEST_F(Streaming, IsStoppedByAReportThatMeetsTheCancelMark) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 10);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto elsewhere = inBackground([this] { return write(*file, "XY", 4); });
  waitForWaiters(*file, 1);
  ASSERT_EQ(server.count("setShouldCancel"), 0u);
  const TraceRecorder trace;
  server.reportProgress(kPath);
  EXPECT_EQ(finish(elsewhere), 2);
  EXPECT_EQ(trace.messagesWith("should cancel").size(), 1u);
  const auto stops = server.calls("setShouldCancel");
  ASSERT_EQ(stops.size(), 1u);
  EXPECT_EQ(stops[0].arguments[0], "1");
  EXPECT_EQ(stops[0].connection, server.calls("streamBytesWithFilename")[0].connection);
}

TEST_F(Streaming, ThatCannotGetAThreadFailsTheWriteAndSettles) {
  file = createdFile();
  calls.fail(Call::kThread, EAGAIN);
  NSErrorRef error;
  EXPECT_EQ(write(*file, "hello", 0, &error), -1);
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_TRUE(isPosixError(error->underlyingError(), EAGAIN));
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_TRUE(gStreamingSupported);
  EXPECT_EQ(write(*file, "hello", 0), 5);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Streaming, GivenUpNeitherTakesTheNextQueueNorSettlesTheNextState) {
  const auto old = server.hold("streamBytesWithFilename", kPath, 4);
  server.setStreamCapacity(4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  ASSERT_TRUE(old->waitUntilHeld());
  calls.fail(Call::kPwrite, EIO);
  EXPECT_EQ(write(*file, "x", 4), -1) << "its failure gives the stream up";
  EXPECT_EQ(file->state(), kOFSSettled);
  old->release();
  EXPECT_EQ(write(*file, "4567", 4), 4);
  file->close();
  ASSERT_EQ(streams().size(), 2u);
  EXPECT_TRUE(QuarnKitError::isCode(streams()[0].error, kQuarnKitCancelled));
  EXPECT_EQ(streams()[0].bytes, "0123");
  EXPECT_EQ(streams()[1].bytes, "01234567");
  EXPECT_EQ(onServer(), "01234567");
}

TEST_F(Streaming, StartsItsNextWorkerOnlyWhenTheOneGivenUpHasEnded) {
  file = createdFile();
  // The first worker hangs before it has a connection, where nobody can tell it to stop.
  std::promise<void> hanging;
  std::promise<void> goOn;
  auto hangs = hanging.get_future();
  auto goes = goOn.get_future();
  std::atomic<int> workers{0};
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "acquireConnection" || call.threadName != "streaming /docs/a.bin" || workers++ != 0)
      return;
    hanging.set_value();
    goes.wait();
  });
  auto first = inBackground([this] { return write(*file, "0123", 0); });
  finish(hangs);
  clock->waitForSleepers(1);
  clock->advance(12.0);
  EXPECT_EQ(finish(first), 4);
  calls.fail(Call::kPwrite, EIO);
  EXPECT_EQ(write(*file, "x", 4), -1) << "its failure gives the worker up";
  std::promise<void> starting;
  auto started = starting.get_future();
  calls.afterNextThread([&] { starting.set_value(); });
  auto second = inBackground([this] { return write(*file, "4567", 4); });
  finish(started);
  waitForWaiters(*file, 2);  // the writer, and the worker that waits for its predecessor
  EXPECT_TRUE(isRunning(second));
  EXPECT_EQ(server.count("streamBytesWithFilename"), 0u) << "it waits for its predecessor";
  goOn.set_value();
  EXPECT_EQ(finish(second), 4);
  file->close();
  server.setObserver({});
  ASSERT_EQ(streams().size(), 1u) << "the first one has found itself given up";
  EXPECT_EQ(onServer(), "01234567");
}

}  // namespace
}  // namespace ombra
