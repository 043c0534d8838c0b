// The kernel's requests on their way through the adapter and the file system to the server.
#include "platform/userfs/Volume.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <cerrno>

#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

class OverTheServer : public FileSystemTest {
 protected:
  OverTheServer() {
    server.addFile("/a.txt", "content");
    connect();
  }
  ~OverTheServer() override {
    volume->releaseAll();
    waitForReleases();
  }

  void waitForReleases() { volume->closers().waitUntilIdle(); }
  uint64_t openHandle(const char* path, int flags) {
    OpenedFile opened;
    EXPECT_EQ(volume->open(path, flags, 0, &opened), 0) << path;
    return opened.handle;
  }
  int openFailing(const char* path, int flags) {
    OpenedFile opened;
    return volume->open(path, flags, 0, &opened);
  }
  // What one read gives; "<errno>" for a failed one.
  std::string readHandle(uint64_t handle, size_t size = 100, off_t offset = 0) {
    std::string bytes(size, '\0');
    const int count = volume->read(handle, bytes.data(), size, offset);
    if (count < 0) return "<" + std::to_string(-count) + ">";
    bytes.resize(static_cast<size_t>(count));
    return bytes;
  }
  // A handle of a file whose download is held after its first bytes.
  uint64_t openArriving(const char* path, const std::shared_ptr<ScriptedHold>& hold) {
    const uint64_t handle = openHandle(path, O_RDONLY);
    EXPECT_TRUE(hold->waitUntilHeld());
    return handle;
  }
  off_t sizeOf(uint64_t handle) {
    struct stat attributes {};
    EXPECT_EQ(volume->attributes(nullptr, handle, &attributes), 0);
    return attributes.st_size;
  }
  mode_t modeOf(const char* path) {
    struct stat attributes {};
    EXPECT_EQ(volume->attributes(path, 0, &attributes), 0);
    return attributes.st_mode & 07777;
  }

  const std::shared_ptr<Volume> volume =
      std::make_shared<Volume>(&fileSystem, VolumeSettings{"/Volumes/Srv", false, false});
};

using Creating = OverTheServer;

TEST_F(Creating, OverAFileThatAppearedMeanwhileLeavesWhatIsInIt) {
  OpenedFile opened;
  ASSERT_EQ(volume->create("/a.txt", 0644, O_CREAT | O_RDWR, 0, &opened), 0);
  EXPECT_EQ(server.content("/a.txt"), "content");
  EXPECT_EQ(readHandle(opened.handle), "content");
}

TEST_F(Creating, AndEmptyingAFileThatAppearedMeanwhileEmptiesIt) {
  OpenedFile opened;
  ASSERT_EQ(volume->create("/a.txt", 0644, O_CREAT | O_TRUNC | O_RDWR, 0, &opened), 0);
  EXPECT_EQ(server.content("/a.txt"), "");
  EXPECT_EQ(readHandle(opened.handle), "");
}

// Kept on this side; of what fails the kernel gets this system's numbers.
class AttributesByName : public OverTheServer {
 protected:
  int set(const char* path, const char* name, int flags = 0) {
    return named->setExtendedAttribute(path, name, "abc", 3, flags);
  }
  int get(const char* path, const char* name, char* buffer) {
    return named->extendedAttribute(path, name, buffer, 3);
  }

  const std::shared_ptr<Volume> named =
      std::make_shared<Volume>(&fileSystem, VolumeSettings{"/Volumes/Srv", false, true});
};

TEST_F(AttributesByName, AreSetReadAndListed) {
  char value[3] = {};
  char names[16] = {};
  EXPECT_EQ(set("/a.txt", "user.x"), 0);
  EXPECT_EQ(get("/a.txt", "user.x", value), 3);
  EXPECT_EQ(std::string(value, 3), "abc");
  EXPECT_EQ(named->extendedAttributes("/a.txt", names, sizeof names), 7);
  EXPECT_STREQ(names, "user.x");
}

TEST_F(AttributesByName, FailWithThisSystemsNumbers) {
  char value[3] = {};
  server.addFile("/._a.txt", "");
  makeStale("/");
  EXPECT_EQ(get("/a.txt", "user.x", value), -ENODATA);
  EXPECT_EQ(set("/a.txt", "user.x", XATTR_REPLACE), -ENODATA);
  EXPECT_EQ(set("/a.txt", "user.x", XATTR_CREATE), 0);
  EXPECT_EQ(set("/a.txt", "user.x", XATTR_CREATE), -EEXIST);
  EXPECT_EQ(set("/._a.txt", "user.x"), -EPERM);
  EXPECT_EQ(get("/nowhere", "user.x", value), -ENOENT);
  EXPECT_EQ(named->removeExtendedAttribute("/a.txt", "user.x"), -EOPNOTSUPP);
}

class ArrivingFile : public OverTheServer {
 protected:
  ArrivingFile() { handle = openArriving("/a.txt", hold); }
  ~ArrivingFile() override { hold->release(); }
  // Another client removes the file, and a listing notices.
  void loseNode() {
    server.removeItem("/a.txt");
    makeStale("/");
    list("/");
    ASSERT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
  }

  const std::shared_ptr<ScriptedHold> hold = server.hold("downloadFileAtPath", "/a.txt", 3);
  uint64_t handle = 0;
};

TEST_F(ArrivingFile, IsNotPromisedAQuickRelease) {
  EXPECT_FALSE(fileSystem.releasesAtOnce(fileOnNode("/a.txt")));
}

TEST_F(ArrivingFile, IsPromisedAQuickReleaseWhenItIsHereAndTheCacheIsNotFull) {
  hold->release();
  const auto file = fileOnNode("/a.txt");
  waitUntilSettled(file);
  EXPECT_TRUE(fileSystem.releasesAtOnce(file));
  fileSystem.setCacheBudget(0, 0);
  EXPECT_FALSE(fileSystem.releasesAtOnce(file));
}

TEST_F(ArrivingFile, ThatIsHereIsOutOfUseAsSoonAsItIsReleased) {
  hold->release();
  waitUntilSettled(fileOnNode("/a.txt"));
  volume->closers().close();
  volume->release(handle);
  fileSystem.setCacheBudget(0, 0);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/a.txt"), nullptr);
}

TEST_F(ArrivingFile, ThatIsRemovedKeepsItsSize) {
  ASSERT_EQ(volume->removeFile("/a.txt"), 0);
  EXPECT_EQ(sizeOf(handle), 7);
  hold->release();
  EXPECT_EQ(readHandle(handle), "content");
  EXPECT_EQ(sizeOf(handle), 7);
}

TEST_F(ArrivingFile, ThatIsRemovedAndFailsIsAnErrorAndNoEnd) {
  ASSERT_EQ(volume->removeFile("/a.txt"), 0);
  hold->releaseFailing(refusal(kQuarnKitNoSuchItem));
  EXPECT_EQ(readHandle(handle), "<5>");
  EXPECT_EQ(sizeOf(handle), 7);
}

TEST_F(ArrivingFile, ThatIsRemovedAndWrittenHasTheSizeOfItsCopy) {
  hold->release();
  ASSERT_EQ(readHandle(handle), "content");
  const uint64_t writer = openHandle("/a.txt", O_RDWR);
  ASSERT_EQ(volume->removeFile("/a.txt"), 0);
  ASSERT_EQ(volume->truncate(nullptr, writer, 2), 0);
  EXPECT_EQ(sizeOf(handle), 2);
  ASSERT_EQ(volume->write(writer, "longer content", 14, 0, nullptr), 14);
  EXPECT_EQ(sizeOf(handle), 14);
}

TEST_F(ArrivingFile, WhoseItemIsGoneAndWhoseDownloadFailsIsAnErrorAndNoEnd) {
  loseNode();
  hold->releaseFailing(refusal(kQuarnKitNoSuchItem));
  EXPECT_EQ(readHandle(handle), "<5>");
}

TEST_F(ArrivingFile, WhoseItemIsGoneIsReadToItsEnd) {
  loseNode();
  hold->release();
  EXPECT_EQ(readHandle(handle), "content");
  EXPECT_EQ(readHandle(handle, 100, 7), "");
}

class ClosedFile : public OverTheServer {
 protected:
  // Leaves a whole cache copy behind.
  void readOnce() {
    const uint64_t handle = openHandle("/a.txt", O_RDONLY);
    EXPECT_EQ(readHandle(handle), "content");
    volume->release(handle);
    waitForReleases();
  }
  void refuseUploads() {
    server.failAlways("uploadFileHandle", "/a.txt", refusal(kQuarnKitPermissionDenied));
  }
};

TEST_F(ClosedFile, WhoseEmptyingAtOpenIsRefusedShowsItsContentAtTheNextOpen) {
  readOnce();
  refuseUploads();
  EXPECT_EQ(openFailing("/a.txt", O_WRONLY | O_TRUNC), -EIO);
  EXPECT_EQ(readHandle(openHandle("/a.txt", O_RDONLY)), "content");
  server.stopFailing();
  EXPECT_THAT(fileSystem.drainAll(), ::testing::IsEmpty());
  EXPECT_EQ(server.content("/a.txt"), "content");
}

TEST_F(ClosedFile, WhoseEmptyingAtOpenIsRefusedIsNotKeptInUse) {
  readOnce();
  refuseUploads();
  EXPECT_EQ(openFailing("/a.txt", O_WRONLY | O_TRUNC), -EIO);
  fileSystem.setCacheBudget(0, 0);
  fileSystem.trimCache();
  EXPECT_EQ(fileOnNode("/a.txt"), nullptr);
}

TEST_F(ClosedFile, WhoseEmptyingAtOpenIsRefusedCanStillBeRenamed) {
  readOnce();
  refuseUploads();
  EXPECT_EQ(openFailing("/a.txt", O_WRONLY | O_TRUNC), -EIO);
  EXPECT_EQ(volume->move("/a.txt", "/b.txt", 0), 0);
  EXPECT_EQ(server.content("/b.txt"), "content");
}

TEST_F(ClosedFile, WhoseShorteningIsRefusedShowsItsContentAtTheNextOpen) {
  readOnce();
  refuseUploads();
  EXPECT_EQ(volume->truncate("/a.txt", 0, 3), -EIO);
  waitForReleases();
  EXPECT_EQ(readHandle(openHandle("/a.txt", O_RDONLY)), "content");
  EXPECT_EQ(server.content("/a.txt"), "content");
}

TEST_F(ClosedFile, KeepsItsModeWhenItIsShortened) {
  server.setPermissions("/a.txt", 0755);
  EXPECT_EQ(volume->truncate("/a.txt", 0, 3), 0);
  EXPECT_EQ(server.content("/a.txt"), "con");
  EXPECT_EQ(modeOf("/a.txt"), 0755u);
}

TEST_F(ClosedFile, WhoseDownloadHasFailedCanBeShortenedAllTheSame) {
  server.fail("downloadFileAtPath", "/a.txt", refusal(kQuarnKitConnectionLost));
  const uint64_t handle = openHandle("/a.txt", O_RDONLY);
  EXPECT_EQ(readHandle(handle), "<5>");
  volume->release(handle);
  waitForReleases();
  EXPECT_EQ(volume->truncate("/a.txt", 0, 3), 0);
  EXPECT_EQ(server.content("/a.txt"), "con");
}

}  // namespace
}  // namespace ombra
