#include "platform/userfs/MountOptions.h"

#include <gtest/gtest.h>

namespace ombra {
namespace {

constexpr MountOptions::Permission kRoot{true, false};
constexpr MountOptions::Permission kUser{false, false};
constexpr MountOptions::Permission kTrustedUser{false, true};

TEST(MountOptions, TheListOfAHelperIsUnderstoodInFull) {
  const MountOptions options = MountOptions::parse(
      {"debug", "fsname=OmbraFS/sftp#ada@example.org", "volname=Ada's files", "native_xattr", "cloudfs",
       "native_xattr", "jail_symlinks", "netfs", "allow_root", "modules=redirect", "redirect_sha1",
       "redirect_folder=/home/ada/cache", "redirect_volicon=/tmp/icon"},
      kTrustedUser);
  EXPECT_EQ(options.fsname, "OmbraFS/sftp#ada@example.org");
  EXPECT_EQ(options.volumeName, "Ada's files");
  EXPECT_TRUE(options.debug && options.nativeXattr && options.jailSymlinks && options.allowRoot);
  EXPECT_TRUE(options.unknown.empty());
  EXPECT_EQ(options.ignored, (std::vector<std::string>{"cloudfs", "netfs"}));
  ASSERT_TRUE(options.redirect);
  EXPECT_EQ(options.redirect->folder, "/home/ada/cache");
  EXPECT_EQ(options.redirect->icon, "/tmp/icon");
  EXPECT_TRUE(options.redirect->hashesNames);
}

TEST(MountOptions, WhatTheRedirectModuleWouldNeedIsIgnoredWithoutIt) {
  const MountOptions options =
      MountOptions::parse({"redirect_sha1", "redirect_folder=/f", "redirect_volicon=/i"}, kRoot);
  EXPECT_FALSE(options.redirect);
  EXPECT_EQ(options.ignored.size(), 3u);
  EXPECT_TRUE(options.unknown.empty());
}

TEST(MountOptions, TheRedirectModuleIsOffWithoutAFolder) {
  EXPECT_FALSE(MountOptions::parse({"modules=redirect", "redirect_volicon=/i"}, kRoot).redirect);
  EXPECT_FALSE(MountOptions::parse({"modules=redirect", "redirect_folder="}, kRoot).redirect);
}

TEST(MountOptions, APathOfTheRedirectModuleMayHoldAnything) {
  const auto redirect =
      MountOptions::parse({"modules=redirect", "redirect_folder=/a,b=c\\d", "redirect_volicon="}, kRoot)
          .redirect;
  ASSERT_TRUE(redirect);
  EXPECT_EQ(redirect->folder, "/a,b=c\\d");
  EXPECT_EQ(redirect->icon, "");
}

TEST(MountOptions, NothingIsOnUnlessAskedFor) {
  const MountOptions options = MountOptions::parse({}, kRoot);
  EXPECT_FALSE(options.debug || options.nativeXattr || options.jailSymlinks || options.allowRoot);
  EXPECT_FALSE(options.volumeName);
}

TEST(MountOptions, AFileSystemNameCannotSmuggleInAFurtherOption) {
  const struct {
    const char* given;
    const char* cleaned;
  } kNames[] = {{"fsname=a,allow_other", "a_allow_other"},
                {"fsname=a\\,suid", "a__suid"},
                {"fsname=a\ndev", "a_dev"},
                {"fsname=x=y", "x=y"}};
  for (const auto& name : kNames) EXPECT_EQ(MountOptions::parse({name.given}, kRoot).fsname, name.cleaned);
}

TEST(MountOptions, AnEmptyFileSystemNameBecomesTheProgramsOwn) {
  EXPECT_EQ(MountOptions::parse({"fsname="}, kRoot).fsname, "ombrafs");
}

TEST(MountOptions, RootIsLetInOnlyWhereTheSystemPermitsIt) {
  EXPECT_TRUE(MountOptions::parse({"allow_root"}, kRoot).allowRoot);
  EXPECT_TRUE(MountOptions::parse({"allow_root"}, kTrustedUser).allowRoot);
  EXPECT_FALSE(MountOptions::parse({"allow_root"}, kUser).allowRoot);
}

TEST(MountOptions, WhatIsNotKnownIsLeftOut) {
  EXPECT_EQ(MountOptions::parse({"suid", "debug=1", "volname"}, kRoot).unknown,
            (std::vector<std::string>{"suid", "debug=1", "volname"}));
}

TEST(MountOptions, UserAllowOtherCountsOnlyAsALineOfItsOwn) {
  EXPECT_TRUE(allowsUserAllowOther("# comment\nuser_allow_other\n"));
  EXPECT_TRUE(allowsUserAllowOther("  user_allow_other \t"));
  EXPECT_FALSE(allowsUserAllowOther("#user_allow_other\n"));
  EXPECT_FALSE(allowsUserAllowOther("user_allow_others\nmount_max = 10"));
  EXPECT_FALSE(allowsUserAllowOther(""));
}

TEST(MountOptions, AMissingConfigurationPermitsNothing) {
  EXPECT_FALSE(MountOptions::permission("/nonexistent/fuse.conf").userAllowOther);
}

}  // namespace
}  // namespace ombra
