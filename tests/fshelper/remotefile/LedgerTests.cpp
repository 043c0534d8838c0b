// Nothing lost: what the server is known to have, and synchronising what it has not.

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;

class Ledger : public RemoteFileTest {
 protected:
  size_t streams() const { return server.transfers("streamBytesWithFilename").size(); }
  size_t uploads() const { return server.transfers("uploadFileAtPath").size(); }
};

TEST_F(Ledger, OfAFileWithoutChangesHasNothingToSynchronise) {
  file = downloadedFile("hello");
  EXPECT_TRUE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_TRUE(server.callTexts().empty());
}

TEST_F(Ledger, DoesNotWaitForADownloadWithoutChanges) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_FALSE(file->isCovered()) << "a transfer runs";
  hold->release();
}

TEST_F(Ledger, IsCoveredByAFinishedStreamAsLongAsTheFile) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_EQ(write(*file, " world", 5), 6);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(streams(), 1u);
  EXPECT_EQ(uploads(), 0u) << "the stream was let end and covered it all";
  EXPECT_EQ(onServer(), "hello world");
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Ledger, KeepsAHeaderThatIsPatchedAfterStreaming) {
  file = createdFile();
  ASSERT_EQ(write(*file, "head----", 0), 8);
  ASSERT_EQ(write(*file, "the body", 8), 8);
  ASSERT_EQ(write(*file, "HEAD", 0), 4);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "HEAD----the body");
  EXPECT_EQ(uploads(), 1u);
  EXPECT_TRUE(file->isCovered());
}

TEST_F(Ledger, KeepsTheRestOfAFileThatIsOverwrittenInTheMiddle) {
  file = downloadedFile("0123456789");
  ASSERT_EQ(write(*file, "XY", 4), 2);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0123XY6789");
}

TEST_F(Ledger, IsCoveredByAStreamThatOverwritesTheWholeFileFrontToBack) {
  file = downloadedFile("0123456789");
  ASSERT_EQ(write(*file, "abcde", 0), 5);
  ASSERT_EQ(write(*file, "fghij", 5), 5);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "abcdefghij");
  EXPECT_EQ(uploads(), 0u);
}

TEST_F(Ledger, KeepsAChangeThatTheRunningStreamHasNotGot) {
  file = createdFile();
  ASSERT_EQ(write(*file, "0123", 0), 4);
  gStreamingSupported = false;
  gUploadingSupported = false;
  ASSERT_EQ(write(*file, "X", 1), 1);  // stays local
  gStreamingSupported = true;
  gUploadingSupported = true;
  ASSERT_EQ(write(*file, "4567", 4), 4);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "0X234567") << "the stream was as long as the file and yet not the file";
}

TEST_F(Ledger, IsCoveredByAPassOnlyAsFarAsItsSnapshotWent) {
  gStreamingSupported = false;
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  gUploadingSupported = false;
  ASSERT_EQ(write(*file, "!", 5), 1);  // asks for no further pass
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(uploads(), 1u);
  EXPECT_EQ(onServer(), "hello");
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello!");
}

TEST_F(Ledger, IsNotCoveredWhenALaterPassFails) {
  gStreamingSupported = false;
  const auto hold = server.hold("uploadFileAtPath", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "!", 5), 1);
  server.fail("uploadFileAtPath", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  hold->release();
  waitForState(*file, kOFSSettled);
  ASSERT_EQ(uploads(), 2u);
  EXPECT_EQ(onServer(), "hello");
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello!");
}

TEST_F(Ledger, KeepsWhatIsWrittenIntoTheTailOfAnEndingStream) {
  const auto end = server.hold("streamBytesWithFilename", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  clock->advance(6.0);
  ASSERT_TRUE(end->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, " world", 5); });
  waitForWaiters(*file, 1);
  auto synchroniser = inBackground([this] { return file->synchronize(nullptr); });
  waitForWaiters(*file, 2);
  end->release();
  EXPECT_EQ(finish(writer), 6);
  EXPECT_TRUE(finish(synchroniser));
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello world");
}

TEST_F(Ledger, UploadsAfterAStreamThatFailed) {
  server.failAfter("streamBytesWithFilename", kPath, 5,
                   QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Ledger, TellsWhyASynchronisationFailed) {
  server.fail("streamBytesWithFilename", kPath, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  const NSErrorRef full = QuarnKitError::errorWithCode(kQuarnKitOutOfSpace);
  server.failAlways("uploadFileAtPath", kPath, full);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  waitForState(*file, kOFSSettled);
  NSErrorRef error;
  EXPECT_FALSE(file->synchronize(&error));
  ASSERT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(error->underlyingError(), full);
  EXPECT_FALSE(file->isCovered());
  EXPECT_EQ(file->state(), kOFSSettled);
  server.stopFailing();
  EXPECT_TRUE(file->synchronize(&error));
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Ledger, IsSynchronisedWithoutTheTimeLimitOfAWriter) {
  gStreamingSupported = false;
  gUploadingSupported = false;
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 1);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  auto synchroniser = inBackground([this] { return file->synchronize(nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  clock->advance(10000.0);
  EXPECT_TRUE(isRunning(synchroniser));
  hold->release();
  EXPECT_TRUE(finish(synchroniser));
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Ledger, HoldsLaterWritesUpWhileItIsSynchronised) {
  gStreamingSupported = false;
  gUploadingSupported = false;
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  auto synchroniser = inBackground([this] { return file->synchronize(nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "HE", 0); });
  waitForWaiters(*file, 2);
  EXPECT_TRUE(isRunning(writer));
  hold->release();
  EXPECT_TRUE(finish(synchroniser));
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(onServer(), "hello");
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "HEllo");
}

TEST_F(Ledger, ServesTwoSynchronisersWithOneUpload) {
  gStreamingSupported = false;
  gUploadingSupported = false;
  const auto hold = server.hold("uploadFileAtPath");
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  auto first = inBackground([this] { return file->synchronize(nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto second = inBackground([this] { return file->synchronize(nullptr); });
  waitForWaiters(*file, 2);
  hold->release();
  EXPECT_TRUE(finish(first));
  EXPECT_TRUE(finish(second));
  EXPECT_EQ(uploads(), 1u);
}

TEST_F(Ledger, TriesAgainWhenAWriterOnItsWayCancelledTheUpload) {
  gStreamingSupported = false;
  server.setChunkSize(1);
  const auto first = server.hold("uploadFileAtPath", kPath, 5);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(first->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "XY", 2); });
  waitForWaiters(*file, 1);
  auto synchroniser = inBackground([this] { return file->synchronize(nullptr); });
  waitForWaiters(*file, 2);
  first->release();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_TRUE(finish(synchroniser));
  EXPECT_EQ(onServer(), "01XY456789");
}

TEST_F(Ledger, OfAnUploadThatWasCancelledDoubtsWhatTheServerHas) {
  // The file was covered; a last upload of it that fails half-way leaves who knows what.
  gStreamingSupported = false;
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 5);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_EQ(write(*file, "ab", 10), 2);
  auto closer = inBackground([this] {
    try {
      file->close();
    } catch (const KCException&) {
    }
  });
  waitForWaiters(*file, 1);
  int number = 1;
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name != "uploadFileAtPath" || ++number != 3) return;
    server.failAfter("uploadFileAtPath", kPath, 3, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  });
  hold->release();
  finish(closer);
  waitForState(*file, kOFSSettled);
  server.setObserver({});
  ASSERT_EQ(uploads(), 3u);
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(uploads(), 4u);
  EXPECT_EQ(onServer(), "0123456789ab");
}

TEST_F(Ledger, WithoutAThreadForTheUploadFailsAndLeavesNobodyWaiting) {
  gUploadingSupported = false;
  gStreamingSupported = false;
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  calls.fail(Call::kThread, EAGAIN);
  NSErrorRef error;
  EXPECT_FALSE(file->synchronize(&error));
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_TRUE(isPosixError(error->underlyingError(), EAGAIN));
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_TRUE(file->synchronize(nullptr));
}

TEST_F(Ledger, EndsAnIdleStreamButNotForReaders) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  auto reader = inBackground([this] { return read(*file, 5, 0); });
  waitForWaiters(*file, 1);
  (void)file->attributes();
  EXPECT_EQ(file->state(), kOFSStreaming);
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(finish(reader), "hello");
}

TEST_F(Ledger, OfAnAbandonedFileSendsNothingMore) {
  file = createdFile();
  file->abandon();
  EXPECT_EQ(write(*file, "hello", 0), 5);
  EXPECT_EQ(read(*file, 5, 0), "hello");
  EXPECT_TRUE(file->_truncateToOffset(3, nullptr));
  NSFileAttributes change;
  change.posixPermissions = 0600;
  EXPECT_TRUE(file->setAttributes(change, nullptr));
  EXPECT_EQ(file->attributes().fileSize, 3u);
  EXPECT_TRUE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  file->close();
  EXPECT_TRUE(server.transfers().size() == 1u) << "only the empty file of its creation";
  EXPECT_EQ(server.count("changeAttributes"), 0u);
}

TEST_F(Ledger, AbandonedWhileStreamingWaitsForTheStreamToEnd) {
  server.setStreamCapacity(2);
  const auto hold = server.hold("streamBytesWithFilename", kPath, kAtEnd);
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  clock->waitForSleepers(1);
  file->abandon();
  EXPECT_EQ(file->state(), kOFSSettled);
  ASSERT_EQ(streams(), 1u);
  EXPECT_TRUE(server.transfers("streamBytesWithFilename")[0].finished);
  EXPECT_FALSE(server.transfers("streamBytesWithFilename")[0].succeeded);
  server.removeItem(kPath);
  EXPECT_EQ(write(*file, " world", 5), 6);
  EXPECT_FALSE(server.exists(kPath)) << "the removed file must not come back";
  hold->release();
}

TEST_F(Ledger, AbandonedWaitsAlsoForAWorkerThatCannotBeToldToStop) {
  file = createdFile();
  std::promise<void> go;
  calls.delayNextThread(go.get_future().share());
  auto writer = inBackground([this] { return write(*file, "hello", 0); });
  waitForWaiters(*file, 1);
  auto abandoner = inBackground([this] { file->abandon(); });
  EXPECT_EQ(finish(writer), 5);
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(abandoner)) << "the worker could still make the file again";
  go.set_value();
  finish(abandoner);
  EXPECT_EQ(streams(), 0u);
}

TEST_F(Ledger, AbandonedWhileAWriterWaitsLetsItSucceed) {
  gStreamingSupported = false;
  server.setChunkSize(1);
  const auto hold = server.hold("uploadFileAtPath", kPath, 1);
  file = createdFile();
  ASSERT_EQ(write(*file, "0123456789", 0), 10);
  ASSERT_TRUE(hold->waitUntilHeld());
  auto writer = inBackground([this] { return write(*file, "ab", 10); });
  waitForWaiters(*file, 1);
  file->abandon();
  EXPECT_EQ(finish(writer), 2);
  EXPECT_EQ(read(*file, 12, 0), "0123456789ab");
  EXPECT_EQ(uploads(), 1u);
}

TEST_F(Ledger, AbandonedWhileDownloadingGoesOnDownloading) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  file->abandon();
  hold->release();
  EXPECT_EQ(read(*file, 10, 0), "0123456789");
}

TEST_F(Ledger, ReclaimedCountsItsChangesAgain) {
  file = createdFile();
  file->abandon();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  file->reclaim();
  EXPECT_FALSE(file->isCovered());
  EXPECT_TRUE(file->synchronize(nullptr));
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(Ledger, SavesContentThatCouldNotBeSent) {
  gUploadingSupported = false;
  gStreamingSupported = false;
  file = createdFile();
  ASSERT_EQ(write(*file, "precious", 4), 8);
  const std::string path = std::filesystem::temp_directory_path() /
                           (std::filesystem::path(iFolder).filename().string() + "-recovered");
  ASSERT_TRUE(file->saveContentAs(path));
  std::ifstream saved(path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(saved), {}), std::string("\0\0\0\0precious", 12));
  std::filesystem::remove(path);
  file->abandon();
}

TEST_F(Ledger, SavesNothingWhereThereIsNoRoom) {
  file = downloadedFile("hello");
  const std::string path = std::filesystem::temp_directory_path() /
                           (std::filesystem::path(iFolder).filename().string() + "-recovered");
  calls.fail(Call::kCopyRange, ENOSPC);
  errno = 0;
  EXPECT_FALSE(file->saveContentAs(path));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(makeFile()->saveContentAs(path));
  EXPECT_EQ(errno, EBADF);
}

TEST_F(Ledger, SavesNothingOverAnotherFile) {
  file = downloadedFile("hello");
  const std::string path = std::filesystem::temp_directory_path() /
                           (std::filesystem::path(iFolder).filename().string() + "-recovered");
  std::ofstream(path) << "only copy";
  errno = 0;
  EXPECT_FALSE(file->saveContentAs(path));
  EXPECT_EQ(errno, EEXIST);
  std::ifstream kept(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "only copy");
  std::filesystem::remove(path);
}

TEST_F(Ledger, LetsWritersOnWhenASynchronisationRaises) {
  gUploadingSupported = false;
  gStreamingSupported = false;
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  calls.afterNextThread([] { throw std::bad_alloc(); });
  EXPECT_THROW(file->synchronize(nullptr), std::bad_alloc);
  auto writer = inBackground([this] { return write(*file, "HE", 0); });
  EXPECT_EQ(finish(writer), 2);
  EXPECT_TRUE(file->synchronize(nullptr));
}

TEST_F(Ledger, CancelsOnlyDownloads) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  file->cancelDownload();
  EXPECT_EQ(file->bytesRequired(), 5u);
  EXPECT_EQ(write(*file, " world", 5), 6);
  file->close();
  EXPECT_EQ(onServer(), "hello world");
}

}  // namespace
}  // namespace ombra
