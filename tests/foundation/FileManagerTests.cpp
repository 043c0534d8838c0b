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
  writeFile((iFolder / "a"), "");
  writeFile((iFolder / ".b"), "");
  const auto names = NSFileManager::contentsOfDirectoryAtPath(iFolder.path(), nullptr);
  ASSERT_TRUE(names);
  EXPECT_THAT(*names, testing::UnorderedElementsAre("a", ".b"));
}

TEST_F(FileManager, TellsWhyAFolderCannotBeListed) {
  EXPECT_FALSE(NSFileManager::contentsOfDirectoryAtPath((iFolder / "none"), &iError));
  ASSERT_NE(iError, nullptr);
  EXPECT_EQ(iError->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, MakesFoldersWithThoseAboveThem) {
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath((iFolder / "a/b/c"), true, 0700, &iError));
  EXPECT_EQ(modeOf((iFolder / "a/b/c")), 0700U);
  EXPECT_TRUE(NSFileManager::createDirectoryAtPath((iFolder / "a/b/c"), true, 0700, &iError));
}

TEST_F(FileManager, DoesNotMakeIntermediateFoldersUnasked) {
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath((iFolder / "a/b"), false, 0700, &iError));
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, DoesNotTakeAFileForAFolder) {
  writeFile((iFolder / "a"), "");
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath((iFolder / "a"), true, 0700, &iError));
  EXPECT_EQ(iError->code(), EEXIST);
  EXPECT_FALSE(NSFileManager::createDirectoryAtPath((iFolder / "a/b"), true, 0700, &iError));
}

TEST_F(FileManager, ExistenceFollowsLinks) {
  ASSERT_EQ(symlink("nowhere", (iFolder / "link").c_str()), 0);
  EXPECT_FALSE(NSFileManager::fileExistsAtPath((iFolder / "link")));
  EXPECT_TRUE(NSFileManager::fileExistsAtPath(iFolder.path()));
}

TEST_F(FileManager, RemovesAWholeFolder) {
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath((iFolder / "a/b/c"), true, 0700, nullptr));
  writeFile((iFolder / "a/b/f"), "x");
  EXPECT_TRUE(NSFileManager::removeItemAtPath((iFolder / "a"), &iError));
  EXPECT_FALSE(NSFileManager::fileExistsAtPath((iFolder / "a")));
}

TEST_F(FileManager, RemovesLinksInsteadOfWhatTheyPointTo) {
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath((iFolder / "kept"), false, 0700, nullptr));
  writeFile((iFolder / "kept/f"), "x");
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath((iFolder / "a"), false, 0700, nullptr));
  ASSERT_EQ(symlink((iFolder / "kept").c_str(), (iFolder / "a/link").c_str()), 0);
  EXPECT_TRUE(NSFileManager::removeItemAtPath((iFolder / "a"), nullptr));
  EXPECT_EQ(contentsOfFile((iFolder / "kept/f")), "x");

  ASSERT_EQ(symlink((iFolder / "kept").c_str(), (iFolder / "link").c_str()), 0);
  EXPECT_TRUE(NSFileManager::removeItemAtPath((iFolder / "link/"), nullptr));
  EXPECT_EQ(contentsOfFile((iFolder / "kept/f")), "x");
}

TEST_F(FileManager, TellsWhatCouldNotBeRemoved) {
  EXPECT_FALSE(NSFileManager::removeItemAtPath((iFolder / "none"), &iError));
  EXPECT_EQ(iError->code(), ENOENT);
}

TEST_F(FileManager, RemovesADeepFolder) {
  std::string path = iFolder / "a";
  for (int i = 0; i < 200; ++i) path += "/d";
  ASSERT_TRUE(NSFileManager::createDirectoryAtPath(path, true, 0700, nullptr));
  EXPECT_TRUE(NSFileManager::removeItemAtPath((iFolder / "a"), nullptr));
}

TEST_F(FileManager, TellsOwnerAndModeOfALinkItself) {
  ASSERT_EQ(symlink("nowhere", (iFolder / "link").c_str()), 0);
  const auto attributes = NSFileManager::attributesOfItemAtPath((iFolder / "link"), nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->posixPermissions, 0777U);
  EXPECT_FALSE(NSFileManager::attributesOfItemAtPath((iFolder / "none"), &iError));
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
  EnvironmentVariable iTemporary{"OMBRAFS_TMPDIR", (iFolder / "tmp")};
  EnvironmentVariable iData{"XDG_DATA_HOME", (iFolder / "data")};
  EnvironmentVariable iState{"XDG_STATE_HOME", (iFolder / "state")};
  EnvironmentVariable iConfiguration{"XDG_CONFIG_HOME", (iFolder / "config")};
  LogCapture iLog;
};

TEST_F(UserFolders, AreThoseOfTheEnvironment) {
  EXPECT_EQ(NSFileManager::kc_applicationSupportSubFolder("OmbraDiskCache"),
            (iFolder / "data/ombrafs/OmbraDiskCache"));
  EXPECT_TRUE(NSFileManager::fileExistsAtPath((iFolder / "data/ombrafs/OmbraDiskCache")));
  EXPECT_EQ(NSFileManager::configurationFolder(), (iFolder / "config/ombrafs"));
  EXPECT_FALSE(NSFileManager::fileExistsAtPath((iFolder / "config")));
}

TEST_F(UserFolders, LieInTheHomeFolderByDefault) {
  EnvironmentVariable home("HOME", (iFolder / "home"));
  EnvironmentVariable data("XDG_DATA_HOME", std::nullopt);
  EnvironmentVariable state("XDG_STATE_HOME", "relative");
  EnvironmentVariable configuration("XDG_CONFIG_HOME", "");
  EXPECT_EQ(NSFileManager::kc_applicationSupportSubFolder("x"), (iFolder / "home/.local/share/ombrafs/x"));
  EXPECT_EQ(NSFileManager::kc_chewableItemsFolderCreate(false), (iFolder / "home/.local/state/ombrafs"));
  EXPECT_EQ(NSFileManager::configurationFolder(), (iFolder / "home/.config/ombrafs"));
}

TEST_F(UserFolders, ForLogsAreMadePrivateOnRequestOnly) {
  EXPECT_EQ(NSFileManager::kc_chewableItemsFolderCreate(false), (iFolder / "state/ombrafs"));
  EXPECT_FALSE(NSFileManager::fileExistsAtPath((iFolder / "state")));
  NSFileManager::kc_chewableItemsFolderCreate(true);
  EXPECT_EQ(modeOf((iFolder / "state/ombrafs")), 0700U);
  ASSERT_EQ(chmod((iFolder / "state/ombrafs").c_str(), 0755), 0);
  NSFileManager::kc_chewableItemsFolderCreate(true);
  EXPECT_EQ(modeOf((iFolder / "state/ombrafs")), 0700U);
}

TEST_F(UserFolders, AreAbsentWhenTheyCannotBeMade) {
  writeFile((iFolder / "data"), "a file in the way");
  EXPECT_EQ(NSFileManager::kc_applicationSupportSubFolder("x"), std::nullopt);
  EXPECT_EQ(iLog.count("cannot make the folder"), 1U);
}

TEST_F(UserFolders, TemporaryOneIsMadePrivate) {
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), (iFolder / "tmp"));
  EXPECT_EQ(modeOf((iFolder / "tmp")), 0700U);
  ASSERT_EQ(chmod((iFolder / "tmp").c_str(), 0777), 0);
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), (iFolder / "tmp"));
  EXPECT_EQ(modeOf((iFolder / "tmp")), 0700U);
}

TEST_F(UserFolders, TemporaryOneIsRefusedWhenItIsALinkOrAFile) {
  ASSERT_EQ(symlink(iFolder.path().c_str(), (iFolder / "tmp").c_str()), 0);
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), "");
  ASSERT_EQ(unlink((iFolder / "tmp").c_str()), 0);
  writeFile((iFolder / "tmp"), "");
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), "");
  EXPECT_EQ(iLog.count("is not a folder of this user's own"), 2U);
}

TEST_F(UserFolders, TemporaryOneOfAnotherUserIsRefused) {
  EnvironmentVariable foreign("OMBRAFS_TMPDIR", geteuid() == 0 ? (iFolder / "theirs") : std::string("/usr"));
  if (geteuid() == 0) {
    ASSERT_EQ(mkdir((iFolder / "theirs").c_str(), 0700), 0);
    ASSERT_EQ(chown((iFolder / "theirs").c_str(), 1, 1), 0);
  }
  EXPECT_EQ(NSFileManager::kc_confstr(kDarwinUserTempDir), "");
  EXPECT_EQ(iLog.count("is not a folder of this user's own"), 1U);
}

TEST_F(UserFolders, OtherConfigurationNamesGiveNothing) { EXPECT_EQ(NSFileManager::kc_confstr(0), ""); }

}  // namespace
}  // namespace ombra
