#include "platform/userfs/MountPoint.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

class MountPointTest : public ::testing::Test {
 protected:
  std::string at(const std::string& name) const { return iVolumes.path() + "/" + name; }
  std::unique_ptr<MountPoint> prepare(const std::string& path) {
    iError = nullptr;
    return MountPoint::prepare(path, iVolumes.path(), &iError);
  }
  void expectRefusal(const std::string& path, GMUserFileSystemErrorCode code) {
    EXPECT_EQ(prepare(path), nullptr) << path;
    ASSERT_NE(iError, nullptr) << path;
    EXPECT_EQ(iError->domain(), kGMUserFileSystemErrorDomain);
    EXPECT_EQ(iError->code(), code) << path;
    EXPECT_NE(iError->userInfo().stringForKey(NSLocalizedRecoverySuggestionErrorKey).value_or(""), "");
  }

  FolderForMounts iVolumes;
  NSErrorRef iError;
};

TEST_F(MountPointTest, OnlyAPlainNameDirectlyBelowTheVolumesFolderIsAVolume) {
  EXPECT_EQ(MountPoint::nameOfPath("/Volumes/Srv", "/Volumes"), "Srv");
  EXPECT_EQ(MountPoint::nameOfPath("/Volumes/..a", "/Volumes"), "..a");
  for (const char* path :
       {"/Volumes", "/Volumes/", "/Volumes/.", "/Volumes/..", "/Volumes/a/b", "/Volumes/../etc",
        "/Volumesx/a", "/etc/a", "Volumes/a", "", "/Volumes//a", "/Volumes/a/"}) {
    EXPECT_EQ(MountPoint::nameOfPath(path, "/Volumes"), std::nullopt) << path;
  }
}

TEST_F(MountPointTest, TheFolderIsMadeAndTakenAwayAgain) {
  auto point = prepare(at("Srv"));
  ASSERT_NE(point, nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(at("Srv")));
  point.reset();
  EXPECT_FALSE(std::filesystem::exists(at("Srv")));
}

TEST_F(MountPointTest, AnEmptyFolderThatWasThereBeforeStays) {
  std::filesystem::create_directory(at("Srv"));
  ASSERT_NE(prepare(at("Srv")), nullptr);
  EXPECT_TRUE(std::filesystem::is_directory(at("Srv")));
}

TEST_F(MountPointTest, AFolderThatSomebodyPutInItsPlaceStays) {
  auto point = prepare(at("Srv"));
  std::filesystem::rename(at("Srv"), at("elsewhere"));
  std::filesystem::create_directory(at("Srv"));
  point.reset();
  EXPECT_TRUE(std::filesystem::exists(at("Srv")));
}

TEST_F(MountPointTest, PathsThatLeadElsewhereAreRefusedAndNothingIsMade) {
  expectRefusal(at(".."), kGMMountPointInvalid);
  expectRefusal(at("../outside"), kGMMountPointInvalid);
  expectRefusal(at("a/b"), kGMMountPointInvalid);
  expectRefusal("/tmp/elsewhere", kGMMountPointInvalid);
  EXPECT_TRUE(std::filesystem::is_empty(iVolumes.path()));
}

TEST_F(MountPointTest, ALinkIsNotMountedOn) {
  std::filesystem::create_directory(at("real"));
  std::filesystem::create_symlink(at("real"), at("Srv"));
  expectRefusal(at("Srv"), kGMMountPointInvalid);
  EXPECT_TRUE(std::filesystem::is_symlink(at("Srv")));
}

TEST_F(MountPointTest, AFileIsNotMountedOn) {
  std::ofstream(at("Srv")) << "content";
  expectRefusal(at("Srv"), kGMMountPointInvalid);
}

TEST_F(MountPointTest, AFolderWithContentsIsNotHidden) {
  std::filesystem::create_directories(at("Srv/inside"));
  expectRefusal(at("Srv"), kGMMountPointInUse);
}

TEST_F(MountPointTest, AMissingVolumesFolderIsToldWithTheCommandThatMakesIt) {
  NSErrorRef error;
  EXPECT_EQ(MountPoint::prepare("/nonexistent-volumes/Srv", "/nonexistent-volumes", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), kGMMountPointMissing);
  EXPECT_NE(error->localizedDescription().find("sudo mkdir -m 1777 \"/nonexistent-volumes\""),
            std::string::npos);
}

TEST(MountInfo, LinesAreReadWithTheirEscapes) {
  const auto volumes = parseMountInfo(
      "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue\n"
      "57 20 0:44 / /Volumes/My\\040Disk rw,nosuid - fuse.ombrafs OmbraFS/sftp#a\\134b rw,user_id=0\n");
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0].path, "/mnt2");
  EXPECT_EQ(volumes[1].path, "/Volumes/My Disk");
  EXPECT_EQ(volumes[1].type, "fuse.ombrafs");
  EXPECT_EQ(volumes[1].source, "OmbraFS/sftp#a\\b");
  EXPECT_EQ(volumes[1].device, "0:44");
}

TEST(MountInfo, LinesOfAnotherFormAreLeftOut) {
  EXPECT_TRUE(
      parseMountInfo("garbage\n\n36 35 98:0 /mnt1\n36 35 98:0 / /x rw - ext4\n36 35 98:0 / /x rw\n").empty());
}

TEST(MountInfo, TheRootIsMounted) { EXPECT_TRUE(mountedVolumeAtPath("/")); }

}  // namespace
}  // namespace ombra
