// Mounting, unmounting, and what is said about them.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "platform/userfs/MountPoint.h"
#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

using Names = std::vector<std::string>;
const Names kMountedAndUnmounted = {std::string(kGMUserFileSystemDidMount),
                                    std::string(kGMUserFileSystemDidUnmount)};

TEST_F(MountTest, FilesOfTheDelegateAppearBelowTheMountPoint) {
  iFiles.addFile("/hello", "hello world");
  mount();
  EXPECT_EQ(contentOfFile(at("/hello")), "hello world");
}

TEST_F(MountTest, UnmountTakesAwayMountAndFolderAndIsAnnouncedOnce) {
  mount();
  unmount();
  iFileSystem.reset();
  EXPECT_FALSE(isMounted());
  EXPECT_FALSE(std::filesystem::exists(mountPath()));
  EXPECT_EQ(iNotifications.names(), kMountedAndUnmounted);
}

}  // namespace
}  // namespace ombra
