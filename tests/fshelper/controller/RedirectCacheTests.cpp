// Folders for litter that outlived their helpers, and those that did not.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "fshelper/OFSRedirectCache.h"
#include "tests/fshelper/controller/ControllerTestSupport.h"

namespace ombra {
namespace {

using std::filesystem::exists;

class RedirectCache : public ::testing::Test {
 protected:
  std::string path(const std::string& name = "0F0B7B9C-6A4E-4E0E-8E0D-2D3C54B4A001") const {
    return folder.path(name);
  }
  // Of a process that is gone.
  void leave(const std::string& name) {
    { const OFSRedirectCache gone(path(name)); }
    std::filesystem::create_directories(path(name) + "/room");
    writeTestFile(path(name) + "/room/item", "litter");
  }
  TestFolder folder;
};

TEST_F(RedirectCache, StaysWhileItsProcessLives) {
  const OFSRedirectCache live(path());
  EXPECT_TRUE(live.isMarked());
  OFSRedirectCache::removeAbandonedInFolder(folder.path());
  EXPECT_TRUE(exists(path() + "/owner"));
}

TEST_F(RedirectCache, IsRemovedWithAllThatIsInItAfterItsProcess) {
  leave("0F0B7B9C-6A4E-4E0E-8E0D-2D3C54B4A001");
  OFSRedirectCache::removeAbandonedInFolder(folder.path());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(RedirectCache, IsPrivate) {
  const OFSRedirectCache live(path());
  struct stat status {};
  ASSERT_EQ(::stat(path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0700u);
}

TEST_F(RedirectCache, WithoutAMarkStays) {
  std::filesystem::create_directories(path() + "/room");
  OFSRedirectCache::removeAbandonedInFolder(folder.path());
  EXPECT_TRUE(exists(path() + "/room"));
}

TEST_F(RedirectCache, OfAnotherKindOfNameStays) {
  leave("home");
  OFSRedirectCache::removeAbandonedInFolder(folder.path());
  EXPECT_TRUE(exists(path("home") + "/room/item"));
}

TEST_F(RedirectCache, ThatIsALinkIsNotFollowed) {
  leave("elsewhere");
  std::filesystem::create_directory_symlink(path("elsewhere"), path());
  OFSRedirectCache::removeAbandonedInFolder(folder.path());
  EXPECT_TRUE(exists(path("elsewhere") + "/room/item"));
}

TEST_F(RedirectCache, ThatIsThereAlreadyIsNobodysOwn) {
  std::filesystem::create_directory(path());
  EXPECT_FALSE(OFSRedirectCache(path()).isMarked());
  EXPECT_FALSE(OFSRedirectCache(path("missing") + "/folder").isMarked());
  OFSRedirectCache::removeAbandonedInFolder(folder.path("missing"));
  OFSRedirectCache::removeAbandonedInFolder(folder.path());
  EXPECT_TRUE(exists(path()));
}

}  // namespace
}  // namespace ombra
