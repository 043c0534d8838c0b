// Mounting, unmounting, and what is said about them.
#include <fcntl.h>
#include <signal.h>  // NOLINT: kill
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "platform/userfs/MountPoint.h"
#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

using Names = std::vector<std::string>;
const std::string kDidMount(kGMUserFileSystemDidMount);
const std::string kDidUnmount(kGMUserFileSystemDidUnmount);
const std::string kMountFailed(kGMUserFileSystemMountFailed);

NSErrorRef errorOf(const NSNotification& notification) {
  return notification.userInfo->objectForKey(kGMUserFileSystemErrorKey)->asError();
}

// Requests that are left behind are still in their delegate when the test ends, so it outlives everything.
template <typename Files>
Files& immortal() {
  static auto& sAll = *new std::vector<std::unique_ptr<Files>>;  // NOLINT: immortal on purpose
  return *sAll.emplace_back(std::make_unique<Files>());
}

TEST_F(MountTest, TheDelegateIsAskedToPrepareBeforeAnythingElse) {
  mount();
  EXPECT_EQ(iFiles.calls().front(), "willMount (none)");
}

TEST_F(MountTest, TheNotificationsNameTheMountPoint) {
  mount();
  EXPECT_EQ(iNotifications.waitFor(kDidMount).userInfo->stringForKey(kGMUserFileSystemMountPathKey),
            mountPath());
  EXPECT_EQ(unmount().userInfo->stringForKey(kGMUserFileSystemMountPathKey), mountPath());
}

TEST_F(MountTest, TheMountShowsItsTypeAndTheGivenSource) {
  mount({"fsname=OmbraFS/sftp#ada@example.org,evil", "volname=Test"});
  const auto volume = mountedVolumeAtPath(mountPath());
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->type, "fuse.ombrafs");
  EXPECT_EQ(volume->source, "OmbraFS/sftp#ada@example.org_evil");
}

TEST_F(MountTest, UnmountTakesAwayMountAndFolderAndIsAnnouncedOnce) {
  mount();
  unmount();
  iFileSystem.reset();
  EXPECT_FALSE(isMounted());
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount, kDidUnmount}));
}

TEST_F(MountTest, WhenDidUnmountIsPostedTheFolderIsGoneAlready) {
  bool existed = true;
  int observer = 0;
  NSNotificationCenter::defaultCenter().addObserver(
      &observer, kDidUnmount, [&](const NSNotification&) { existed = std::filesystem::exists(mountPath()); });
  mount();
  unmount();
  iFileSystem.reset();
  NSNotificationCenter::defaultCenter().removeObserver(&observer);
  EXPECT_FALSE(existed);
}

TEST_F(MountTest, AVolumeUnmountedByHandEndsLikewise) {
  mount();
  const std::string command = (geteuid() == 0 ? "umount " : "fusermount3 -u ") + mountPath();
  ASSERT_EQ(std::system(command.c_str()), 0);  // NOLINT: what a user would type
  iNotifications.waitFor(kDidUnmount);
  iFileSystem.reset();
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount, kDidUnmount}));
  EXPECT_EQ(iFiles.countOf("drain"), 1u);
}

TEST_F(MountTest, AVolumesFolderThatIsALinkIsMountedInAndCleanedUp) {
  FolderForMounts other;
  const std::string link = other.path() + "/Volumes";
  std::filesystem::create_symlink(iVolumes.path(), link);
  GMUserFileSystem::setVolumesFolder(link);
  iFileSystem = std::make_unique<GMUserFileSystem>(&iFiles, true);
  iFileSystem->mountAtPath(link + "/Test", {}, true, true);
  iNotifications.waitFor(kDidMount);
  EXPECT_TRUE(isMounted());
  iFileSystem.reset();
  EXPECT_FALSE(isMounted());
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
}

TEST_F(MountTest, UnmountOfWhatIsNotMountedPostsNothing) {
  iFileSystem = std::make_unique<GMUserFileSystem>(&iFiles, true);
  iFileSystem->unmount();
  iFileSystem.reset();
  EXPECT_TRUE(iNotifications.names().empty());
}

TEST_F(MountTest, UnmountAfterTheEndPostsNothingMore) {
  mount();
  unmount();
  iFileSystem->unmount();
  iFileSystem.reset();
  EXPECT_EQ(iNotifications.names().size(), 2u);
}

TEST_F(MountTest, AHandlerOfTheFailureMayUnmount) {
  int observer = 0;
  NSNotificationCenter::defaultCenter().addObserver(&observer, kMountFailed,
                                                    [&](const NSNotification&) { iFileSystem->unmount(); });
  iFileSystem = std::make_unique<GMUserFileSystem>(&iFiles, true);
  iFileSystem->mountAtPath(iVolumes.path() + "/../elsewhere", {}, true, false);
  NSNotificationCenter::defaultCenter().removeObserver(&observer);
  EXPECT_EQ(iNotifications.names(), (Names{kMountFailed}));
}

TEST_F(MountTest, AHandlerOfDidMountMayUnmount) {
  int observer = 0;
  NSNotificationCenter::defaultCenter().addObserver(&observer, kDidMount,
                                                    [&](const NSNotification&) { iFileSystem->unmount(); });
  iFileSystem = std::make_unique<GMUserFileSystem>(&iFiles, true);
  // On this thread: comes back once all is over.
  iFileSystem->mountAtPath(mountPath(), {}, true, false);
  NSNotificationCenter::defaultCenter().removeObserver(&observer);
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount, kDidUnmount}));
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
}

TEST_F(MountTest, AMountPointThatIsInUseIsReportedAndLeftAlone) {
  std::filesystem::create_directories(mountPath() + "/inside");
  iFileSystem = std::make_unique<GMUserFileSystem>(&iFiles, true);
  iFileSystem->mountAtPath(mountPath(), {}, true, true);
  EXPECT_EQ(errorOf(iNotifications.waitFor(kMountFailed))->code(), kGMMountPointInUse);
  EXPECT_TRUE(std::filesystem::exists(mountPath() + "/inside"));
  EXPECT_EQ(iFiles.countOf("willMount"), 0u);
}

TEST_F(MountTest, AVolumeThatIsMountedIsNotMountedOver) {
  mount();
  GMUserFileSystem second(&iFiles, true);
  second.mountAtPath(mountPath(), {}, true, false);
  const auto failed = iNotifications.waitFor(kMountFailed);
  EXPECT_EQ(errorOf(failed)->code(), kGMMountPointInUse);
  EXPECT_TRUE(isMounted());
}

TEST_F(MountTest, AnExceptionBeforeMountingFailsTheMountAndLeavesNoFolder) {
  iFiles.raiseIn("willMount");
  iFileSystem = std::make_unique<GMUserFileSystem>(&iFiles, true);
  iFileSystem->mountAtPath(mountPath(), {}, true, true);
  const auto error = errorOf(iNotifications.waitFor(kMountFailed));
  EXPECT_EQ(error->domain(), kGMUserFileSystemErrorDomain);
  EXPECT_NE(error->localizedDescription().find("raised in willMount"), std::string::npos);
  iFileSystem.reset();
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
}

TEST_F(MountTest, AnObjectMountsOnce) {
  mount();
  iFileSystem->mountAtPath(iVolumes.path() + "/Second", {}, true, false);
  EXPECT_FALSE(std::filesystem::exists(iVolumes.path() + "/Second"));
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount}));
}

TEST_F(MountTest, DestroyingTheObjectUnmounts) {
  mount();
  iFileSystem.reset();
  EXPECT_FALSE(isMounted());
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount, kDidUnmount}));
}

TEST_F(MountTest, WhatCouldNotBeStoredIsNamedWithDidUnmount) {
  iFiles.setUndelivered({{"/a", "/saved/a", NSError::errorWithDomain(NSPOSIXErrorDomain, kEACCES)}});
  mount();
  const NSNotification notification = unmount();
  const NSArray* items = notification.userInfo->objectForKey(kGMUserFileSystemUndeliveredKey)->asArray();
  ASSERT_EQ(items->size(), 1u);
  EXPECT_EQ(*items->front().asString(), "/a\t/saved/a\tPermission denied");
}

TEST_F(MountTest, TabsInTheNameOfWhatCouldNotBeStoredAreWrittenOut) {
  iFiles.setUndelivered(
      {{"/a\tb\\", "/saved/a\tb\\", NSError::errorWithDomain(NSPOSIXErrorDomain, kEACCES)}});
  mount();
  const NSNotification notification = unmount();
  const NSArray* items = notification.userInfo->objectForKey(kGMUserFileSystemUndeliveredKey)->asArray();
  ASSERT_EQ(items->size(), 1u);
  EXPECT_EQ(*items->front().asString(), "/a\\tb\\\\\t/saved/a\\tb\\\\\tPermission denied");
}

TEST_F(MountTest, WhatIsWrittenIsDrainedBeforeDidUnmount) {
  iFiles.hold("drain");
  mount();
  iFileSystem->unmount();
  iFiles.waitUntilHeld(1);
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount}));
  iFiles.letGo("drain");
  iNotifications.waitFor(kDidUnmount);
}

TEST_F(MountTest, UnmountWaitsForARequestInFlight) {
  iFiles.addFile("/a", "content");
  iFiles.hold("read", "/a");
  mount();
  std::optional<std::string> content;
  std::thread reader([&] { content = contentOfFile(at("/a")); });
  iFiles.waitUntilHeld(1);
  iFileSystem->unmount();
  // Taken out of the tree at once, but not over.
  while (isMounted()) std::this_thread::yield();
  EXPECT_EQ(iNotifications.names(), (Names{kDidMount}));
  iFiles.letGo("read", "/a");
  reader.join();
  EXPECT_EQ(content, "content");
  iNotifications.waitFor(kDidUnmount);
  EXPECT_EQ(iFiles.countOf("giveUp"), 0u);
}

TEST_F(MountTest, ADeadServerCannotHoldTheUnmountForEver) {
  auto& files = immortal<DurableMemoryFileSystem>();
  GMUserFileSystem::setUnmountPatience(0.05, 0.05);
  files.addFile("/a", "content");
  files.hold("read", "/a");
  mountDelegate(&files);
  std::thread reader([&] { contentOfFile(at("/a")); });
  files.waitUntilHeld(1);
  unmount();
  EXPECT_EQ(files.countOf("giveUp"), 1u);
  EXPECT_EQ(files.countOf("release /a"), 1u);
  // The kernel has failed the read, although the delegate still holds it.
  reader.join();
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
  // What comes back late finds no delegate any more.
  files.forgetCalls();
  files.letGo("read", "/a");
  iFileSystem.reset();
  EXPECT_TRUE(files.calls().empty());
}

TEST_F(MountTest, UnmountGivesNothingUpWhileBytesMove) {
  class Moving : public DurableMemoryFileSystem {
   public:
    uint64_t bytesMoved() override {
      if (++iMoved == 7) letGo("read", "/a");
      return iMoved;
    }

   private:
    uint64_t iMoved = 0;
  } files;
  GMUserFileSystem::setUnmountPatience(0.05, 60);
  files.addFile("/a", "content");
  files.hold("read", "/a");
  mountDelegate(&files);
  std::thread reader([&] { EXPECT_EQ(contentOfFile(at("/a")), "content"); });
  files.waitUntilHeld(1);
  unmount();
  reader.join();
  EXPECT_EQ(files.countOf("giveUp"), 0u);
  EXPECT_EQ(files.countOf("drain"), 1u);
  iFileSystem.reset();
}

// What it moves looks like what is waited for.
TEST_F(MountTest, UnmountDoesNotWaitForAProgramThatGoesOn) {
  class Moving : public DurableMemoryFileSystem {
   public:
    uint64_t bytesMoved() override {
      if (++iMoved == 3) {
        iGoOn.set_value();
        waitUntilHeld(2);
        letGo("read", "/a");
      }
      return iMoved;
    }
    std::promise<void> iGoOn;

   private:
    uint64_t iMoved = 0;
  };
  auto& files = immortal<Moving>();
  GMUserFileSystem::setUnmountPatience(0.05, 60);
  for (const char* path : {"/a", "/b"}) {
    files.addFile(path, "content");
    files.hold("read", path);
  }
  mountDelegate(&files);
  std::thread reader([&] { EXPECT_EQ(contentOfFile(at("/a")), "content"); });
  files.waitUntilHeld(1);
  const File other(at("/b"), O_RDONLY);
  std::thread goingOn([&] {
    files.iGoOn.get_future().wait();
    char byte = 0;
    EXPECT_EQ(pread(other.get(), &byte, 1, 0), -1);
  });
  unmount();
  EXPECT_EQ(files.countOf("giveUp"), 0u);
  files.letGo("read", "/b");
  reader.join();
  goingOn.join();
  iFileSystem.reset();
}

TEST_F(MountTest, UnmountEndsDownloadsBeforeItGivesAnythingUp) {
  class Ending : public DurableMemoryFileSystem {
   public:
    void endDownloads() override {
      failWith("read", kEIO);
      letGo("read", "/a");
    }
    // However long the answer takes from there, it is no silence.
    uint64_t bytesMoved() override { return ++iMoved; }

   private:
    uint64_t iMoved = 0;
  } files;
  GMUserFileSystem::setUnmountPatience(0.05, 60);
  files.addFile("/a", "content");
  files.hold("read", "/a");
  mountDelegate(&files);
  std::thread reader([&] { EXPECT_EQ(contentOfFile(at("/a")), std::nullopt); });
  files.waitUntilHeld(1);
  unmount();
  reader.join();
  EXPECT_EQ(files.countOf("giveUp"), 0u);
  iFileSystem.reset();
}

TEST_F(MountTest, ADrainThatRaisesIsToldWithDidUnmount) {
  iFiles.raiseIn("drain");
  mount();
  const NSNotification notification = unmount();
  const PropertyValue* told = notification.userInfo->objectForKey(kGMUserFileSystemUndeliveredKey);
  ASSERT_NE(told, nullptr);
  ASSERT_EQ(told->asArray()->size(), 1u);
  EXPECT_EQ(*told->asArray()->front().asString(), "/\t\traised in drain");
}

TEST_F(MountTest, GivingUpTheConnectionsEndsWhatWaitedForThem) {
  class Giving : public DurableMemoryFileSystem {
   public:
    void giveUpConnections() override {
      failWith("read", kEIO);
      letGo("read", "/a");
    }
  } files;
  GMUserFileSystem::setUnmountPatience(0.05, 60);
  files.addFile("/a", "content");
  files.hold("read", "/a");
  mountDelegate(&files);
  std::thread reader([&] { EXPECT_EQ(contentOfFile(at("/a")), std::nullopt); });
  files.waitUntilHeld(1);
  unmount();
  reader.join();
  iFileSystem.reset();
}

TEST_F(MountTest, AFileThatIsOpenAtTheEndIsReleasedOnce) {
  iFiles.addFile("/a", "content");
  mount();
  const File file(at("/a"), O_RDONLY);
  unmount();
  EXPECT_EQ(iFiles.countOf("release /a"), 1u);
  char byte = 0;
  EXPECT_NE(errnoOf([&] { return static_cast<int>(pread(file.get(), &byte, 1, 0)); }), 0);
}

TEST_F(MountTest, WithoutADelegateEverythingFails) {
  iFiles.addFile("/a", "content");
  mount();
  iFileSystem->setDelegate(nullptr);
  struct stat attributes {};
  EXPECT_EQ(errnoOf([&] { return stat(at("/a").c_str(), &attributes); }), EIO);
  iFiles.forgetCalls();
  unmount();
  EXPECT_TRUE(iFiles.calls().empty());
}

// A process of its own that mounts and waits, as a helper does; -1 when it did not get to mount.
pid_t startHelper(const std::string& volumes, const std::string& path) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) return -1;
  const pid_t child = fork();
  if (child == 0) {
    dup2(ready[1], STDOUT_FILENO);
    execl("/proc/self/exe", "test_userfs", "--helper", volumes.c_str(), path.c_str(), nullptr);
    _exit(1);
  }
  close(ready[1]);
  char byte = 0;
  const bool isReady = read(ready[0], &byte, 1) == 1;
  close(ready[0]);
  return isReady ? child : -1;
}

void killHelper(pid_t child) {
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
}

class StaleMountTest : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    iHelper = startHelper(iVolumes.path(), mountPath());
    ASSERT_GT(iHelper, 0);
  }
  void TearDown() override {
    if (iHelper > 0) killHelper(iHelper);
    MountTest::TearDown();
  }
  pid_t iHelper = -1;
};

TEST_F(StaleMountTest, WhatAKilledHelperLeftIsCleared) {
  killHelper(iHelper);
  iHelper = -1;
  EXPECT_TRUE(isDisconnected(mountPath()));
  GMUserFileSystem::clearStaleMountPoints();
  EXPECT_FALSE(isMounted());
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
}

TEST_F(StaleMountTest, TheNextMountAtThePathTakesItsPlace) {
  killHelper(iHelper);
  iHelper = -1;
  iFiles.addFile("/mine", "x");
  mount();
  EXPECT_EQ(namesIn(mountPath()), (Names{"mine"}));
}

TEST_F(StaleMountTest, AVolumeWhoseHelperLivesStays) {
  GMUserFileSystem::clearStaleMountPoints();
  EXPECT_TRUE(isMounted());
  EXPECT_EQ(namesIn(mountPath()), (Names{"from the helper"}));
}

}  // namespace
}  // namespace ombra
