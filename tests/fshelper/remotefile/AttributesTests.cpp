// Attributes of the cache file, and their change here and on the server.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>

#include "tests/fshelper/remotefile/RemoteFileFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using OpenFileAttributes = RemoteFileTest;

const NSDate kDate = NSDate::dateWithNanoseconds(1234567890123456789);

NSFileAttributes permissions(uint16_t mode) {
  NSFileAttributes attributes;
  attributes.posixPermissions = mode;
  return attributes;
}

NSFileAttributes modified(NSDate date) {
  NSFileAttributes attributes;
  attributes.modificationDate = date;
  return attributes;
}

TEST_F(OpenFileAttributes, AreThoseOfTheCacheFile) {
  file = downloadedFile("hello");
  const NSFileAttributes attributes = file->attributes();
  EXPECT_EQ(attributes.fileSize, 5u);
  EXPECT_EQ(attributes.posixPermissions, 0600);
  EXPECT_TRUE(attributes.modificationDate.has_value());
  EXPECT_EQ(attributes.count(), 3u);
}

TEST_F(OpenFileAttributes, WaitWhileNothingIsKnown) {
  server.addFile(kPath, "hello");
  file = makeFile();
  auto attributes = inBackground([this] { return file->attributes(); });
  waitForWaiters(*file, 1);
  EXPECT_TRUE(isRunning(attributes));
  ASSERT_TRUE(file->openWithMode(kO_RDONLY, nullptr));
  EXPECT_TRUE(finish(attributes).fileSize.has_value());
}

TEST_F(OpenFileAttributes, TellTheBytesThatHaveArrivedDuringADownload) {
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", kPath, 4);
  file = arrivingFile("0123456789", 4);
  EXPECT_EQ(file->attributes().fileSize, 4u);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(file->attributes().fileSize, 10u);
}

TEST_F(OpenFileAttributes, AreEmptyWhenTheyCannotBeRead) {
  file = downloadedFile("hello");
  const TraceRecorder trace;
  calls.fail(Call::kFstat, EIO);
  EXPECT_EQ(file->attributes().count(), 0u);
  EXPECT_THAT(trace.messages(), ElementsAre("fstat failed, errno = 5 (Input/output error)"));
  EXPECT_EQ(trace.lines().front(), "{ -[OFSRemoteFile attributes] ");
}

TEST_F(OpenFileAttributes, WithOnlyADateChangeOnlyTheCacheFile) {
  file = downloadedFile("hello");
  EXPECT_TRUE(file->setAttributes(modified(kDate), nullptr));
  EXPECT_EQ(file->attributes().modificationDate, NSDate::dateWithNanoseconds(1234567890123456000))
      << "microseconds";
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(OpenFileAttributes, WithADateCountAsAnAccessNow) {
  file = downloadedFile("hello");
  const int descriptor = file->fileHandle()->fileDescriptor();
  const timespec longAgo[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(::futimens(descriptor, longAgo), 0);
  const time_t before = ::time(nullptr);
  EXPECT_TRUE(file->setAttributes(modified(kDate), nullptr));
  struct stat status {};
  ASSERT_EQ(::fstat(descriptor, &status), 0);
  EXPECT_GE(status.st_atim.tv_sec, before);
}

TEST_F(OpenFileAttributes, WithPermissionsChangeBothTheCacheFileAndTheServer) {
  file = downloadedFile("hello");
  NSFileAttributes change = permissions(0640);
  change.modificationDate = kDate;
  EXPECT_TRUE(file->setAttributes(change, nullptr));
  EXPECT_EQ(file->attributes().posixPermissions, 0640);
  EXPECT_EQ(server.attributes(kPath)->posixPermissions, 0640);
  const auto sent = server.calls("changeAttributes");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].arguments[1], permissions(0640).description()) << "the date is never sent";
  EXPECT_THAT(server.callTexts({"changeAttributes"}),
              ElementsAre("acquireConnection", "setDelegate none", "setDelegate none", "releaseConnection"));
}

TEST_F(OpenFileAttributes, HoldTheFileWhileTheServerChangesThem) {
  file = downloadedFile("hello");
  const auto hold = server.hold("changeAttributes", kPath);
  auto change = inBackground([this] { return file->setAttributes(permissions(0640), nullptr); });
  ASSERT_TRUE(hold->waitUntilHeld());
  auto reader = inBackground([this] { return read(*file, 5, 0); });
  EXPECT_FALSE(file->isCovered()) << "which does not wait";
  EXPECT_TRUE(isRunning(reader));
  hold->release();
  EXPECT_TRUE(finish(change));
  EXPECT_EQ(finish(reader), "hello");
}

TEST_F(OpenFileAttributes, ThatTheServerCannotChangeCountAsChanged) {
  file = downloadedFile("hello");
  server.fail("changeAttributes", kPath, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported));
  NSErrorRef error;
  EXPECT_TRUE(file->setAttributes(permissions(0640), &error));
  EXPECT_EQ(error, nullptr);
}

TEST_F(OpenFileAttributes, ThatTheServerRefusesFailWithEIO) {
  file = downloadedFile("hello");
  server.fail("changeAttributes", kPath, QuarnKitError::errorWithCode(kQuarnKitPermissionDenied));
  NSErrorRef error;
  EXPECT_FALSE(file->setAttributes(permissions(0640), &error));
  EXPECT_TRUE(isPosixError(error, kEIO));
  EXPECT_EQ(file->attributes().posixPermissions, 0640) << "the cache file was changed before";
}

TEST_F(OpenFileAttributes, ThatTheServerRefusesWithoutAnErrorFailWithEIO) {
  file = downloadedFile("hello");
  server.fail("changeAttributes", kPath, nullptr);
  NSErrorRef error;
  EXPECT_FALSE(file->setAttributes(permissions(0640), &error));
  EXPECT_TRUE(isPosixError(error, kEIO));
}

TEST_F(OpenFileAttributes, FailWithoutAnErrorWhenTheModeOfTheCacheFileCannotBeChanged) {
  file = downloadedFile("hello");
  const TraceRecorder trace;
  calls.fail(Call::kFchmod, EPERM);
  NSErrorRef error;
  NSFileAttributes change = permissions(0640);
  change.modificationDate = kDate;
  EXPECT_FALSE(file->setAttributes(change, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(trace.messages(), ElementsAre("fchmod failed, errno = 1 (Operation not permitted)"));
  EXPECT_NE(file->attributes().modificationDate, NSDate::dateWithNanoseconds(1234567890123456000));
  EXPECT_EQ(server.count("changeAttributes"), 0u);
}

TEST_F(OpenFileAttributes, FailWithoutAnErrorWhenTheDateOfTheCacheFileCannotBeChanged) {
  file = downloadedFile("hello");
  const TraceRecorder trace;
  calls.fail(Call::kFutimes, EPERM);
  NSErrorRef error;
  NSFileAttributes change = permissions(0640);
  change.modificationDate = kDate;
  EXPECT_FALSE(file->setAttributes(change, &error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(trace.messages(), ElementsAre("futimes failed, errno = 1 (Operation not permitted)"));
  EXPECT_EQ(file->attributes().posixPermissions, 0640);
  EXPECT_EQ(server.count("changeAttributes"), 0u);
  EXPECT_EQ(trace.lines().front(), "{ -[OFSRemoteFile setAttributes:error:] ");
}

TEST_F(OpenFileAttributes, AreChangedOnlyWhenTheDownloadHasEnded) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  auto change = inBackground([this] { return file->setAttributes(permissions(0640), nullptr); });
  waitForWaiters(*file, 1);
  EXPECT_EQ(server.count("changeAttributes"), 0u);
  EXPECT_EQ(server.count("acquireConnection"), 1u) << "the download's: who waits has none";
  hold->release();
  EXPECT_TRUE(finish(change));
  EXPECT_EQ(server.count("changeAttributes"), 1u);
}

TEST_F(OpenFileAttributes, OfAStreamAreChangedAtOnceWhenItsQueueIsEmpty) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  ASSERT_EQ(file->state(), kOFSStreaming);
  EXPECT_TRUE(file->setAttributes(permissions(0640), nullptr));
  EXPECT_EQ(file->state(), kOFSSettled);
  EXPECT_EQ(onServer(), "hello");
}

TEST_F(OpenFileAttributes, AreSeededOverThoseOfTheScratchFile) {
  server.setChunkSize(2);
  const auto hold = server.hold("downloadFileAtPath", kPath, 2);
  file = arrivingFile("0123456789", 2);
  NSFileAttributes seed = permissions(0444);
  seed.modificationDate = kDate;
  file->seedCacheAttributes(seed);
  EXPECT_EQ(file->attributes().posixPermissions, 0444);
  EXPECT_EQ(file->attributes().modificationDate, kDate);
  hold->release();
  waitForState(*file, kOFSSettled);
  EXPECT_EQ(file->attributes().modificationDate, kDate)
      << "what the download brings is no change of the file";
}

TEST_F(OpenFileAttributes, AreSeededOnceAndNotOverTheDateOfAWrite) {
  file = createdFile();
  ASSERT_EQ(write(*file, "hello", 0), 5);
  NSFileAttributes seed = permissions(0644);
  seed.modificationDate = kDate;
  file->seedCacheAttributes(seed);
  EXPECT_EQ(file->attributes().posixPermissions, 0644);
  EXPECT_NE(file->attributes().modificationDate, kDate);
  file->seedCacheAttributes(permissions(0400));
  EXPECT_EQ(file->attributes().posixPermissions, 0644);
}

}  // namespace
}  // namespace ombra
