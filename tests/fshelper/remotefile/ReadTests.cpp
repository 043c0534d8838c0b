// The download worker, its progress, and reads.

#include <sys/resource.h>

#include <cerrno>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::StartsWith;

// How often this thread has waited for something.
long timesAsleep() {
  rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nvcsw;
}

using OpenFileReading = RemoteFileTest;

TEST_F(OpenFileReading, ReturnsAsSoonAsItsRangeHasArrived) {
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", kPath, 8);
  file = arrivingFile("0123456789", 8);
  EXPECT_EQ(read(*file, 4, 2), "2345");
  EXPECT_EQ(file->state(), kOFSDownloading);
  hold->release();
}

TEST_F(OpenFileReading, WaitsForItsRangeAndPublishesIt) {
  server.setChunkSize(4);
  const auto first = server.hold("downloadFileAtPath", kPath, 4);
  const auto second = server.hold("downloadFileAtPath", kPath, 8);
  file = arrivingFile("0123456789ab", 4);
  auto reader = inBackground([this] { return read(*file, 5, 3); });
  waitForWaiters(*file, 1);
  EXPECT_EQ(file->bytesRequired(), 8u);
  first->release();
  EXPECT_EQ(finish(reader), "34567");
  ASSERT_TRUE(second->waitUntilHeld());
  EXPECT_EQ(file->state(), kOFSDownloading);
  EXPECT_EQ(file->bytesRequired(), 0u) << "the report that satisfied it cleared it";
  second->release();
}

TEST_F(OpenFileReading, PastTheEndWaitsForTheEndOfTheDownloadAndGivesNothing) {
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  file = arrivingFile("01234567", 4);
  auto reader = inBackground([this] { return read(*file, 10, 100); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(reader));
  EXPECT_EQ(file->bytesRequired(), 110u);
  hold->release();
  EXPECT_EQ(finish(reader), "");
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesRequired(), 0u);
}

TEST_F(OpenFileReading, OfTwoRangesServesEachFromItsOwn) {
  server.setChunkSize(1);
  const auto hold = server.hold("downloadFileAtPath", kPath, 1);
  const auto middle = server.hold("downloadFileAtPath", kPath, 5);
  file = arrivingFile("0123456789", 1);
  auto far = inBackground([this] { return read(*file, 8, 0); });
  waitForWaiters(*file, 1);
  auto near = inBackground([this] { return read(*file, 4, 0); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(file->bytesRequired(), 4u) << "the later reader's, though the other one still waits";
  hold->release();
  EXPECT_EQ(finish(near), "0123");
  ASSERT_TRUE(middle->waitUntilHeld());
  EXPECT_TRUE(isRunning(far));
  middle->release();
  EXPECT_EQ(finish(far), "01234567");
}

TEST_F(OpenFileReading, OfTheFartherRangeSecondLeavesTheNearerOneServed) {
  server.setChunkSize(1);
  const auto hold = server.hold("downloadFileAtPath", kPath, 1);
  const auto middle = server.hold("downloadFileAtPath", kPath, 5);
  file = arrivingFile("0123456789", 1);
  auto near = inBackground([this] { return read(*file, 4, 0); });
  waitForWaiters(*file, 1);
  auto far = inBackground([this] { return read(*file, 9, 0); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(file->bytesRequired(), 9u);
  hold->release();
  EXPECT_EQ(finish(near), "0123") << "though more is required";
  ASSERT_TRUE(middle->waitUntilHeld());
  middle->release();
  EXPECT_EQ(finish(far), "012345678");
}

TEST_F(OpenFileReading, SleepsUntilItsWholeRangeIsThere) {
  constexpr int kPieces = 60;
  server.setChunkSize(1);
  std::vector<std::shared_ptr<ScriptedHold>> holds;
  for (int i = 1; i < kPieces; ++i) holds.push_back(server.hold("downloadFileAtPath", kPath, i));
  file = arrivingFile(std::string(kPieces, 'x'), 1);
  auto reader = inBackground([this] {
    const long before = timesAsleep();
    EXPECT_EQ(read(*file, kPieces, 0).size(), static_cast<size_t>(kPieces));
    return timesAsleep() - before;
  });
  waitForWaiters(*file, 1);
  for (const auto& hold : holds) {
    ASSERT_TRUE(hold->waitUntilHeld());
    hold->release();
  }
  EXPECT_LT(finish(reader), kPieces / 4) << "and does not look at each piece";
}

TEST_F(OpenFileReading, ByASecondOpenerBeforeTheFirstByteWaits) {
  server.addFile(kPath, "hello");
  const auto hold = server.hold("downloadFileAtPath", kPath);
  file = makeFile();
  auto opener = inBackground([this] { return file->openWithMode(kO_RDONLY, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  auto reader = inBackground([this] { return read(*file, 5, 0); });
  waitForWaiters(*file, 2);
  EXPECT_TRUE(isRunning(reader)) << "the file is not empty, its download is only slow";
  hold->release();
  EXPECT_EQ(finish(reader), "hello");
  EXPECT_TRUE(finish(opener));
}

TEST_F(OpenFileReading, OfAFileThatNobodyOpenedOpensIt) {
  server.addFile(kPath, "hello");
  file = makeFile();
  EXPECT_EQ(read(*file, 5, 0), "hello");
  EXPECT_TRUE(file->isOpen());
  EXPECT_EQ(file->mode(), 0);
}

TEST_F(OpenFileReading, OfAFileWhoseOpenFailedOpensItWithTheFlagsOfThat) {
  server.addFile(kPath, "hello");
  file = makeFile();
  calls.fail(Call::kOpen, EMFILE);
  ASSERT_FALSE(file->openWithMode(kO_RDWR, nullptr));
  EXPECT_EQ(read(*file, 5, 0), "hello");
  EXPECT_EQ(file->mode(), kO_RDWR);
}

TEST_F(OpenFileReading, LeavesWhatItRequiredBehind) {
  file = downloadedFile("hello");
  EXPECT_EQ(read(*file, 3, 1), "ell");
  EXPECT_EQ(file->bytesRequired(), 4u);
}

TEST_F(OpenFileReading, AfterAFailedDownloadGivesWhatArrivedThenNothingWithoutAnError) {
  server.setChunkSize(4);
  server.failAfter("downloadFileAtPath", kPath, 4, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  server.addFile(kPath, "01234567");
  file = makeFile();
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  NSErrorRef error;
  EXPECT_EQ(read(*file, 8, 0, &error), "0123");
  EXPECT_EQ(read(*file, 8, 4, &error), "");
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(file->bytesAvailable(), 4u);
  EXPECT_EQ(file->lastError(), nullptr);
  EXPECT_EQ(file->contentState(), GMContentState::kFailed) << "the adapter asks for this after a short read";
}

TEST_F(OpenFileReading, WithoutAFileFailsWithEIO) {
  calls.fail(Call::kOpen, EACCES);
  file = makeFile();
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_EQ(read(*file, 5, 0, &error), "<-1>");
  EXPECT_TRUE(isPosixError(error, kEIO));
  const auto failures = trace.messagesWith("no file for reading at " + file->localPath() + "\n\nfile:");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_THAT(failures[0], EndsWith(" /docs/a.bin"));
}

TEST_F(OpenFileReading, ReplacesAnErrorThatTheSlotHolds) {
  file = downloadedFile("hello");
  calls.fail(Call::kPread, EISDIR);
  NSErrorRef error = NSError::errorWithDomain(NSPOSIXErrorDomain, kEPERM);
  const TraceRecorder trace;
  EXPECT_EQ(read(*file, 5, 0, &error), "<-1>");
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_THAT(trace.messages(), Contains(StartsWith("pread failed, errno = 21 (Is a directory)\n\nfile:")));
}

TEST_F(OpenFileReading, ThatIsInterruptedFailsWithoutAnError) {
  file = downloadedFile("hello");
  calls.fail(Call::kPread, EINTR);
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_EQ(read(*file, 5, 0, &error), "<-1>");
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(trace.lines(),
              ElementsAre("{ -[OFSRemoteFile _readToBuffer:size:offset:error:] size=5, offset=0",
                          "} -[OFSRemoteFile _readToBuffer:size:offset:error:] size=5, offset=0"));
}

TEST_F(OpenFileReading, WithANegativeOffsetFailsWithEIO) {
  file = downloadedFile("hello");
  NSErrorRef error;
  EXPECT_EQ(read(*file, 5, -1, &error), "<-1>");
  EXPECT_TRUE(isPosixError(error, kEIO));
}

TEST_F(OpenFileReading, AtTheLargestOffsetNeverRequiresTheCancelMark) {
  file = downloadedFile("hello");
  EXPECT_EQ(read(*file, 5, INT64_MAX), "<-1>");
  EXPECT_NE(file->bytesRequired(), OFSRemoteFile::kCancelMark);
}

TEST_F(OpenFileReading, WaitsForAStreamToEnd) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  auto reader = inBackground([this] { return read(*file, 5, 0); });
  waitForWaiters(*file, 1);
  clock->waitForSleepers(1);
  EXPECT_TRUE(isRunning(reader)) << "a reader does not end the stream";
  clock->advance(6.0);
  EXPECT_EQ(finish(reader), "hello");
}

TEST_F(OpenFileReading, WaitsForAnUploadToEnd) {
  gStreamingSupported = false;
  const auto hold = server.hold("uploadFileAtPath", kPath);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto reader = inBackground([this] { return read(*file, 5, 0); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(reader));
  hold->release();
  EXPECT_EQ(finish(reader), "hello");
}

TEST_F(OpenFileReading, NeverOverwritesTheCancelMark) {
  server.addFile(kPath, "0123456789");
  server.setChunkSize(2);
  const auto before = server.hold("acquireConnection");
  file = makeFile();
  auto opener = inBackground([this] { return file->openWithMode(kO_RDONLY, nullptr); });
  ASSERT_TRUE(before->waitUntilHeld());
  file->cancelDownload();
  auto reader = inBackground([this] { return read(*file, 8, 0); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(file->bytesRequired(), OFSRemoteFile::kCancelMark);
  before->release();
  EXPECT_TRUE(finish(opener));
  EXPECT_EQ(finish(reader), "01") << "the download was stopped at its first report";
  EXPECT_EQ(file->contentState(), GMContentState::kFailed);
}

TEST_F(OpenFileReading, OfTheWholeContentAsksPieceByPiece) {
  const std::string content(65536 + 10, 'x');
  file = downloadedFile(content);
  const TraceRecorder trace;
  const NSData data = file->data();
  EXPECT_EQ(std::string(data.begin(), data.end()), content);
  EXPECT_THAT(trace.lines(),
              ElementsAre("{ -[OFSRemoteFile data] ",
                          " { -[OFSRemoteFile _readToBuffer:size:offset:error:] size=65536, offset=0",
                          " } -[OFSRemoteFile _readToBuffer:size:offset:error:] size=65536, offset=0",
                          " { -[OFSRemoteFile _readToBuffer:size:offset:error:] size=65536, offset=65536",
                          " } -[OFSRemoteFile _readToBuffer:size:offset:error:] size=65536, offset=65536",
                          "} -[OFSRemoteFile data] "));
}

TEST_F(OpenFileReading, OfTheWholeContentOfAnEmptyFileAsksOnce) {
  file = downloadedFile("");
  const TraceRecorder trace;
  EXPECT_TRUE(file->data().empty());
  EXPECT_EQ(trace.lines().size(), 4u);
}

TEST_F(OpenFileReading, OfTheWholeContentStopsAtAFailure) {
  file = downloadedFile(std::string(65536 * 2, 'x'));
  calls.fail(Call::kPread, EIO, 1, 1);
  EXPECT_EQ(file->data().size(), 65536u);
}

using DownloadWorker = RemoteFileTest;

TEST_F(DownloadWorker, TracesItsBeginAndItsEnd) {
  server.addFile(kPath, "hello");
  const TraceRecorder trace;
  file = makeFile();
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(trace.messages(), ElementsAre("began downloading /docs/a.bin",
                                            "finished downloading /docs/a.bin, bytesAvailable=5"));
}

TEST_F(DownloadWorker, TracesItsFailure) {
  const NSErrorRef error = QuarnKitError::errorWithCode(kQuarnKitConnectionLost);
  server.fail("downloadFileAtPath", kPath, error);
  const TraceRecorder trace;
  file = makeFile();
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  waitForState(*file, kOFSSettled);
  EXPECT_THAT(trace.messages(), ElementsAre("began downloading /docs/a.bin",
                                            "finished downloading /docs/a.bin, bytesAvailable=0",
                                            "error=" + error->description()));
}

TEST_F(DownloadWorker, UsesOneConnectionWithTheFileAsDelegateOnAThreadNamedAfterIt) {
  file = makeFile();
  server.addFile(kPath, "hello");
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  ASSERT_TRUE(server.waitUntilAllReleased());
  EXPECT_THAT(server.callTexts(),
              ElementsAre("acquireConnection", "setDelegate delegate", "downloadFileAtPath /docs/a.bin 0",
                          "setDelegate none", "releaseConnection"));
  EXPECT_EQ(server.calls("downloadFileAtPath")[0].threadName, "downloading /docs/a.bin");
}

TEST_F(DownloadWorker, IsStoppedByTheCancelMarkAtTheNextReport) {
  server.setChunkSize(2);
  const auto first = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  const TraceRecorder trace;
  file->cancelDownload();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(file->bytesRequired(), 0u);
  EXPECT_TRUE(file->downloadFailed());
  EXPECT_GE(server.count("setShouldCancel"), 1u);
}

TEST_F(DownloadWorker, ReportsThatMeetTheCancelMarkSayShouldCancel) {
  // Before the transfer begins the connection forgets the note, so that the report has to see to it.
  server.addFile(kPath, "0123456789");
  server.setChunkSize(2);
  const auto before = server.hold("acquireConnection");
  file = makeFile();
  auto opener = inBackground([this] { return file->openWithMode(kO_RDONLY, nullptr); });
  ASSERT_TRUE(before->waitUntilHeld());
  file->cancelDownload();
  const TraceRecorder trace;
  before->release();
  EXPECT_TRUE(finish(opener));
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(trace.messagesWith("should cancel").size(), 1u);
  EXPECT_EQ(file->bytesAvailable(), 2u) << "the report went on to measure what had arrived";
  EXPECT_EQ(server.transfers("downloadFileAtPath")[0].bytes, "01");
}

TEST_F(DownloadWorker, CountsTheCacheFileNotTheReportedBytes) {
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  file = arrivingFile("01234567", 4);
  const auto pool = server.pool();
  const auto other = pool->acquireConnection();
  ConnectionDelegate& delegate = *file;
  delegate.connection(*other, 4711, 0.0, false);
  EXPECT_EQ(file->bytesAvailable(), 4u);
  pool->releaseConnection(other);
  hold->release();
}

TEST_F(DownloadWorker, TakesTheCountOfTheLibraryAtItsEnd) {
  const auto hold = server.hold("downloadFileAtPath", kPath, kAtEnd);
  file = arrivingFile("hello", 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(::ftruncate(file->fileHandle()->fileDescriptor(), 9), 0);  // behind the object's back
  server.reportProgress(kPath);
  EXPECT_EQ(file->bytesAvailable(), 9u);
  const TraceRecorder trace;
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 5u);
  EXPECT_THAT(trace.messages(), ElementsAre("finished downloading /docs/a.bin, bytesAvailable=9"));
}

TEST_F(DownloadWorker, LeavesThePositionOfTheCacheFileAlone) {
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  const auto later = server.hold("downloadFileAtPath", kPath, 8);
  file = arrivingFile("0123456789", 4);
  ASSERT_EQ(::lseek(file->fileHandle()->fileDescriptor(), 3, SEEK_SET), 3);
  hold->release();
  ASSERT_TRUE(later->waitUntilHeld());
  EXPECT_EQ(::lseek(file->fileHandle()->fileDescriptor(), 0, SEEK_CUR), 3);
  later->release();
}

TEST_F(DownloadWorker, WhoseDiskIsFullFailsAndIsNeverUploaded) {
  server.fail("downloadFileAtPath", kPath, QuarnKitError::errorWithCode(kQuarnKitLocalFailure));
  server.addFile(kPath, "precious");
  file = makeFile();
  ASSERT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  waitForState(*file, kOFSSettled);
  NSErrorRef error;
  EXPECT_EQ(write(*file, "x", 0, &error), -1);
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_FALSE(file->_truncateToOffset(3, &error));
  EXPECT_TRUE(file->synchronize(&error));
  file->close();
  EXPECT_EQ(onServer(), "precious");
}

TEST_F(DownloadWorker, ThatFailedLeavesAFileThatMayBeEmptied) {
  server.fail("downloadFileAtPath", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  server.addFile(kPath, "old");
  file = makeFile();
  ASSERT_TRUE(file->openWithMode(kO_RDWR, nullptr));
  waitForState(*file, kOFSSettled);
  EXPECT_TRUE(file->_truncateToOffset(0, nullptr));
  EXPECT_FALSE(file->downloadFailed());
  EXPECT_EQ(write(*file, "new", 0), 3);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "new");
}

TEST_F(DownloadWorker, IsAwaitedByReadersNotByWhoCloses) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  const auto pool = server.pool();
  const auto other = pool->acquireConnection();
  EXPECT_FALSE(file->connectionIsAwaited(*other));
  auto closer = inBackground([this] { file->close(); });
  waitForWaiters(*file, 1);
  EXPECT_FALSE(file->connectionIsAwaited(*other));
  auto reader = inBackground([this] { return read(*file, 8, 0); });
  waitForWaiters(*file, 2);
  EXPECT_TRUE(file->connectionIsAwaited(*other));
  pool->releaseConnection(other);
  hold->release();
  EXPECT_EQ(finish(reader), "01234567");
  finish(closer);
}

TEST_F(DownloadWorker, TellsHowFarTheContentHasCome) {
  server.setChunkSize(2);
  const auto first = server.hold("downloadFileAtPath", kPath, 2);
  const auto second = server.hold("downloadFileAtPath", kPath, 4);
  file = arrivingFile("0123456789", 2);
  EXPECT_EQ(file->contentState(), GMContentState::kArriving);
  file->waitForContent(1);  // more than one byte is there
  auto waiter = inBackground([this] { file->waitForContent(2); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(waiter));
  first->release();
  finish(waiter);
  EXPECT_EQ(file->bytesAvailable(), 4u);
  second->release();
  file->waitForContent(1000);  // ends with the download
  EXPECT_EQ(file->contentState(), GMContentState::kComplete);
}

}  // namespace
}  // namespace ombra
