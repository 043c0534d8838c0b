// The record that transfers keep for those who ask how far they are.

#include "fshelper/OFSTransferRecord.h"

#include "remote/QuarnKitError.h"
#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using Direction = OFSTransferRecord::Direction;
using StoredState = OFSTransferRecord::Ledger;

NSErrorRef lost() { return QuarnKitError::errorWithCode(kQuarnKitConnectionLost); }

class TransferRate : public ::testing::Test {
 protected:
  void grow(uint64_t bytes, double seconds) {
    clock.advance(seconds);
    rate.add(clock.now(), count += bytes);
  }
  std::optional<uint64_t> now() const { return rate.perSecond(clock.now()); }
  ManualClock clock;
  OFSTransferRate rate;
  uint64_t count = 0;
};

TEST_F(TransferRate, IsUnknownBeforeAnythingBeganAndInTheFirstHalfSecond) {
  EXPECT_EQ(now(), std::nullopt);
  rate.begin(clock.now());
  grow(100, 0.4);
  EXPECT_EQ(now(), std::nullopt);
  grow(100, 0.1);
  EXPECT_EQ(now(), 400u);
}

TEST_F(TransferRate, IsThatOfTheLastFiveSeconds) {
  rate.begin(clock.now());
  for (int i = 0; i < 20; ++i) grow(500, 0.5);
  EXPECT_EQ(now(), 1000u);
  for (int i = 0; i < 10; ++i) grow(50, 0.5);
  EXPECT_EQ(now(), 100u) << "what was faster is more than five seconds ago";
}

TEST_F(TransferRate, FallsWhileNothingMovesAndIsZeroAfterFiveSeconds) {
  rate.begin(clock.now());
  grow(1000, 1.0);
  clock.advance(1.0);
  EXPECT_EQ(now(), 500u);
  clock.advance(3.9);
  EXPECT_GT(now(), 0u);
  clock.advance(0.2);
  EXPECT_EQ(now(), 0u);
  grow(0, 0.1);
  EXPECT_EQ(now(), 0u) << "a report that nothing moved is no movement";
}

TEST_F(TransferRate, OfManyReportsKeepsFewSamples) {
  rate.begin(clock.now());
  for (int i = 0; i < 1000; ++i) grow(10, 0.01);
  EXPECT_EQ(now(), 1000u);
}

TEST_F(TransferRate, BeginsAnewWhenTheSystemsClockIsSetBack) {
  rate.begin(clock.now());
  grow(100, 1.0);
  const NSDate before = clock.now().dateByAddingTimeInterval(-3600);
  rate.add(before, 200);
  EXPECT_EQ(rate.perSecond(before), std::nullopt);
  rate.add(before.dateByAddingTimeInterval(1), 300);
  EXPECT_EQ(rate.perSecond(before.dateByAddingTimeInterval(1)), 100u);
}

class TransferRecord : public ::testing::Test {
 protected:
  TransferRecord() { record.setTotals(totals); }
  ManualClock clock;
  const std::shared_ptr<OFSTransferTotals> totals = std::make_shared<OFSTransferTotals>();
  OFSTransferRecord record;
};

TEST_F(TransferRecord, OfAFileThatDoesNothingIsEmpty) {
  const auto snapshot = record.snapshot();
  EXPECT_FALSE(snapshot.running);
  EXPECT_EQ(snapshot.ledger, StoredState::kCovered);
  EXPECT_EQ(snapshot.perSecond, std::nullopt);
  EXPECT_EQ(totals->lastFailure(), std::nullopt);
}

TEST_F(TransferRecord, TellsHowFarATransferIsAndHowFast) {
  record.begin(Direction::kUpload, 1000);
  clock.advance(1.0);
  record.moved(250);
  const auto snapshot = record.snapshot();
  EXPECT_TRUE(snapshot.running);
  EXPECT_EQ(snapshot.direction, Direction::kUpload);
  EXPECT_EQ(snapshot.done, 250u);
  EXPECT_EQ(snapshot.size, 1000u);
  EXPECT_EQ(snapshot.perSecond, 250u);
  record.end("/a", nullptr);
  EXPECT_FALSE(record.snapshot().running);
}

TEST_F(TransferRecord, AddsUpWhatAllTransfersMoved) {
  OFSTransferRecord other;
  other.setTotals(totals);
  record.begin(Direction::kDownload);
  record.moved(10);
  record.moved(30);
  record.end("/a", nullptr);
  other.begin(Direction::kUpload);
  other.moved(5);
  other.end("/b", nullptr);
  record.beginPiece();
  record.endPiece(7);
  EXPECT_EQ(totals->received(), 30u);
  EXPECT_EQ(totals->sent(), 12u);
}

TEST_F(TransferRecord, OfATransferThatBeganAgainCountsWhatItMovesFromThere) {
  record.begin(Direction::kUpload);
  record.moved(100);
  record.moved(10);
  record.moved(40);
  EXPECT_EQ(record.snapshot().done, 40u);
  EXPECT_EQ(totals->sent(), 130u);
}

TEST_F(TransferRecord, ALateReportAfterTheEndIsNotCounted) {
  record.begin(Direction::kUpload);
  record.end("/a", nullptr);
  record.moved(100);
  EXPECT_EQ(totals->sent(), 0u);
}

TEST_F(TransferRecord, OfPiecesIsOneTransferWhileTheyFollowEachOther) {
  for (int i = 0; i < 4; ++i) {
    record.beginPiece();
    clock.advance(0.5);
    record.endPiece(100);
    clock.advance(0.5);
  }
  auto snapshot = record.snapshot();
  EXPECT_TRUE(snapshot.running) << "the program goes on writing";
  EXPECT_TRUE(snapshot.inPieces);
  EXPECT_EQ(snapshot.done, 400u);
  EXPECT_EQ(snapshot.perSecond, 100u);
  clock.advance(2.0);
  EXPECT_FALSE(record.snapshot().running) << "it does not";
  record.beginPiece();
  record.endPiece(1);
  EXPECT_EQ(record.snapshot().done, 1u) << "and this is another one";
}

TEST_F(TransferRecord, KnowsWhenSomebodyWaitsForTheLastBytes) {
  record.begin(Direction::kUpload);
  EXPECT_FALSE(record.snapshot().lastBytes);
  {
    const OFSTransferRecord::LastBytes lastBytes(record);
    EXPECT_TRUE(record.snapshot().lastBytes);
  }
  EXPECT_FALSE(record.snapshot().lastBytes);
}

TEST_F(TransferRecord, KeepsTheReasonOfAnUploadThatFailedUntilTheServerHasTheFile) {
  record.begin(Direction::kUpload);
  record.setLedger(StoredState::kUnsent);
  record.end("/docs/a", lost());
  EXPECT_EQ(record.snapshot().failure, lost()->localizedDescription());
  ASSERT_TRUE(totals->lastFailure());
  EXPECT_EQ(totals->lastFailure()->path, "/docs/a");
  EXPECT_EQ(totals->lastFailure()->date, clock.now());
  record.setLedger(StoredState::kCovered);
  EXPECT_EQ(record.snapshot().failure, "");
  EXPECT_TRUE(totals->lastFailure()) << "the volume's last error stays";
}

TEST_F(TransferRecord, NamesWhatLiesBeneathAnInputOutputError) {
  NSDictionary userInfo;
  userInfo.setObject(PropertyValue(lost()), NSUnderlyingErrorKey);
  record.begin(Direction::kDownload);
  record.end("/a", NSError::errorWithDomain(NSPOSIXErrorDomain, kEIO, userInfo));
  EXPECT_EQ(totals->lastFailure()->text, lost()->localizedDescription());
  EXPECT_EQ(record.snapshot().failure, "") << "what could not be fetched is not waiting to be sent";
}

TEST_F(TransferRecord, SaysWhatTheSystemSaidOfTheCopyOnThisMachine) {
  record.begin(Direction::kDownload);
  record.end("/a", QuarnKitError::errorWithCode(kQuarnKitLocalFailure, "/srv/a",
                                                NSError::errorWithDomain(NSPOSIXErrorDomain, ENOSPC)));
  EXPECT_EQ(totals->lastFailure()->text,
            "A local file could not be read or written: No space left on device");
}

TEST_F(TransferRecord, OfACancelledTransferKeepsNoFailure) {
  record.begin(Direction::kUpload);
  record.end("/a", QuarnKitError::errorWithCode(kQuarnKitCancelled));
  EXPECT_EQ(totals->lastFailure(), std::nullopt);
  EXPECT_EQ(record.snapshot().failure, "");
}

}  // namespace
}  // namespace ombra
