// A file that is moved while something of it is being sent.

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

constexpr const char* kNewPath = "/docs/moved.bin";

using MovedFile = RemoteFileTest;
using MovedInPlace = InPlaceFileTest;

TEST_F(MovedFile, IsUploadedAgainWhereItIsNow) {
  gStreamingSupported = false;
  const auto hold = server.hold("uploadFileAtPath", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  file->setRemotePath(kNewPath);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(kNewPath), "hello");
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_TRUE(file->isCovered());
}

TEST_F(MovedFile, IsUploadedAgainWhereItIsNowAlsoWhenItsOldPlaceIsGone) {
  gStreamingSupported = false;
  const auto hold = server.hold("uploadFileAtPath", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  file->setRemotePath(kNewPath);
  hold->releaseFailing(QuarnKitError::errorWithCode(kQuarnKitNoSuchItem));
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(onServer(kNewPath), "hello");
  EXPECT_EQ(file->lastError(), nullptr);
}

TEST_F(MovedFile, IsNotCoveredByAStreamToItsOldPath) {
  const auto hold = server.hold("streamBytesWithFilename", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  clock->advance(6.0);
  ASSERT_TRUE(hold->waitUntilHeld());
  file->setRemotePath(kNewPath);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(kNewPath), "hello");
}

TEST_F(MovedFile, DoesNotSwitchStreamingOffWhenItsOldPlaceIsGone) {
  const auto hold = server.hold("streamBytesWithFilename", kPath);
  file = createdFile();
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  ASSERT_TRUE(hold->waitUntilHeld());
  file->setRemotePath(kNewPath);
  hold->releaseFailing(QuarnKitError::errorWithCode(kQuarnKitNoSuchItem));
  EXPECT_EQ(finish(writer), 5);
  EXPECT_TRUE(gStreamingSupported);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(kNewPath), "hello");
}

TEST_F(MovedInPlace, IsSentAgainAsAWholeWhereItIsNow) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle", kPath, kAtEnd);
  auto writer = inBackground([this] { return write(*file, "XY", 4); });
  ASSERT_TRUE(hold->waitUntilHeld());
  file->setRemotePath(kNewPath);
  hold->release();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(kNewPath), "0123XY6789");
}

TEST_F(MovedInPlace, IsTruncatedWhereItIsNow) {
  file = downloadedFile("0123456789");
  const auto hold = server.hold("uploadFileHandle", kPath, kAtEnd);
  auto truncation = inBackground([this] { return file->_truncateToOffset(4, nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  file->setRemotePath(kNewPath);
  hold->release();
  EXPECT_TRUE(finish(truncation));
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(kNewPath), "0123");
}

// The move begins while the truncation waits for something else.
TEST_F(MovedFile, IsTruncatedAfterTheMoveThatBeganDuringItsDownload) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  auto truncation = inBackground([this] { return file->_truncateToOffset(4, nullptr); });
  waitForWaiters(*file, 1);
  file->holdWrites();
  hold->release();
  waitForState(*file, kOFSSettled);
  waitForWaiters(*file, 1);
  EXPECT_TRUE(server.transfers("uploadFileHandle").empty());
  file->setRemotePath(kNewPath);
  file->letWritesGo();
  EXPECT_TRUE(finish(truncation));
  EXPECT_EQ(onServer(kNewPath), "0123");
  EXPECT_EQ(onServer(kPath), "0123456789");
}

TEST_F(MovedFile, IsGivenItsModeWhereItIsNow) {
  file = downloadedFile("0123456789");
  server.addFile(kNewPath, "0123456789");
  file->holdWrites();
  NSFileAttributes mode;
  mode.posixPermissions = 0600;
  auto change = inBackground([&] { return file->setAttributes(mode, nullptr); });
  waitForWaiters(*file, 1);
  EXPECT_EQ(server.count("changeAttributes"), 0u);
  file->setRemotePath(kNewPath);
  file->letWritesGo();
  EXPECT_TRUE(finish(change));
  EXPECT_EQ(server.attributes(kNewPath)->posixPermissions, 0600);
}

}  // namespace
}  // namespace ombra
