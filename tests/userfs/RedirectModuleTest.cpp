// The module in another program's file system, loaded by the fuse library.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tests/userfs/ForeignFileSystem.h"
#include "tests/userfs/MountFixture.h"
#include "tests/userfs/RedirectFixture.h"

namespace ombra {
namespace {

using Names = std::vector<std::string>;

class RedirectModule : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(whyModuleIsNotLoaded(), "");
    if (const auto reason = reasonNotToMount()) {
      const char* ci = std::getenv("CI");
      if (ci != nullptr && std::string_view(ci) == "true") FAIL() << *reason;
      GTEST_SKIP() << *reason;
    }
  }
  void write(const std::string& name, const std::string& content) {
    const File file(files.at(name), O_WRONLY | O_CREAT);
    ASSERT_EQ(::write(file.get(), content.data(), content.size()), static_cast<ssize_t>(content.size()));
  }
  TemporaryFolder litter;
  ForeignFileSystem files;
};

TEST_F(RedirectModule, AnyFileSystemCanHaveItsLitterKept) {
  files.add("real", "from the start");
  ASSERT_TRUE(files.mount("modules=redirect,redirect_folder=" + litter.path() + ",volname=Foreign"));
  write(".DS_Store", "litter");
  write("new", "content");
  EXPECT_EQ(files.contentOf(".DS_Store"), "(none)");
  EXPECT_EQ(files.contentOf("new"), "content");
  EXPECT_EQ(contentOfFile(files.at(".DS_Store")), "litter");
  EXPECT_EQ(contentOfFile(files.at("real")), "from the start");
  EXPECT_EQ(namesIn(files.path()), (Names{".DS_Store", "new", "real"}));
  EXPECT_NE(contentOfFile(files.at(".xdg-volume-info")).value_or("").find("Name=Foreign\n"),
            std::string::npos);
  EXPECT_EQ(contentOfFile(litter / "%2F.DS_Store/item"), "litter");
}

TEST_F(RedirectModule, LitterGetsARealNameInAFileSystemWithoutSynchronisation) {
  ASSERT_TRUE(files.mount("modules=redirect,redirect_sha1,redirect_folder=" + litter.path()));
  write("._draft", "content");
  EXPECT_EQ(std::rename(files.at("._draft").c_str(), files.at("document").c_str()), 0);
  EXPECT_EQ(files.contentOf("document"), "content");
  EXPECT_EQ(namesIn(files.path()), (Names{"document"}));
}

TEST_F(RedirectModule, TheFileSystemBelowEndsOnceWithIt) {
  ASSERT_TRUE(files.mount("modules=redirect,redirect_folder=" + litter.path()));
  EXPECT_EQ(namesIn(files.path()), Names{});
  files.unmount();
  EXPECT_EQ(files.ends(), 1);
}

TEST_F(RedirectModule, WithoutAFolderItIsRefused) {
  EXPECT_FALSE(files.mount("modules=redirect"));
  EXPECT_FALSE(files.mount("modules=redirect,redirect_folder=relative"));
}

}  // namespace
}  // namespace ombra
