// Writes to a server that can write at an offset, and truncation.

#include <cerrno>
#include <thread>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class InPlace : public InPlaceFileTest {
 protected:
  std::vector<ScriptedTransfer> uploads() const { return server.transfers("uploadFileHandle"); }
};

TEST_F(InPlace, SendsEachWriteAtOnceFromItsOffset) {
  file = downloadedFile("0123456789");
  EXPECT_EQ(write(*file, "XY", 4), 2);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(onServer(), "0123XY6789");
  EXPECT_EQ(file->bytesAvailable(), 10u);
  EXPECT_TRUE(file->isCovered());
  EXPECT_EQ(write(*file, "ab", 10), 2);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 12u);
  EXPECT_EQ(onServer(), "0123XY6789ab");
  ASSERT_EQ(uploads().size(), 2u);
  EXPECT_EQ(uploads()[0].byteOffset, 4u);
  EXPECT_EQ(uploads()[0].name, "/docs/a.bin");
  EXPECT_THAT(uploads()[0].extents, ElementsAre(FileExtent{4, 6}));
  EXPECT_THAT(uploads()[1].extents, ElementsAre(FileExtent{10, 12}));
}

TEST_F(InPlace, NamesTheFileInItsDisplayForm) {
  server.credentials()->setEncoding("ISO-8859-1");
  server.addFolder("/docs");
  const std::string path = "/docs/caf\xe9.bin";
  file = makeFile(path);
  ASSERT_TRUE(file->openWithMode(kO_RDWR | kO_CREAT, nullptr));
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_EQ(uploads().size(), 2u) << "the empty file, and its content";
  for (const ScriptedTransfer& upload : uploads()) EXPECT_EQ(upload.name, "/docs/caf\xc3\xa9.bin");
  EXPECT_EQ(onServer(path), "hello");
}

// The connection may answer a write before the server has.
class WrittenBehind : public InPlace {
 protected:
  // A write that was sent and is not acknowledged; `end` tells what became of it.
  void writeBehind() {
    file = downloadedFile("0123456789");
    ASSERT_EQ(write(*file, "XY", 4), 2);
    file->fileHandle()->extents()->beginSending();
  }
  void end(const NSErrorRef& failure) { file->fileHandle()->extents()->endSending(failure); }
};

TEST_F(WrittenBehind, IsNotCoveredUntilTheServerHasAnswered) {
  writeBehind();
  EXPECT_FALSE(file->isCovered());
  end(nullptr);
  EXPECT_TRUE(file->isCovered());
}

TEST_F(WrittenBehind, IsWaitedForByASynchronisation) {
  writeBehind();
  std::thread answer([this] { end(nullptr); });
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_TRUE(file->isCovered());
  answer.join();
}

TEST_F(WrittenBehind, IsSentAsAWholeByTheSynchronisationThatLearnsOfARefusal) {
  writeBehind();
  end(QuarnKitError::errorWithCode(kQuarnKitOutOfSpace));
  EXPECT_FALSE(file->isCovered());
  server.addFile(kPath, "damaged");
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123XY6789");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(WrittenBehind, FailsTheSynchronisationWhenThatIsRefusedAsWell) {
  writeBehind();
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  end(full);
  server.fail("uploadFileAtPath", kPath, full);
  NSErrorRef error;
  EXPECT_FALSE(file->synchronize(&error));
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), full);
  EXPECT_FALSE(file->isCovered());
}

// Without room for a copy the cache file itself is sent, and the server may refuse its close in the end.
TEST_F(WrittenBehind, FailsTheSynchronisationWhoseOwnUploadIsRefusedAtItsClose) {
  writeBehind();
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  end(full);
  calls.fail(Call::kOpen, ENOSPC);
  const auto hold = server.hold("uploadFileHandle");
  NSErrorRef error;
  auto synchroniser = inBackground([&] { return file->synchronize(&error); });
  ASSERT_TRUE(hold->waitUntilHeld());
  UnconfirmedExtents& extents = *file->fileHandle()->extents();
  extents.beginSending();
  // Goes when the upload counts as done.
  constexpr uint64_t kFarAway = 1 << 20;
  extents.add({kFarAway, kFarAway + 1});
  hold->release();
  eventually([&] { return extents.from(kFarAway).empty(); }, "the end of the upload");
  end(full);
  EXPECT_FALSE(finish(synchroniser));
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), full);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123XY6789");
  EXPECT_TRUE(file->isCovered());
}

// The session may be asked for the file while it is still in the hands of the upload, and end it there.
TEST_F(WrittenBehind, FailsTheSynchronisationWhoseUploadIsRefusedBeforeItCountsAsDone) {
  writeBehind();
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  end(full);
  calls.fail(Call::kOpen, ENOSPC);
  const auto hold = server.hold("uploadFileHandle", kPath, kAtEnd);
  NSErrorRef error;
  auto synchroniser = inBackground([&] { return file->synchronize(&error); });
  ASSERT_TRUE(hold->waitUntilHeld());
  file->fileHandle()->extents()->beginSending();
  end(full);
  hold->release();
  EXPECT_FALSE(finish(synchroniser));
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), full);
  EXPECT_FALSE(file->isCovered());
}

TEST_F(WrittenBehind, IsToldWhatTheCloseOfATruncationFailedOf) {
  writeBehind();
  end(nullptr);
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  const auto hold = server.hold("uploadFileHandle", kPath, kAtEnd);
  auto truncation = inBackground([this] { return file->_truncateToOffset(8, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  file->fileHandle()->extents()->beginSending();
  end(full);
  hold->release();
  EXPECT_TRUE(finish(truncation));
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr)) << "sent once more";
  EXPECT_EQ(server.transfers("uploadFileAtPath").size(), 1u);
  EXPECT_TRUE(file->isCovered());
}

// The write was answered with success. It is not given up because the server refuses something else.
TEST_F(WrittenBehind, IsNotGivenUpByATruncationThatIsRefused) {
  writeBehind();
  file->fileHandle()->extents()->giveBack({4, 6});
  end(QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  server.addFile(kPath, "0123456789");  // it has never seen the write
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitPermissionDenied));
  EXPECT_FALSE(file->_truncateToOffset(8, nullptr));
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123XY67");
}

TEST_F(WrittenBehind, IsWaitedForByATruncationThatIsRefused) {
  writeBehind();
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitPermissionDenied));
  std::thread answer([this] { end(nullptr); });
  EXPECT_FALSE(file->_truncateToOffset(8, nullptr));
  answer.join();
  EXPECT_TRUE(file->isCovered()) << "the server has the write, and the truncation was told to have failed";
  EXPECT_EQ(onServer(), "0123XY6789");
}

TEST_F(InPlace, ThatIsBeingSentLetsNobodyWaitWhoEndsTheVolume) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle");
  auto writer = inBackground([this] { return write(*file, "XY", 4); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto ending = inBackground([this] {
    file->cancelDownload();
    file->setConnectionPool(server.pool());
    return file->connectionPool();
  });
  EXPECT_EQ(finish(ending), server.pool());
  hold->release();
  EXPECT_EQ(finish(writer), 2);
}

// Who ends the volume tells a slow server from a dead one by this.
TEST_F(WrittenBehind, ShowsWhatTheServerHasTakenOfItSoFar) {
  writeBehind();
  const uint64_t before = file->movements();
  file->fileHandle()->extents()->noteProgress();
  EXPECT_GT(file->movements(), before);
  end(nullptr);
}

TEST_F(InPlace, ThatFailsIsNoMovement) {
  file = downloadedFile("0123456789");
  const uint64_t before = file->movements();
  server.failAlways("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  server.failAlways("changeAttributes", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  EXPECT_EQ(write(*file, "XY", 4), -1);
  EXPECT_FALSE(file->_truncateToOffset(8, nullptr));
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  EXPECT_FALSE(file->setAttributes(mode, nullptr));
  EXPECT_EQ(file->movements(), before);
}

TEST_F(InPlace, UsesOneConnectionWithoutADelegate) {
  file = downloadedFile("0123456789");
  EXPECT_EQ(write(*file, "XY", 4), 2);
  EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnection", "setDelegate none",
                                              "uploadFileHandle /docs/a.bin /docs/a.bin 4",
                                              "setDelegate none", "releaseConnection"));
}

TEST_F(InPlace, ThatFailsTellsWhyAndKeepsTheReason) {
  file = downloadedFile("0123456789");
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  server.fail("uploadFileHandle", kPath, full);
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_EQ(write(*file, "XY", 4, &error), -1);
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), full);
  EXPECT_EQ(file->lastError(), full);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 0u);
  EXPECT_THAT(trace.messages(),
              Contains(StartsWith("upload to /docs/a.bin failed: " + full->description() + "\n\nfile:")));
  EXPECT_FALSE(file->isCovered());
}

TEST_F(InPlace, ThatFailedIsNotCoveredByALaterWriteBehindIt) {
  file = downloadedFile("0123456789");
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  EXPECT_EQ(write(*file, "AB", 2), -1);
  EXPECT_EQ(write(*file, "YZ", 8), 2);
  EXPECT_EQ(onServer(), "01234567YZ");
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "01AB4567YZ");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(InPlace, ThatFailedIsCoveredByALaterWriteBeforeIt) {
  file = downloadedFile("0123456789");
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  EXPECT_EQ(write(*file, "YZ", 8), -1);
  EXPECT_EQ(write(*file, "AB", 2), 2);
  EXPECT_EQ(onServer(), "01AB4567YZ");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(InPlace, MakesEverybodyElseOnTheFileWait) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle");
  auto writer = inBackground([this] { return write(*file, "XY", 4); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto reader = inBackground([this] { return read(*file, 10, 0); });
  auto attributes = inBackground([this] { return file->attributes(); });
  // Those that must not wait do not.
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->isOpen());
  EXPECT_GT(file->cacheSize(), 0u);
  file->setRemotePath(kPath);
  EXPECT_TRUE(isRunning(reader));
  EXPECT_TRUE(isRunning(attributes));
  hold->release();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(finish(reader), "0123XY6789");
  EXPECT_EQ(finish(attributes).fileSize, 10u);
}

TEST_F(InPlace, OfNothingSendsNothing) {
  file = downloadedFile("0123456789");
  EXPECT_EQ(write(*file, "", 4), 0);
  EXPECT_THAT(uploads(), IsEmpty());
  EXPECT_EQ(file->state(), kOFSSettled);
}

TEST_F(InPlace, ThatIsInterruptedTellsNoErrorAndSendsNothing) {
  file = downloadedFile("0123456789");
  calls.fail(Call::kPwrite, EINTR);
  NSErrorRef error;
  EXPECT_EQ(write(*file, "XY", 4, &error), -1);
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(uploads(), IsEmpty());
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_TRUE(file->isCovered());
}

TEST_F(InPlace, DoesNotRunBesideAWholeFileUpload) {
  file = downloadedFile("0123456789");
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  ASSERT_EQ(write(*file, "AB", 0), -1);
  const auto hold = server.hold("uploadFileAtPath");
  auto synchroniser = inBackground([this] { return file->synchronize(nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "YZ", 8); });
  waitForWaiters(*file, 2);
  EXPECT_EQ(uploads().size(), 1u)
      << "only the one that failed: the snapshot that is being sent would undo this one";
  hold->release();
  EXPECT_TRUE(finish(synchroniser));
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(onServer(), "AB234567YZ");
}

TEST_F(InPlace, WaitsForTheUploadWorkerOfAnEarlierWrite) {
  server.setSupportsUploadByteOffset(false);
  gStreamingSupported = false;
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 5);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  server.setSupportsUploadByteOffset(true);
  const size_t before = uploads().size();
  auto writer = inBackground([this] { return write(*file, "XY", 4); });
  waitForWaiters(*file, 1);
  EXPECT_EQ(uploads().size(), before);
  hold->release();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(onServer(), "0123XY6789");
  EXPECT_TRUE(file->isCovered());
}

using Truncating = RemoteFileTest;

TEST_F(Truncating, CutsTheFileHereAndThere) {
  file = downloadedFile("0123456789");
  ASSERT_EQ(read(*file, 3, 1), "123");
  ASSERT_EQ(file->bytesRequired(), 4u);
  const TraceRecorder trace;
  EXPECT_TRUE(file->_truncateToOffset(4, nullptr));
  EXPECT_EQ(onServer(), "0123");
  EXPECT_EQ(file->attributes().fileSize, 4u);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 4u);
  EXPECT_EQ(file->bytesRequired(), 0u);
  EXPECT_TRUE(file->isCovered());
  EXPECT_EQ(trace.lines().front(), "{ -[OFSRemoteFile _truncateToOffset:error:] offset=4");
  EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnection", "setDelegate none",
                                              "uploadFileHandle /docs/a.bin /docs/a.bin 0",
                                              "setDelegate none", "releaseConnection"));
}

TEST_F(Truncating, ExtendsTheFileWithZeroes) {
  file = downloadedFile("01");
  EXPECT_TRUE(file->_truncateToOffset(4, nullptr));
  EXPECT_EQ(onServer(), std::string("01\0\0", 4));
}

TEST_F(Truncating, WaitsUntilTheRunningUploadHasSettled) {
  gStreamingSupported = false;
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto truncation = inBackground([this] { return file->_truncateToOffset(2, nullptr); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(truncation));
  EXPECT_EQ(server.count("acquireConnection"), 2u) << "the write's and the upload's: who waits has none";
  hold->release();
  EXPECT_TRUE(finish(truncation));
  EXPECT_EQ(onServer(), "he");
}

TEST_F(Truncating, WaitsForTheDownload) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  auto truncation = inBackground([this] { return file->_truncateToOffset(5, nullptr); });
  waitForWaiters(*file, 1);
  hold->release();
  EXPECT_TRUE(finish(truncation));
  EXPECT_EQ(onServer(), "01234");
}

TEST_F(Truncating, ToNothingEndsADownloadThatNobodyNeedsAnyMore) {
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  file = arrivingFile("0123456789", 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto truncation = inBackground([this] { return file->_truncateToOffset(0, nullptr); });
  EXPECT_TRUE(finish(truncation));
  EXPECT_EQ(onServer(), "");
  EXPECT_EQ(file->attributes().fileSize, 0u);
  EXPECT_EQ(file->contentState(), GMContentState::kComplete);
  EXPECT_EQ(server.transfers("downloadFileAtPath")[0].bytes, "0123");
}

TEST_F(Truncating, ToNothingEndsADownloadThatHasYetToBegin) {
  const auto hold = server.hold("downloadFileAtPath", kPath);
  server.addFile(kPath, "0123456789");
  file = makeFile();
  auto opening = inBackground([this] { return file->openWithMode(kO_RDWR, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto truncation = inBackground([this] { return file->_truncateToOffset(0, nullptr); });
  EXPECT_TRUE(finish(truncation));
  EXPECT_TRUE(finish(opening));
  EXPECT_EQ(onServer(), "");
  EXPECT_EQ(file->contentState(), GMContentState::kComplete);
}

TEST_F(Truncating, EndsAnIdleStreamAtOnce) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  EXPECT_TRUE(file->_truncateToOffset(2, nullptr));
  EXPECT_EQ(onServer(), "he");
}

TEST_F(Truncating, WithoutAFileHandleFailsWithEIO) {
  file = makeFile();
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_FALSE(file->_truncateToOffset(0, &error));
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(trace.messagesWith("no file handle for truncating\n\nfile:").size(), 1u);
}

TEST_F(Truncating, ThatTheSystemRefusesFailsWithTheNumber) {
  file = downloadedFile("0123456789");
  ASSERT_EQ(read(*file, 3, 1), "123");
  calls.fail(Call::kFtruncate, EFBIG);
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_FALSE(file->_truncateToOffset(4, &error));
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(trace.messagesWith("ftruncate failed, errno = 27 (File too large)\n\nfile:").size(), 1u);
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(file->bytesAvailable(), 0u);
  EXPECT_EQ(file->bytesRequired(), 0u);
  EXPECT_EQ(onServer(), "0123456789");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Truncating, ToANegativeLengthFailsWithEIO) {
  file = downloadedFile("0123456789");
  NSErrorRef error;
  EXPECT_FALSE(file->_truncateToOffset(-1, &error));
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(read(*file, 10, 0), "0123456789");
}

TEST_F(Truncating, ThatIsInterruptedGoesOnToTheUpload) {
  file = downloadedFile("0123456789");
  calls.fail(Call::kFtruncate, EINTR);
  EXPECT_TRUE(file->_truncateToOffset(4, nullptr));
  EXPECT_EQ(server.count("uploadFileHandle"), 1u);
}

TEST_F(Truncating, ThatTheServerRefusesFailsAndIsMadeGoodLater) {
  file = downloadedFile("0123456789");
  const NSErrorRef lost = QuarnKitError::errorWithCode(kQuarnKitConnectionLost);
  server.fail("uploadFileHandle", kPath, lost);
  const TraceRecorder trace;
  NSErrorRef error;
  EXPECT_FALSE(file->_truncateToOffset(4, &error));
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), nullptr);
  const auto messages =
      trace.messagesWith("upload to /docs/a.bin failed: " + lost->description() + "\n\nfile:");
  ASSERT_EQ(messages.size(), 1u);
  EXPECT_TRUE(messages[0].ends_with(" /docs/a.bin"));
  EXPECT_EQ(file->lastError(), nullptr);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123");
}

TEST_F(Truncating, ToNothingThatFailsIsNotMadeGoodLater) {
  file = downloadedFile("0123456789");
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  EXPECT_FALSE(file->_truncateToOffset(0, nullptr));
  EXPECT_EQ(file->contentState(), GMContentState::kFailed);
  EXPECT_TRUE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123456789");
}

TEST_F(Truncating, ToNothingMayBeTriedAgain) {
  file = downloadedFile("0123456789");
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  EXPECT_FALSE(file->_truncateToOffset(0, nullptr));
  EXPECT_TRUE(file->_truncateToOffset(0, nullptr));
  EXPECT_EQ(file->contentState(), GMContentState::kComplete);
  EXPECT_EQ(onServer(), "");
}

TEST_F(Truncating, ThatTheServerDoesNotPermitIsNotMadeGoodLater) {
  for (const QuarnKitErrorCode code : {kQuarnKitPermissionDenied, kQuarnKitReadOnly}) {
    file = downloadedFile("0123456789");
    server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(code));
    EXPECT_FALSE(file->_truncateToOffset(4, nullptr));
    EXPECT_EQ(file->contentState(), GMContentState::kFailed);
    EXPECT_TRUE(file->isCovered());
    EXPECT_EQ(onServer(), "0123456789");
  }
}

// Written bytes that are nowhere else are not given up for that.
TEST_F(Truncating, ThatFailsKeepsTheDoubtAboutWhatWasUnsentBefore) {
  file = downloadedFile("0123456789");
  gStreamingSupported = false;
  server.fail("uploadFileAtPath", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  write(*file, "01", 0);
  waitForState(*file, kOFSSettled);
  server.fail("uploadFileHandle", kPath, QuarnKitError::errorWithCode(kQuarnKitPermissionDenied));
  EXPECT_FALSE(file->_truncateToOffset(4, nullptr));
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123");
}

TEST_F(Truncating, HoldsTheConditionDuringTheTransfer) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle");
  auto truncation = inBackground([this] { return file->_truncateToOffset(4, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto attributes = inBackground([this] { return file->attributes(); });
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(isRunning(attributes));
  hold->release();
  EXPECT_TRUE(finish(truncation));
  EXPECT_EQ(finish(attributes).fileSize, 4u);
}

}  // namespace
}  // namespace ombra
