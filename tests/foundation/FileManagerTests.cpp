#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/foundation/NSFileManager.h"
#include "tests/foundation/TestSupport.h"

namespace ombra {
namespace {

unsigned modeOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

class FileManager : public testing::Test {
 protected:
  TemporaryFolder iFolder;
  NSErrorRef iError;
};

TEST_F(FileManager, ListsAFolderWithoutDots) {
  writeFile(iFolder.path("a"), "");
  writeFile(iFolder.path(".b"), "");
  const auto names = NSFileManager::contentsOfDirectoryAtPath(iFolder.path(), nullptr);
  ASSERT_TRUE(names);
  EXPECT_THAT(*names, testing::UnorderedElementsAre("a", ".b"));
}

TEST_F(FileManager, TellsWhyAFolderCannotBeListed) {
  EXPECT_FALSE(NSFileManager::contentsOfDirectoryAtPath(iFolder.path("none"), &iError));
  ASSERT_NE(iError, nullptr);
  EXPECT_EQ(iError->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, MakesFoldersWithThoseAboveThem) {
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(iFolder.path("a/b/c"), true, 0700, &iError));
  EXPECT_EQ(modeOf(iFolder.path("a/b/c")), 0700U);
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath(iFolder.path("a/b/c"), true, 0700, &iError));
}

TEST_F(FileManager, DoesNotMakeIntermediateFoldersUnasked) {
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath(iFolder.path("a/b"), false, 0700, &iError));
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, DoesNotTakeAFileForAFolder) {
  writeFile(iFolder.path("a"), "");
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath(iFolder.path("a"), true, 0700, &iError));
  EXPECT_EQ(iError->code(), EEXIST);
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath(iFolder.path("a/b"), true, 0700, &iError));
}

TEST_F(FileManager, ExistenceFollowsLinks) {
  ASSERT_EQ(symlink("nowhere", iFolder.path("link").c_str()), 0);
  EXPECT_FALSE(NSFileManager::fileExistsAtPath(iFolder.path("link")));
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(iFolder.path()));
}

TEST_F(FileManager, RemovesAWholeFolder) {
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath(iFolder.path("a/b/c"), true, 0700, nullptr));
  writeFile(iFolder.path("a/b/f"), "x");
  EXPECT_TRUE(NSFileManager::removeItemAtPath(iFolder.path("a"), &iError));
  EXPECT_FALSE(NSFileManager::fileExistsAtPath(iFolder.path("a")));
}

TEST_F(FileManager, RemovesLinksInsteadOfWhatTheyPointTo) {
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath(iFolder.path("kept"), false, 0700, nullptr));
  writeFile(iFolder.path("kept/f"), "x");
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath(iFolder.path("a"), false, 0700, nullptr));
  ASSERT_EQ(symlink(iFolder.path("kept").c_str(), iFolder.path("a/link").c_str()), 0);
  EXPECT_TRUE(NSFileManager::removeItemAtPath(iFolder.path("a"), nullptr));
  EXPECT_EQ(contentsOfFile(iFolder.path("kept/f")), "x");

  ASSERT_EQ(symlink(iFolder.path("kept").c_str(), iFolder.path("link").c_str()), 0);
  EXPECT_TRUE(NSFileManager::removeItemAtPath(iFolder.path("link/"), nullptr));
  EXPECT_EQ(contentsOfFile(iFolder.path("kept/f")), "x");
}

TEST_F(FileManager, TellsWhatCouldNotBeRemoved) {
  EXPECT_FALSE(NSFileManager::removeItemAtPath(iFolder.path("none"), &iError));
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, RemovesADeepFolder) {
  std::string path = iFolder.path("a");
  for (int i = 0; i < 200; ++i) path += "/d";
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath(path, true, 0700, nullptr));
  EXPECT_TRUE(NSFileManager::removeItemAtPath(iFolder.path("a"), nullptr));
}

TEST_F(FileManager, TellsOwnerAndModeOfALinkItself) {
  ASSERT_EQ(symlink("nowhere", iFolder.path("link").c_str()), 0);
  const auto attributes = NSFileManager::attributesOfItemAtPath(iFolder.path("link"), nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->posixPermissions, 0777U);
  EXPECT_FALSE(NSFileManager::attributesOfItemAtPath(iFolder.path("none"), &iError));
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, CallsGroupZeroWheel) {
  const auto attributes = NSFileManager::attributesOfItemAtPath("/", nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->ownerAccountName, "root");
  EXPECT_EQ(attributes->groupOwnerAccountName, "wheel");
}

class UserFolders : public testing::Test {
 protected:
  TemporaryFolder iFolder;
  EnvironmentVariable iTemporary{"OMBRAFS_TMPDIR", iFolder.path("tmp")};
  EnvironmentVariable iData{"XDG_DATA_HOME", iFolder.path("data")};
  EnvironmentVariable iState{"XDG_STATE_HOME", iFolder.path("state")};
  EnvironmentVariable iConfiguration{"XDG_CONFIG_HOME", iFolder.path("config")};
  LogCapture iLog;
};

TEST_F(UserFolders, AreThoseOfTheEnvironment) {
  EXPECT_EQ(NSFileManager::kc_applicationSupportSubFolder("OmbraDiskCache"),
            iFolder.path("data/ombrafs/OmbraDiskCache"));
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(iFolder.path("data/ombrafs/OmbraDiskCache")));
  EXPECT_EQ(NSFileManager::configurationFolder(), iFolder.path("config/ombrafs"));
  EXPECT_FALSE(NSFileManager::fileExistsAtPath(iFolder.path("config")));
}

TEST_F(UserFolders, LieInTheHomeFolderByDefault) {
  EnvironmentVariable home("HOME", iFolder.path("home"));
  EnvironmentVariable data("XDG_DATA_HOME", std::nullopt);
  EnvironmentVariable state("XDG_STATE_HOME", "relative");
  EnvironmentVariable configuration("XDG_CONFIG_HOME", "");
  EXPECT_EQ(NSFileManager::kc_applicationSupportSubFolder("x"), iFolder.path("home/.local/share/ombrafs/x"));
  EXPECT_EQ(NSFileManager::kc_chewableItemsFolderCreate(false), iFolder.path("home/.local/state/ombrafs"));
  EXPECT_EQ(NSFileManager::configurationFolder(), iFolder.path("home/.config/ombrafs"));
}

TEST_F(UserFolders, ForLogsAreMadePrivateOnRequestOnly) {
  EXPECT_EQ(NSFileManager::kc_chewableItemsFolderCreate(false), iFolder.path("state/ombrafs"));
  EXPECT_FALSE(NSFileManager::fileExistsAtPath(iFolder.path("state")));
  NSFileManager::kc_chewableItemsFolderCreate(true);
  EXPECT_EQ(modeOf(iFolder.path("state/ombrafs")), 0700U);
  ASSERT_EQ(chmod(iFolder.path("state/ombrafs").c_str(), 0755), 0);
  NSFileManager::kc_chewableItemsFolderCreate(true);
  EXPECT_EQ(modeOf(iFolder.path("state/ombrafs")), 0700U);
}

TEST_F(UserFolders, AreAbsentWhenTheyCannotBeMade) {
  writeFile(iFolder.path("data"), "a file in the way");
  EXPECT_EQ(NSFileManager::kc_applicationSupportSubFolder("x"), std::nullopt);
  EXPECT_EQ(iLog.count("cannot make the folder"), 1U);
}

TEST_F(UserFolders, TemporaryOneIsMadePrivate) {
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), iFolder.path("tmp"));
  EXPECT_EQ(modeOf(iFolder.path("tmp")), 0700U);
  ASSERT_EQ(chmod(iFolder.path("tmp").c_str(), 0777), 0);
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), iFolder.path("tmp"));
  EXPECT_EQ(modeOf(iFolder.path("tmp")), 0700U);
}

TEST_F(UserFolders, TemporaryOneIsRefusedWhenItIsALinkOrAFile) {
  ASSERT_EQ(symlink(iFolder.path().c_str(), iFolder.path("tmp").c_str()), 0);
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), "");
  ASSERT_EQ(unlink(iFolder.path("tmp").c_str()), 0);
  writeFile(iFolder.path("tmp"), "");
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), "");
  EXPECT_EQ(iLog.count("is not a folder of this user's own"), 2U);
}

TEST_F(UserFolders, TemporaryOneOfAnotherUserIsRefused) {
  EnvironmentVariable foreign("OMBRAFS_TMPDIR",
                              geteuid() == 0 ? iFolder.path("theirs") : std::string("/usr"));
  if (geteuid() == 0) {
    ASSERT_EQ(mkdir(iFolder.path("theirs").c_str(), 0700), 0);
    ASSERT_EQ(chown(iFolder.path("theirs").c_str(), 1, 1), 0);
  }
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), "");
  EXPECT_EQ(iLog.count("is not a folder of this user's own"), 1U);
}

TEST_F(UserFolders, OtherConfigurationNamesGiveNothing) { EXPECT_EQ(NSFileManager::kc_confstr(0), ""); }

}  // namespace
}  // namespace ombra
