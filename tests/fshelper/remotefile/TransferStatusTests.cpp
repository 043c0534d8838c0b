// What an open file tells of its transfers while they run. Each test asks while the transfer is held: an
// answer that waited for it would never come.

#include "remote/QuarnKitError.h"
#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using Direction = OFSTransferRecord::Direction;

NSErrorRef full() { return QuarnKitError::errorWithCode(kQuarnKitOutOfSpace); }

class TransferStatus : public RemoteFileTest {};
class UploadingStatus : public UploadingFileTest {};
class InPlaceStatus : public InPlaceFileTest {};

TEST_F(TransferStatus, OfADownloadIsWhatHasArrived) {
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  file = arrivingFile("0123456789", 4);
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto snapshot = file->transfer().snapshot();
  EXPECT_TRUE(snapshot.running);
  EXPECT_EQ(snapshot.direction, Direction::kDownload);
  EXPECT_EQ(snapshot.done, 4u);
  EXPECT_EQ(snapshot.ledger, OFSTransferRecord::Ledger::kCovered);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_FALSE(file->transfer().snapshot().running);
}

TEST_F(TransferStatus, OfADownloadThatFailedTellsTheVolume) {
  const auto totals = std::make_shared<OFSTransferTotals>();
  server.addFile(kPath, "0123456789");
  server.failAfter("downloadFileAtPath", kPath, 3, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  file = makeFile();
  file->transfer().setTotals(totals);
  EXPECT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(totals->received(), 3u);
  ASSERT_TRUE(totals->lastFailure());
  EXPECT_EQ(totals->lastFailure()->path, kPath);
}

TEST_F(TransferStatus, OfADownloadThatWasEndedOnPurposeIsNoFailure) {
  const auto totals = std::make_shared<OFSTransferTotals>();
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  server.addFile(kPath, "0123456789");
  file = makeFile();
  file->transfer().setTotals(totals);
  EXPECT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  ASSERT_TRUE(hold->waitUntilHeld());
  file->cancelDownload();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(totals->lastFailure(), std::nullopt);
}

TEST_F(TransferStatus, OfAStreamIsWhatTheServerTook) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 3);
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto snapshot = file->transfer().snapshot();
  EXPECT_TRUE(snapshot.running);
  EXPECT_EQ(snapshot.direction, Direction::kUpload);
  EXPECT_EQ(snapshot.done, 3u);
  EXPECT_EQ(snapshot.size, std::nullopt) << "the program may go on writing";
  EXPECT_EQ(snapshot.ledger, OFSTransferRecord::Ledger::kUnsent);
  hold->release();
  EXPECT_EQ(finish(writer), 5);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_FALSE(file->transfer().snapshot().running);
  EXPECT_EQ(file->transfer().snapshot().ledger, OFSTransferRecord::Ledger::kCovered);
}

TEST_F(TransferStatus, OfAStreamThatSomebodyWaitsForKnowsThatNoMoreComes) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, 3);
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto close = inBackground([this] { return file->synchronize(nullptr); });
  eventually([this] { return file->transfer().snapshot().lastBytes; }, "somebody who waits");
  hold->release();
  EXPECT_EQ(finish(writer), 5);
  EXPECT_TRUE(finish(close));
  EXPECT_FALSE(file->transfer().snapshot().lastBytes);
}

TEST_F(UploadingStatus, OfAWholeFileIsItsProgress) {
  const auto hold = server.hold("uploadFileAtPath", kPath, 2);
  server.setChunkSize(1);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto snapshot = file->transfer().snapshot();
  EXPECT_TRUE(snapshot.running);
  EXPECT_EQ(snapshot.done, 2u);
  EXPECT_EQ(snapshot.size, 5u);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_FALSE(file->transfer().snapshot().running);
}

TEST_F(UploadingStatus, OfAFileThatCouldNotBeSentIsUnsentWithTheReason) {
  server.failAlways("uploadFileAtPath", kPath, full());
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  EXPECT_FALSE(file->synchronize(nullptr));
  auto snapshot = file->transfer().snapshot();
  EXPECT_FALSE(snapshot.running);
  EXPECT_EQ(snapshot.ledger, OFSTransferRecord::Ledger::kUnsent);
  EXPECT_EQ(snapshot.failure, full()->localizedDescription());
  server.stopFailing();
  EXPECT_TRUE(file->synchronize(nullptr));
  snapshot = file->transfer().snapshot();
  EXPECT_EQ(snapshot.ledger, OFSTransferRecord::Ledger::kCovered);
  EXPECT_EQ(snapshot.failure, "");
}

TEST_F(UploadingStatus, OfAnAbandonedFileWaitsForNothing) {
  server.failAlways("uploadFileAtPath", kPath, full());
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  EXPECT_FALSE(file->synchronize(nullptr));
  file->abandon();
  EXPECT_EQ(file->transfer().snapshot().ledger, OFSTransferRecord::Ledger::kAbandoned);
  file->reclaim();
  EXPECT_EQ(file->transfer().snapshot().ledger, OFSTransferRecord::Ledger::kUnsent);
  file->abandon();
}

// The condition is held during these: nothing else of the file answers.
TEST_F(InPlaceStatus, IsAnsweredWhileAWriteIsOnItsWay) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle", kPath, 1);
  auto writer = inBackground([this] { return write(*file, "XY", 4); });
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto snapshot = file->transfer().snapshot();
  EXPECT_TRUE(snapshot.running);
  EXPECT_TRUE(snapshot.inPieces);
  EXPECT_EQ(snapshot.ledger, OFSTransferRecord::Ledger::kUnsent);
  hold->release();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(file->transfer().snapshot().done, 2u);
  EXPECT_EQ(file->transfer().snapshot().ledger, OFSTransferRecord::Ledger::kCovered);
}

TEST_F(InPlaceStatus, IsAnsweredWhileATruncationIsOnItsWay) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle", kPath);
  auto truncation = inBackground([this] { return file->_truncateToOffset(5, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  const auto snapshot = file->transfer().snapshot();
  EXPECT_TRUE(snapshot.running);
  EXPECT_EQ(snapshot.size, 5u);
  hold->release();
  EXPECT_TRUE(finish(truncation));
  EXPECT_FALSE(file->transfer().snapshot().running);
}

TEST_F(InPlaceStatus, EndsWhenTheProgramHasClosedTheFile) {
  file = downloadedFile("0123456789");
  ASSERT_EQ(write(*file, "XY", 4), 2);
  EXPECT_TRUE(file->transfer().snapshot().running) << "the next write may follow";
  file->fileHandle()->extents()->beginSending();
  file->fileHandle()->extents()->endSending(nullptr);
  EXPECT_TRUE(file->synchronize(nullptr));
  clock->advance(2.0);
  EXPECT_FALSE(file->transfer().snapshot().running);
}

TEST_F(InPlaceStatus, OfAWriteThatWasRefusedIsUnsentWithTheReason) {
  file = downloadedFile("0123456789");
  server.fail("uploadFileHandle", kPath, full());
  EXPECT_EQ(write(*file, "XY", 4), -1);
  const auto snapshot = file->transfer().snapshot();
  EXPECT_FALSE(snapshot.running);
  EXPECT_EQ(snapshot.ledger, OFSTransferRecord::Ledger::kUnsent);
  EXPECT_EQ(snapshot.failure, full()->localizedDescription());
  EXPECT_TRUE(file->synchronize(nullptr));
}

}  // namespace
}  // namespace ombra
