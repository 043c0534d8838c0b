// What the server refuses: told to the program, out of the tree, and kept.
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class RefusedContent : public FileSystemTest {
 protected:
  RefusedContent() {
    gStreamingSupported = true;
    server.setSupportsUploadByteOffset(false);
    mountPoint.path = "/Volumes/Refused";
    std::filesystem::remove_all(recovered);
    server.addFile(kPath, "before");
    server.addFolder("/folder");
    connect();
    list("/");
    list("/folder");
    fileSystem.setInvalidation(&told);
  }
  ~RefusedContent() override { fileSystem.setInvalidation(nullptr); }

  void refuseUploads(QuarnKitErrorCode why) {
    for (const char* operation : {"uploadFileHandle", "uploadFileAtPath", "streamBytesWithFilename"}) {
      server.failAlways(operation, kAnyPath, refusal(why));
    }
  }
  // Written, refused, told, and closed.
  void writeRefused(const std::string& path, const std::string& text, QuarnKitErrorCode why,
                    int64_t offset = 0) {
    const GMUserData file = open(path);
    refuseUploads(why);
    fileSystem.writeFileAtPath(path, file, text.data(), text.size(), offset, nullptr);
    EXPECT_FALSE(fileSystem.synchronizeFileAtPath(path, file, &error));
    EXPECT_EQ(code(), kEIO);
    EXPECT_EQ(underlyingCode(), why);
    release(path, file);
    server.stopFailing();
  }
  void release(const std::string& path, const GMUserData& file) {
    fileSystem.releaseFileAtPath(path, file);
    server.waitUntilAllReleased();
  }
  std::string contentOf(const std::string& path) {
    const GMUserData file = open(path, kO_RDONLY);
    fileSystem.waitForContent(file, 1000);
    std::string content = read(file);
    release(path, file);
    return content;
  }
  uint64_t sizeOf(const std::string& path) {
    return fileSystem.attributesOfItemAtPath(path, nullptr, nullptr)
        .value_or(NSFileAttributes())
        .fileSize.value_or(0);
  }
  std::vector<std::string> kept() {
    std::vector<std::string> contents;
    for (const GMUndelivered& one : fileSystem.drainAll()) {
      std::ifstream file(one.savedAs, std::ios::binary);
      contents.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return contents;
  }

  static constexpr const char* kPath = "/file";
  const std::string recovered = std::string(getenv("XDG_STATE_HOME")) + "/ombrafs/recovered";
  RecordedInvalidation told;
  RecordedLog log;
};

TEST_F(RefusedContent, GivesWayToWhatTheServerHasOnceNobodyHasItOpen) {
  writeRefused(kPath, " and more", kQuarnKitOutOfSpace, 6);
  EXPECT_EQ(sizeOf(kPath), 6u);
  EXPECT_EQ(contentOf(kPath), "before");
  EXPECT_THAT(told.take(), Contains("data /file"));
  EXPECT_THAT(log.linesWith("has refused what was written to /file"), SizeIs(1));
}

TEST_F(RefusedContent, IsKeptAtTheEndWithTheReason) {
  writeRefused(kPath, " and more", kQuarnKitReadOnly, 6);
  const auto undelivered = fileSystem.drainAll();
  ASSERT_THAT(undelivered, SizeIs(1));
  EXPECT_EQ(undelivered[0].path, kPath);
  EXPECT_TRUE(QuarnKitError::isCode(undelivered[0].error, kQuarnKitReadOnly));
  std::ifstream file(undelivered[0].savedAs, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "before and more");
  EXPECT_EQ(server.content(kPath), "before") << "not sent behind the back of who was told";
}

TEST_F(RefusedContent, StaysWhileAnotherHandleIsOpen) {
  const GMUserData reader = open(kPath);
  writeRefused(kPath, "BEFORE", kQuarnKitPermissionDenied);
  EXPECT_EQ(read(reader), "BEFORE");
  release(kPath, reader);
  EXPECT_EQ(contentOf(kPath), "before");
}

TEST_F(RefusedContent, IsSentByALaterSynchronisationOfAnOpenHandle) {
  const GMUserData other = open(kPath);
  writeRefused(kPath, "BEFORE", kQuarnKitOutOfSpace);
  EXPECT_TRUE(fileSystem.synchronizeFileAtPath(kPath, other, &error));
  release(kPath, other);
  EXPECT_EQ(server.content(kPath), "BEFORE");
  EXPECT_THAT(kept(), IsEmpty());
}

// The server may be back before the volume ends.
TEST_F(RefusedContent, IsNotWhatWasLostWithTheConnection) {
  writeRefused(kPath, "BEFORE", kQuarnKitConnectionLost);
  EXPECT_EQ(contentOf(kPath), "BEFORE");
  EXPECT_THAT(kept(), IsEmpty());
  EXPECT_EQ(server.content(kPath), "BEFORE");
}

TEST_F(RefusedContent, StaysWhereNobodyKnowsWhatTheServerHas) {
  server.failAlways("attributesOfItemAtPath", kAnyPath, refusal(kQuarnKitConnectionLost));
  writeRefused(kPath, "BEFORE", kQuarnKitOutOfSpace);
  EXPECT_EQ(contentOf(kPath), "BEFORE");
}

TEST_F(RefusedContent, OfAFileThatIsGoneLeavesNoNameBehind) {
  const GMUserData file = open(kPath);
  server.removeItem(kPath);
  refuseUploads(kQuarnKitNoSuchItem);
  write(kPath, file, "BEFORE");
  EXPECT_FALSE(fileSystem.synchronizeFileAtPath(kPath, file, &error));
  release(kPath, file);
  EXPECT_THAT(list("/"), ElementsAre("folder"));
  EXPECT_THAT(told.take(), Contains("folder /"));
  EXPECT_THAT(kept(), ElementsAre("BEFORE"));
}

TEST_F(RefusedContent, BelowAVanishedFolderTakesTheFolderOutOfTheTree) {
  server.addFile("/folder/sub/deep", "x");
  makeStale("/folder");
  list("/folder");
  list("/folder/sub");
  const GMUserData file = open("/folder/sub/deep");
  server.removeItem("/folder");
  refuseUploads(kQuarnKitNoSuchItem);
  write("/folder/sub/deep", file, "y");
  EXPECT_FALSE(fileSystem.synchronizeFileAtPath("/folder/sub/deep", file, &error));
  release("/folder/sub/deep", file);
  EXPECT_THAT(list("/"), ElementsAre("file"));
  EXPECT_EQ(fileSystem._nodeForPath("/folder"), nullptr);
  EXPECT_THAT(kept(), ElementsAre("y"));
}

TEST_F(RefusedContent, IsReplacedByAnOpenThatEmptiesTheFile) {
  writeRefused(kPath, "BEFORE", kQuarnKitOutOfSpace);
  const GMUserData file = open(kPath, kO_WRONLY | kO_TRUNC);
  ASSERT_EQ(write(kPath, file, "again"), 5);
  ASSERT_TRUE(fileSystem.synchronizeFileAtPath(kPath, file, &error));
  release(kPath, file);
  EXPECT_EQ(server.content(kPath), "again");
  EXPECT_THAT(kept(), IsEmpty()) << "the program has tried again, and it worked";
}

TEST_F(RefusedContent, IsNotReplacedByAnOpenThatFails) {
  writeRefused(kPath, "BEFORE", kQuarnKitOutOfSpace);
  refuseUploads(kQuarnKitOutOfSpace);
  GMUserData file;
  EXPECT_FALSE(fileSystem.openFileAtPath(kPath, kO_WRONLY | kO_TRUNC, &file, &error));
  EXPECT_THAT(kept(), ElementsAre("BEFORE"));
}

TEST_F(RefusedContent, IsKeptBesideWhatIsWrittenIntoTheServersFile) {
  writeRefused(kPath, "BEFORE", kQuarnKitOutOfSpace);
  const GMUserData file = open(kPath);
  ASSERT_EQ(write(kPath, file, "!", 6), 1);
  ASSERT_TRUE(fileSystem.synchronizeFileAtPath(kPath, file, &error));
  release(kPath, file);
  EXPECT_EQ(server.content(kPath), "before!");
  EXPECT_THAT(kept(), ElementsAre("BEFORE"));
}

TEST_F(RefusedContent, GoesWithTheFileWhenThatIsRemoved) {
  writeRefused(kPath, "BEFORE", kQuarnKitOutOfSpace);
  EXPECT_TRUE(fileSystem.removeItemAtPath(kPath, &error));
  EXPECT_THAT(kept(), IsEmpty());
}

TEST_F(RefusedContent, DoesNotKeepItsFolderFromBeingMoved) {
  server.addFile("/folder/f", "x");
  makeStale("/folder");
  list("/folder");
  writeRefused("/folder/f", "y", kQuarnKitOutOfSpace);
  refuseUploads(kQuarnKitOutOfSpace);
  EXPECT_TRUE(fileSystem.settleBeforeMoveAtPath("/folder", &error));
  fileSystem.moveFailedAtPath("/folder");
  EXPECT_THAT(kept(), ElementsAre("y"));
}

}  // namespace
}  // namespace ombra
