// What programs on this system rely on: whole files on the server, and honest answers about them.
#include <thread>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class Durability : public FileSystemTest {
 protected:
  Durability() {
    server.addFile("/a.txt", "content");
    server.addFolder("/folder");
    connect();
  }
  bool change(const NSFileAttributes& attributes, std::string_view path) {
    return fileSystem.changeAttributesWithoutContent(attributes, path, &error);
  }
  static NSFileAttributes withDate(double seconds) {
    NSFileAttributes attributes;
    attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(seconds);
    return attributes;
  }
  std::shared_ptr<KCRemoteFileNode> node(std::string_view path) { return fileSystem.nodeForPath(path); }
};

TEST_F(Durability, SynchronisingSendsWhatIsWritten) {
  server.setSupportsUploadByteOffset(false);
  const GMUserData file = open("/a.txt");
  read(file);
  ASSERT_EQ(write("/a.txt", file, "longer content"), 14);
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/a.txt", file, &error));
  EXPECT_EQ(server.content("/a.txt"), "longer content");
}

TEST_F(Durability, SynchronisingAPathFindsItsOpenFile) {
  server.setSupportsUploadByteOffset(false);
  const GMUserData file = open("/a.txt");
  read(file);
  write("/a.txt", file, "longer content");
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/a.txt", nullptr, &error));
  EXPECT_EQ(server.content("/a.txt"), "longer content");
}

TEST_F(Durability, NothingToSynchroniseIsSuccess) {
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/a.txt", nullptr, &error));
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath(std::nullopt, nullptr, &error));
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Durability, WhatCannotBeSentIsTold) {
  server.setSupportsUploadByteOffset(false);
  const GMUserData file = open("/a.txt");
  read(file);
  for (const char* operation : {"uploadFileHandle", "uploadFileAtPath", "streamBytesWithFilename"}) {
    server.failAlways(operation, kAnyPath, refusal(kQuarnKitOutOfSpace));
  }
  write("/a.txt", file, "longer content");
  EXPECT_FALSE(fileSystem.synchronizeFileAtPath("/a.txt", file, &error));
  EXPECT_EQ(code(), kEIO);
  server.stopFailing();
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath("/a.txt", file, &error));
}

TEST_F(Durability, OnlyWhatWasWrittenHereIsBroughtToTheServersDisk) {
  const GMUserData file = open("/a.txt", kO_RDWR);
  server.clearCalls();
  EXPECT_TRUE(fileSystem.flushFileAtPath("/a.txt", file, &error));
  EXPECT_EQ(server.count("acquireConnection"), 0u);
  write("/a.txt", file, "longer content");
  server.clearCalls();
  EXPECT_TRUE(fileSystem.flushFileAtPath("/a.txt", file, &error));
  EXPECT_EQ(server.count("acquireConnection"), 1u);
}

TEST_F(Durability, AFlushThatMeetsAMoveFindsTheFileWhereItIsNow) {
  const GMUserData file = open("/a.txt", kO_RDWR);
  write("/a.txt", file, "longer content");
  const auto hold = server.hold("flushFileAtPath");
  bool isFlushed = false;
  std::thread flusher([&] { isFlushed = fileSystem.flushFileAtPath("/a.txt", file, nullptr); });
  EXPECT_TRUE(hold->waitUntilHeld());
  EXPECT_TRUE(fileSystem.settleBeforeMoveAtPath("/a.txt", &error));
  // The server has moved it, and this side has yet to learn that.
  server.removeItem("/a.txt");
  server.addFile("/b.txt", "longer content");
  hold->release();
  while (server.count("releaseConnection") < server.count("acquireConnection")) std::this_thread::yield();
  std::dynamic_pointer_cast<OFSRemoteFile>(file)->setRemotePath("/b.txt");
  fileSystem.movedItemAtPath("/a.txt", "/b.txt");
  flusher.join();
  EXPECT_TRUE(isFlushed);
  EXPECT_EQ(server.count("flushFileAtPath"), 2u);
}

TEST_F(Durability, AFlushOfWhatIsGoneFails) {
  const GMUserData file = open("/a.txt", kO_RDWR);
  write("/a.txt", file, "longer content");
  server.removeItem("/a.txt");
  EXPECT_FALSE(fileSystem.flushFileAtPath("/a.txt", file, &error));
  EXPECT_EQ(code(), kEIO);
}

TEST_F(Durability, TheContentStateFollowsTheDownload) {
  const auto hold = server.hold("downloadFileAtPath", "/a.txt", 3);
  const GMUserData file = open("/a.txt", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(fileSystem.contentStateOfFile(file), GMContentState::kArriving);
  hold->release();
  fileSystem.waitForContent(file, 1000);
  EXPECT_EQ(fileSystem.contentStateOfFile(file), GMContentState::kComplete);
  EXPECT_EQ(fileSystem.contentStateOfFile(nullptr), GMContentState::kComplete);
}

TEST_F(Durability, AFailedDownloadIsFailedContent) {
  const auto hold = server.hold("downloadFileAtPath", "/a.txt", 3);
  const GMUserData file = open("/a.txt", kO_RDONLY);
  ASSERT_TRUE(hold->waitUntilHeld());
  hold->releaseFailing(refusal(kQuarnKitConnectionLost));
  fileSystem.waitForContent(file, 1000);
  EXPECT_EQ(fileSystem.contentStateOfFile(file), GMContentState::kFailed);
}

TEST_F(Durability, FailedContentIsForgottenBeforeTheNextOpen) {
  server.fail("downloadFileAtPath", "/a.txt", refusal(kQuarnKitConnectionLost));
  const GMUserData file = open("/a.txt", kO_RDONLY);
  fileSystem.waitForContent(file, 1000);
  fileSystem.releaseFileAtPath("/a.txt", file);
  fileSystem.forgetFailedContentAtPath("/a.txt");
  const GMUserData again = open("/a.txt", kO_RDONLY);
  EXPECT_NE(again, file);
  EXPECT_EQ(read(again), "content");
}

TEST_F(Durability, GoodContentIsNotForgotten) {
  const GMUserData file = open("/a.txt", kO_RDONLY);
  read(file);
  fileSystem.forgetFailedContentAtPath("/a.txt");
  fileSystem.forgetFailedContentAtPath("/nowhere");
  fileSystem.forgetFailedContentAtPath(std::nullopt);
  EXPECT_EQ(fileOnNode("/a.txt"), file);
}

TEST_F(Durability, AFilesModeIsChangedWithoutItsContent) {
  EXPECT_TRUE(change(withMode(0600), "/a.txt"));
  EXPECT_EQ(server.attributes("/a.txt")->posixPermissions, 0600);
  EXPECT_EQ(node("/a.txt")->permissions(), FilePermissions(0600));
  EXPECT_THAT(server.transfers(), IsEmpty());
  EXPECT_EQ(fileOnNode("/a.txt"), nullptr);
}

TEST_F(Durability, AFilesDateReachesTheServerAndTheNode) {
  EXPECT_TRUE(change(withDate(1234), "/a.txt"));
  EXPECT_EQ(server.attributes("/a.txt")->modificationDate, withDate(1234).modificationDate);
  EXPECT_EQ(node("/a.txt")->modificationDate(), withDate(1234).modificationDate);
  EXPECT_THAT(server.transfers(), IsEmpty());
}

TEST_F(Durability, AChangeThatTheServerCannotMakeShowsOnTheNode) {
  server.failAlways("changeAttributes", kAnyPath, refusal(kQuarnKitAttributeChangeNotSupported));
  EXPECT_TRUE(change(withDate(1234), "/a.txt"));
  EXPECT_EQ(node("/a.txt")->modificationDate(), withDate(1234).modificationDate);
}

TEST_F(Durability, ARefusedChangeIsAnInputOutputErrorAndLeavesTheNode) {
  server.fail("changeAttributes", "/a.txt", refusal(kQuarnKitPermissionDenied));
  EXPECT_FALSE(change(withMode(0600), "/a.txt"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kQuarnKitPermissionDenied);
  EXPECT_EQ(node("/a.txt")->permissions(), FilePermissions(0644));
}

TEST_F(Durability, AChangeOfAnUnknownItemIsNoSuchItem) {
  EXPECT_FALSE(change(withMode(0600), "/nowhere"));
  EXPECT_EQ(code(), kENOENT);
  EXPECT_FALSE(fileSystem.changeAttributesWithoutContent(withMode(0600), std::nullopt, &error));
}

TEST_F(Durability, NothingToChangeAsksNoServer) {
  list("/");
  server.clearCalls();
  EXPECT_TRUE(change({}, "/a.txt"));
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Durability, AFoldersModeIsSetOnTheServerAndShowsOnTheNode) {
  NSFileAttributes attributes = withMode(0700);
  attributes.modificationDate = withDate(1234).modificationDate;
  EXPECT_TRUE(change(attributes, "/folder"));
  EXPECT_THAT(server.callTexts(), Contains("changeAttributes /folder " + withMode(0700).description()));
  EXPECT_THAT(server.callTexts(), Contains("changeAttributes /folder " + withDate(1234).description()));
  EXPECT_EQ(node("/folder")->permissions(), FilePermissions(0700));
  EXPECT_EQ(node("/folder")->modificationDate(), withDate(1234).modificationDate);
}

TEST_F(Durability, ARefusedModeOfAFolderIsAnInputOutputError) {
  server.fail("changeAttributes", "/folder", refusal(kQuarnKitPermissionDenied));
  EXPECT_FALSE(change(withMode(0700), "/folder"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(node("/folder")->permissions(), FilePermissions(0755));
}

TEST_F(Durability, AChangeSurvivesALaterWriteIntoTheCachedCopy) {
  const GMUserData file = open("/a.txt");
  fileSystem.seedCacheAttributesAtPath("/a.txt", file);
  read(file);
  fileSystem.releaseFileAtPath("/a.txt", file);
  ASSERT_TRUE(change(withMode(0750), "/a.txt"));
  const GMUserData again = open("/a.txt");
  ASSERT_EQ(write("/a.txt", again, "x"), 1);
  EXPECT_EQ(node("/a.txt")->permissions()->mode() & 07777, 0750);
}

TEST_F(Durability, AChangeOfAnArrivingFileSurvivesTheEndOfItsDownload) {
  const auto hold = server.hold("downloadFileAtPath", "/a.txt", 3);
  const GMUserData file = open("/a.txt");
  fileSystem.seedCacheAttributesAtPath("/a.txt", file);
  ASSERT_TRUE(hold->waitUntilHeld());
  NSFileAttributes changes = withMode(0750);
  changes.modificationDate = withDate(1234).modificationDate;
  ASSERT_TRUE(change(changes, "/a.txt"));
  const auto cache = std::dynamic_pointer_cast<OFSRemoteFile>(file);
  EXPECT_EQ(cache->attributes().modificationDate, changes.modificationDate);
  hold->release();
  fileSystem.waitForContent(file, 1000);
  EXPECT_EQ(cache->attributes().modificationDate, changes.modificationDate);
  ASSERT_EQ(write("/a.txt", file, "x"), 1);
  EXPECT_EQ(node("/a.txt")->permissions()->mode() & 07777, 0750);
}

TEST_F(Durability, AChangeOfOneAttributeLeavesTheOtherAsSeeded) {
  const auto hold = server.hold("downloadFileAtPath", "/a.txt", 3);
  const GMUserData file = open("/a.txt");
  fileSystem.seedCacheAttributesAtPath("/a.txt", file);
  ASSERT_TRUE(hold->waitUntilHeld());
  ASSERT_TRUE(change(withMode(0750), "/a.txt"));
  hold->release();
  fileSystem.waitForContent(file, 1000);
  const NSFileAttributes attributes = std::dynamic_pointer_cast<OFSRemoteFile>(file)->attributes();
  EXPECT_EQ(attributes.posixPermissions.value_or(0) & 07777, 0750);
  EXPECT_EQ(attributes.modificationDate, node("/a.txt")->modificationDate());
}

// Between the look at the item and the seed.
TEST_F(Durability, AChangeThatOvertakesTheSeedIsNotUndoneByIt) {
  const GMUserData file = open("/a.txt");
  read(file);
  const auto cache = std::dynamic_pointer_cast<OFSRemoteFile>(file);
  cache->showAttributes(withMode(0750));
  cache->seedCacheAttributes(withMode(0644));
  EXPECT_EQ(cache->attributes().posixPermissions.value_or(0) & 07777, 0750);
}

TEST_F(Durability, ASeededCopyHasTheModeAndDateOfTheItem) {
  server.setPermissions("/a.txt", 0604);
  const GMUserData file = open("/a.txt");
  read(file);
  fileSystem.seedCacheAttributesAtPath("/a.txt", file);
  const NSFileAttributes attributes = std::dynamic_pointer_cast<OFSRemoteFile>(file)->attributes();
  EXPECT_EQ(attributes.posixPermissions.value_or(0) & 07777, 0604);
  EXPECT_EQ(attributes.modificationDate, node("/a.txt")->modificationDate());
}

TEST_F(Durability, AnItemWithoutAModeSeedsWhatIsShown) {
  server.setPermissions("/a.txt", std::nullopt);
  const GMUserData file = open("/a.txt");
  fileSystem.seedCacheAttributesAtPath("/a.txt", file);
  EXPECT_EQ(std::dynamic_pointer_cast<OFSRemoteFile>(file)->attributes().posixPermissions.value_or(0) & 07777,
            0775);
}

TEST_F(Durability, SeedingNeedsAFileAndANode) {
  server.setPermissions("/a.txt", 0604);
  const GMUserData file = open("/a.txt");
  read(file);
  const auto cache = std::dynamic_pointer_cast<OFSRemoteFile>(file);
  const NSFileAttributes before = cache->attributes();
  fileSystem.seedCacheAttributesAtPath("/a.txt", nullptr);
  fileSystem.seedCacheAttributesAtPath("/nowhere", file);
  fileSystem.seedCacheAttributesAtPath(std::nullopt, file);
  EXPECT_EQ(cache->attributes(), before);
  fileSystem.seedCacheAttributesAtPath("/a.txt", file);
  EXPECT_EQ(cache->attributes().posixPermissions.value_or(0) & 07777, 0604)
      << "none of these was its one seed";
}

TEST_F(Durability, TheOpenFileOfAPathIsFoundWithoutARequest) {
  list("/");
  EXPECT_EQ(fileSystem.openFileAtPathIfAny("/a.txt"), nullptr);
  const GMUserData file = open("/a.txt");
  server.waitUntilAllReleased();
  server.clearCalls();
  EXPECT_EQ(fileSystem.openFileAtPathIfAny("/a.txt"), file);
  EXPECT_EQ(fileSystem.openFileAtPathIfAny("/unknown/x"), nullptr);
  EXPECT_EQ(fileSystem.openFileAtPathIfAny(std::nullopt), nullptr);
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(Durability, AnObjectThatWasNeverPreparedIsNotOpen) {
  fileSystem._remoteFileForNode(node("/a.txt"), "/a.txt");
  EXPECT_EQ(fileSystem.openFileAtPathIfAny("/a.txt"), nullptr);
}

TEST_F(Durability, GivingUpShutsThePoolDown) {
  fileSystem.giveUpConnections();
  EXPECT_EQ(server.count("shutDown"), 1u);
}

}  // namespace
}  // namespace ombra
