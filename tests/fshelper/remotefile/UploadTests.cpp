// Writes that travel as whole-file uploads, and the worker that sends them.

#include <cerrno>
#include <filesystem>
#include <future>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class Uploading : public UploadingFileTest {
 protected:
  std::vector<ScriptedTransfer> uploads() const { return server.transfers("uploadFileAtPath"); }
};

TEST_F(Uploading, SendsASnapshotOfTheWholeFile) {
  file = downloadedFile("0123456789");
  EXPECT_EQ(write(*file, "XY", 4), 2);
  file->close();
  ASSERT_GE(uploads().size(), 1u);
  EXPECT_EQ(uploads()[0].bytes, "0123XY6789");
  EXPECT_EQ(uploads()[0].byteOffset, 0u);
  EXPECT_THAT(uploads()[0].name, StartsWith(iFolder + "/"));
  EXPECT_EQ(onServer(), "0123XY6789");
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesRequired(), 0u);
  EXPECT_EQ(file->bytesUploading(), 10u);
  EXPECT_FALSE(file->needsFlush());
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Uploading, RemovesTheSnapshot) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(cacheFolder().size(), 1u);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(cacheFolder(), IsEmpty());
}

TEST_F(Uploading, TracesEveryStep) {
  file = createdFile();
  const TraceRecorder trace;
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(trace.messagesHere(), ElementsAre("bytesRequired=0=>5"));
  EXPECT_THAT(trace.messagesElsewhere(),
              ElementsAre("began uploading /docs/a.bin",
                          "finished uploading /docs/a.bin: bytesAvailable=5, bytesRequired=5"));
  EXPECT_EQ(server.calls("uploadFileAtPath")[0].threadName, "uploading /docs/a.bin");
}

TEST_F(Uploading, TakesOneConnectionWithTheFileAsDelegatePerPass) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  ASSERT_TRUE(server.waitUntilAllReleased());
  const auto sent = server.calls("uploadFileAtPath");
  ASSERT_EQ(sent.size(), 1u);
  std::vector<std::string> ofTheWorker;
  for (const ScriptedCall& call : server.calls()) {
    if (call.connection != sent[0].connection) continue;
    ofTheWorker.push_back(call.arguments.empty() ? call.name : call.name + " " + call.arguments[0]);
  }
  EXPECT_THAT(ofTheWorker,
              ElementsAre("setDelegate delegate", "uploadFileAtPath /docs/a.bin", "setDelegate none"));
  EXPECT_EQ(server.acquireCount(), server.releaseCount());
  EXPECT_EQ(server.count("acquireConnection"), 2u) << "the writer's and the worker's";
}

TEST_F(Uploading, CountsReportedBytesNotTheCacheFile) {
  server.setChunkSize(2);
  const auto hold = server.hold("uploadFileAtPath", kPath, 4);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(file->bytesAvailable(), 4u);
  EXPECT_EQ(file->bytesUploading(), 10u);
  hold->release();
}

TEST_F(Uploading, CountsNothingFromAWriteOnAsConfirmed) {
  file = downloadedFile("0123456789");
  std::promise<void> go;
  calls.delayNextThread(go.get_future().share());
  ASSERT_EQ(write(*file, "X", 3), 1);
  EXPECT_EQ(file->state(), kOFSUploading);
  EXPECT_EQ(file->bytesAvailable(), 3u);
  go.set_value();
  waitForState(*file, kOFSSettled);
}

TEST_F(Uploading, TakesTheCountOfTheLibraryAtItsEnd) {
  const auto hold = server.hold("uploadFileAtPath", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto pool = server.pool();
  const auto other = pool->acquireConnection();
  ConnectionDelegate& delegate = *file;
  delegate.connection(*other, 3, 0.0, false);
  pool->releaseConnection(other);
  EXPECT_EQ(file->bytesAvailable(), 3u);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 5u);
}

TEST_F(Uploading, SendsWritesThatArriveMeanwhileByOneMorePass) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  const TraceRecorder trace;
  auto writer = inBackground([this] { return write(*file, "!", 5); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(file->needsFlush());
  EXPECT_EQ(file->bytesRequired(), 6u);
  hold->release();
  EXPECT_EQ(finish(writer), 1);
  waitForState(*file, kOFSSettled);
  ASSERT_EQ(uploads().size(), 2u);
  EXPECT_EQ(uploads()[0].bytes, "hello");
  EXPECT_EQ(uploads()[1].bytes, "hello!");
  EXPECT_EQ(trace.messagesWith("bytesRequired=5=>6").size(), 1u);
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Uploading, CountsAnewWithEachPass) {
  const auto end = server.hold("uploadFileAtPath", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(end->waitUntilHeld());
  ASSERT_EQ(write(*file, "!", 5), 1);
  EXPECT_TRUE(file->needsFlush());
  const auto next = server.hold("uploadFileAtPath", kPath);
  end->release();
  ASSERT_TRUE(next->waitUntilHeld());
  EXPECT_FALSE(file->needsFlush());
  EXPECT_EQ(file->bytesAvailable(), 0u);
  EXPECT_EQ(file->bytesUploading(), 6u);
  next->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "hello!");
}

TEST_F(Uploading, RequiresTheEndOfTheLastWriteAlsoWhenThatIsNearer) {
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 3);
  file = createdFile();
  ASSERT_EQ(write(*file, "01234", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "abc", 5), 3);
  ASSERT_EQ(file->bytesRequired(), 8u);
  ASSERT_EQ(write(*file, "X", 6), 1);
  EXPECT_EQ(file->bytesRequired(), 7u);
  EXPECT_EQ(server.count("uploadFileAtPath"), 1u) << "and it goes on";
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "01234aXc");
}

TEST_F(Uploading, IsCancelledByAWriteBeforeTheSnapshotsEnd) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  const TraceRecorder trace;
  auto writer = inBackground([this] { return write(*file, "XY", 4); });
  waitForWaiters(*file, 1);
  EXPECT_EQ(file->bytesRequired(), OFSRemoteFile::kCancelMark);
  // The library sees the mark at its next report.
  hold->release();
  EXPECT_EQ(finish(writer), 2);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(trace.messagesWith("non-sequential write: offset=4, bytesUploading=10, bytesRequired=10").size(),
            1u);
  EXPECT_EQ(trace.messagesWith("should cancel").size(), 1u);
  EXPECT_EQ(trace.messagesWith("canceled uploading /docs/a.bin: bytesAvailable=10").size(), 1u);
  ASSERT_EQ(uploads().size(), 2u);
  EXPECT_TRUE(QuarnKitError::isCode(uploads()[0].error, kQuarnKitCancelled));
  EXPECT_EQ(uploads()[1].bytes, "0123XY6789");
  EXPECT_EQ(onServer(), "0123XY6789");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Uploading, IsCancelledByAWriteBeyondWhatIsRequired) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "01234", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  const TraceRecorder trace;
  auto writer = inBackground([this] { return write(*file, "9", 9); });
  waitForWaiters(*file, 1);
  hold->release();
  EXPECT_EQ(finish(writer), 1);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(trace.messagesWith("non-sequential write: offset=9, bytesUploading=5, bytesRequired=5").size(),
            1u);
  EXPECT_EQ(onServer(), std::string("01234\0\0\0\0"
                                    "9",
                                    10));
}

TEST_F(Uploading, KeepsACancelMarkThatAnotherWriterSet) {
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto elsewhere = inBackground([this] { return write(*file, "XY", 4); });
  waitForWaiters(*file, 1);
  auto atTheEnd = inBackground([this] { return write(*file, "ab", 10); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(file->bytesRequired(), OFSRemoteFile::kCancelMark);
  hold->release();
  EXPECT_EQ(finish(elsewhere), 2);
  EXPECT_EQ(finish(atTheEnd), 2);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123XY6789ab");
}

TEST_F(Uploading, OfAFirstWriteInTheMiddleSaysSoButHasNothingToCancel) {
  file = downloadedFile("0123456789");
  const TraceRecorder trace;
  EXPECT_EQ(write(*file, "X", 1), 1);
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(trace.messagesHere(),
              ElementsAre("non-sequential write: offset=1, bytesUploading=0, bytesRequired=0",
                          "bytesRequired=18446744073709551615=>2"));
}

TEST_F(Uploading, HoldsAWriterBackUntilHalfOfItsOffsetIsConfirmed) {
  server.setChunkSize(1);
  const auto early = server.hold("uploadFileAtPath", kPath, 4);
  const auto late = server.hold("uploadFileAtPath", kPath, 5);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(early->waitUntilHeld());
  const TraceRecorder trace;
  auto writer = inBackground([this] { return write(*file, "ab", 10); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(writer)) << "4 of 10 are confirmed";
  EXPECT_EQ(trace.messagesWith("waiting until 2001-09-09 01:47:10 +0000: bytesAvailable=4, bytesRequired=12")
                .size(),
            1u);
  early->release();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(file->state(), kOFSUploading) << "5 of 10 were enough";
  late->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(), "0123456789ab");
}

TEST_F(Uploading, HalvesAnOddOffsetDown) {
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 2);
  file = createdFile();
  ASSERT_EQ(write(*file, "01234", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(write(*file, "5", 5), 1) << "2 of 5 / 2 = 2 are confirmed";
  hold->release();
}

TEST_F(Uploading, ThatIsTooSlowFailsTheWriterAfterThirtySecondsWithEFBIGBeneath) {
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 1);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  const TraceRecorder trace;
  NSErrorRef error;
  auto writer = inBackground([&] { return write(*file, "ab", 10, &error); });
  clock->waitForSleepers(1);
  clock->advance(29.9);
  eventually([&] { return trace.messagesWith("waiting until").size() == 2; }, "the writer looking again");
  EXPECT_EQ(trace.messagesWith("waiting until 2001-09-09 01:47:10 +0000").size(), 2u) << "one limit for all";
  EXPECT_TRUE(isRunning(writer));
  clock->advance(0.2);
  eventually([this] { return file->bytesRequired() == OFSRemoteFile::kCancelMark; }, "the cancel mark");
  EXPECT_TRUE(isRunning(writer)) << "it waits for the cancelled upload to end";
  hold->release();
  EXPECT_EQ(finish(writer), -1);
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_TRUE(isPosixError(error->underlyingError(), kEFBIG));
  EXPECT_TRUE(isPosixError(file->lastError(), kEFBIG));
  EXPECT_EQ(
      trace.messagesWith("upload to /docs/a.bin terminated: NSPOSIXErrorDomain 27 (File too large)\n\nfile:")
          .size(),
      1u);
  EXPECT_EQ(trace.messagesWith("canceled uploading /docs/a.bin").size(), 1u);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 0u);
  EXPECT_FALSE(file->isCovered());
}

TEST_F(Uploading, LimitOfAWriterFollowsTheHardLimit) {
  gHardLimit = 10.0;
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "ab", 10); });
  clock->waitForSleepers(1);
  clock->advance(5.0);
  eventually([this] { return file->bytesRequired() == OFSRemoteFile::kCancelMark; }, "the cancel mark");
  hold->release();
  EXPECT_EQ(finish(writer), -1);
}

TEST_F(Uploading, ThatFailedIsKeptAsTheLastError) {
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  server.fail("uploadFileAtPath", kPath, full);
  file = createdFile();
  const TraceRecorder trace;
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(file->lastError(), full);
  EXPECT_THAT(trace.messagesElsewhere(),
              ElementsAre("began uploading /docs/a.bin",
                          "finished uploading /docs/a.bin: bytesAvailable=0, bytesRequired=5",
                          "error=" + full->description()));
  EXPECT_FALSE(file->isCovered());
}

TEST_F(Uploading, ThatFailedEarlierFailsTheNextWriterThatHasToWait) {
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  server.fail("uploadFileAtPath", kPath, full);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  waitForState(*file, kOFSSettled);
  const TraceRecorder trace;
  const auto hold = server.hold("uploadFileAtPath");
  NSErrorRef error;
  EXPECT_EQ(write(*file, "ab", 10, &error), -1);
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), full);
  hold->release();
  EXPECT_EQ(trace.messagesWith("upload to /docs/a.bin failed: " + full->description() + "\n\nfile:").size(),
            1u);
  error.reset();
  EXPECT_EQ(write(*file, "cd", 10, &error), 2) << "the failure is told once";
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123456789cd");
}

TEST_F(Uploading, ThatFailedEarlierDoesNotFailAWriterThatNeedNotWait) {
  server.fail("uploadFileAtPath", kPath, QuarnKitError::errorWithCode(kQuarnKitOutOfSpace));
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(write(*file, "X", 0), 1);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "X123456789");
}

TEST_F(Uploading, SwitchedOffKeepsTheDataLocal) {
  gUploadingSupported = false;
  file = createdFile();
  EXPECT_EQ(write(*file, "hello", 0), 5);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(onServer(), "");
  EXPECT_EQ(read(*file, 5, 0), "hello");
  file->abandon();
}

TEST_F(Uploading, WithoutRoomForASnapshotSendsTheCacheFileItself) {
  file = createdFile();
  calls.fail(Call::kOpen, ENOSPC);
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(uploads(), IsEmpty());
  EXPECT_EQ(onServer(), "hello");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Uploading, WithoutRoomForASnapshotNamesTheFileInItsDisplayForm) {
  server.credentials()->setEncoding("ISO-8859-1");
  server.addFolder("/docs");
  const std::string path = "/docs/caf\xe9.bin";
  file = makeFile(path);
  ASSERT_TRUE(file->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  calls.fail(Call::kOpen, ENOSPC);
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  const auto sent = server.transfers("uploadFileHandle");
  ASSERT_EQ(sent.size(), 2u) << "the empty file, and its content";
  EXPECT_EQ(sent[1].name, "/docs/caf\xc3\xa9.bin");
  EXPECT_EQ(onServer(path), "hello");
}

TEST_F(Uploading, NeverSendsASnapshotThatTheDiskHadNoRoomFor) {
  file = createdFile();
  calls.fail(Call::kCopyRange, ENOSPC);
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(uploads(), IsEmpty());
  EXPECT_THAT(cacheFolder(), IsEmpty());
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Uploading, CopiesByReadingWhereTheKernelCannotCopy) {
  file = createdFile();
  calls.fail(Call::kCopyRange, EXDEV);
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  ASSERT_EQ(uploads().size(), 1u);
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Uploading, KeepsTheHolesOfTheSnapshot) {
  file = createdFile();
  ASSERT_EQ(write(*file, "end", 8 << 20), 3);
  waitForState(*file, kOFSSettled);
  std::string expected(8 << 20, '\0');
  expected += "end";
  EXPECT_EQ(onServer(), expected);
  EXPECT_LT(file->cacheSize(), 1u << 20);
}

TEST_F(Uploading, WithoutAFileHandleFailsTheWrite) {
  file = makeFile();
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_EQ(write(*file, "hello", 0, &error), -1);
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_THAT(trace.messages(), Contains(StartsWith("no file handle for writing\n\nfile:")));
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_TRUE(file->downloadFailed())
      << "a settled object that was never filled must not pass for an empty file";
}

TEST_F(Uploading, OnAFullLocalDiskFailsTheWriteWithTheNumber) {
  file = createdFile();
  calls.fail(Call::kPwrite, ENOSPC);
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_EQ(write(*file, "hello", 0, &error), -1);
  EXPECT_TRUE(isPosixError(error, kEIO));
  const auto messages = trace.messagesWith("pwrite failed, errno = 28 (No space left on device)\n\nfile:");
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(messages[0].ends_with(" /docs/a.bin"));
  EXPECT_THAT(uploads(), IsEmpty());
}

TEST_F(Uploading, WaitsForTheDownload) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  auto writer = inBackground([this] { return write(*file, "X", 0); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(writer));
  EXPECT_EQ(server.count("acquireConnection"), 1u) << "the download's: who waits has none";
  hold->release();
  EXPECT_EQ(finish(writer), 1);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "X123456789");
}

TEST_F(Uploading, ByASecondOpenerBeforeTheFirstByteWaitsForTheDownload) {
  server.addFile(kPath, "0123456789");
  const auto hold = server.hold("downloadFileAtPath", kPath);
  file = makeFile();
  auto opener = inBackground([this] { return file->openWithMode(kO_RDWR, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  auto writer = inBackground([this] { return write(*file, "X", 0); });
  waitForWaiters(*file, 2);
  hold->release();
  EXPECT_EQ(finish(writer), 1);
  EXPECT_TRUE(finish(opener));
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "X123456789");
}

TEST_F(Uploading, TakesOverFromAStreamThatRuns) {
  gStreamingSupported = true;
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_EQ(file->state(), kOFSStreaming);
  gStreamingSupported = false;  // as another file's fallback does
  EXPECT_EQ(write(*file, " world", 5), 6);
  file->close();
  EXPECT_EQ(onServer(), "hello world");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Uploading, ThatCannotGetAThreadFailsTheWriteAndSettles) {
  file = createdFile();
  calls.fail(Call::kThread, EAGAIN);
  NSErrorRef error;
  EXPECT_EQ(write(*file, "hello", 0, &error), -1);
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Uploading, UsesTheNewPathAfterAMove) {
  file = createdFile();
  file->setRemotePath("/docs/b.bin");
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer("/docs/b.bin"), "hello");
}

}  // namespace
}  // namespace ombra
