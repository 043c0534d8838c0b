#include "platform/userfs/FuserMount.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/userfs/MountPoint.h"
#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

class FuserMountTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto reason = access("/usr/bin/fusermount3", X_OK) != 0
                            ? std::optional<std::string>("no fusermount3")
                            : reasonNotToMount();
    if (!reason) return;
    const char* ci = std::getenv("CI");
    if (ci != nullptr && std::string_view(ci) == "true") FAIL() << *reason;
    GTEST_SKIP() << *reason;
  }
  FolderForMounts iVolumes;
  std::string iWords;
};

TEST_F(FuserMountTest, AFolderIsMountedAndDetached) {
  const int device = FuserMount::mount(iVolumes.path(), "fsname=a name,subtype=ombrafs", &iWords);
  ASSERT_GE(device, 0) << iWords;
  const auto volume = mountedVolumeAtPath(iVolumes.path());
  ASSERT_TRUE(volume);
  EXPECT_EQ(volume->source, "a name");
  EXPECT_TRUE(FuserMount::detach(iVolumes.path(), &iWords)) << iWords;
  EXPECT_FALSE(mountedVolumeAtPath(iVolumes.path()));
  close(device);
}

TEST_F(FuserMountTest, ARefusalComesWithTheProgramsOwnWords) {
  EXPECT_EQ(FuserMount::mount(iVolumes.path() + "/missing", "fsname=x", &iWords), -1);
  EXPECT_NE(iWords.find("fusermount3:"), std::string::npos) << iWords;
  EXPECT_NE(iWords.find("missing"), std::string::npos) << iWords;
}

TEST_F(FuserMountTest, DetachingWhatIsNotMountedFails) {
  EXPECT_FALSE(FuserMount::detach(iVolumes.path(), &iWords));
}

}  // namespace
}  // namespace ombra
