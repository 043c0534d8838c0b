// What is kept of litter on this machine, and found again.
#include "platform/userfs/redirect/LitterStore.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "platform/userfs/redirect/LocalFile.h"
#include "platform/userfs/redirect/VolumeInfo.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/userfs/MountFixture.h"

namespace ombra {
namespace {

using Names = std::vector<std::string>;

class LitterStoreTest : public ::testing::TestWithParam<bool> {
 protected:
  LitterStoreTest() { reopen(); }
  void reopen() {
    store = LitterStore::open(path, GetParam(), &reason);
    ASSERT_NE(store, nullptr) << reason;
  }
  int write(const std::string& at, const std::string& content) {
    return store->make(at, [&](const std::string& local) { return LocalFile::write(local, content); });
  }
  // "(none)" when nothing is kept there.
  std::string contentAt(const std::string& at) {
    const auto local = store->find(at);
    return local ? contentOfFile(*local).value_or("(unreadable)") : "(none)";
  }
  size_t rooms() { return namesIn(path).size(); }

  TemporaryFolder folder;
  const std::string path = folder / "store";
  std::string reason;
  std::unique_ptr<LitterStore> store;
};

INSTANTIATE_TEST_SUITE_P(HashedAndPlain, LitterStoreTest, ::testing::Bool());

TEST_P(LitterStoreTest, WhatIsMadeIsFoundAndListedInItsFolder) {
  EXPECT_EQ(write("/a/.DS_Store", "x"), 0);
  EXPECT_EQ(write("/a/._b", "y"), 0);
  EXPECT_EQ(write("/.DS_Store", "z"), 0);
  EXPECT_EQ(contentAt("/a/.DS_Store"), "x");
  EXPECT_EQ(store->namesInFolder("/a"), (Names{".DS_Store", "._b"}));
  EXPECT_EQ(store->namesInFolder("/"), (Names{".DS_Store"}));
  EXPECT_EQ(contentAt("/b/.DS_Store"), "(none)");
}

TEST_P(LitterStoreTest, WhatIsKeptIsThereAgainWhenTheStoreIsOpenedAnew) {
  write("/a/.DS_Store", "x");
  write("/" + std::string(250, 'n') + "/" + std::string(250, 'm') + "/._c", "long");
  reopen();
  EXPECT_EQ(contentAt("/a/.DS_Store"), "x");
  EXPECT_EQ(contentAt("/" + std::string(250, 'n') + "/" + std::string(250, 'm') + "/._c"), "long");
  EXPECT_EQ(store->namesInFolder("/a"), (Names{".DS_Store"}));
}

TEST_P(LitterStoreTest, RemovalLeavesNothingBehind) {
  write("/a/.DS_Store", "x");
  EXPECT_EQ(store->remove("/a/.DS_Store"), 0);
  EXPECT_EQ(contentAt("/a/.DS_Store"), "(none)");
  EXPECT_TRUE(store->namesInFolder("/a").empty());
  EXPECT_EQ(rooms(), 0u);
}

TEST_P(LitterStoreTest, AFailureToMakeLeavesNothingBehind) {
  EXPECT_EQ(store->make("/._a", [](const std::string&) { return ENOSPC; }), ENOSPC);
  EXPECT_EQ(contentAt("/._a"), "(none)");
  EXPECT_EQ(rooms(), 0u);
}

TEST_P(LitterStoreTest, LitterMovesToAnotherNameAndReplacesWhatIsThere) {
  write("/a/.directory.AbCdEf", "new");
  write("/a/.directory", "old");
  EXPECT_EQ(store->move("/a/.directory.AbCdEf", "/a/.directory"), 0);
  EXPECT_EQ(contentAt("/a/.directory"), "new");
  EXPECT_EQ(store->namesInFolder("/a"), (Names{".directory"}));
  EXPECT_EQ(rooms(), 1u);
}

TEST_P(LitterStoreTest, LitterFollowsTheFolderItLiesIn) {
  write("/a/b/._c", "x");
  write("/a/._d", "y");
  write("/ab/._e", "z");
  store->moveFolder("/a", "/new");
  EXPECT_EQ(contentAt("/new/b/._c"), "x");
  EXPECT_EQ(contentAt("/new/._d"), "y");
  EXPECT_EQ(contentAt("/ab/._e"), "z");
  EXPECT_EQ(contentAt("/a/._d"), "(none)");
  reopen();
  EXPECT_EQ(contentAt("/new/b/._c"), "x");
}

TEST_P(LitterStoreTest, LitterGoesWithTheFolderItLiesIn) {
  write("/a/b/._c", "x");
  write("/a-b/._e", "z");
  EXPECT_TRUE(store->holdsAtOrBelow("/a"));
  store->dropFolder("/a");
  EXPECT_FALSE(store->holdsAtOrBelow("/a"));
  EXPECT_EQ(contentAt("/a/b/._c"), "(none)");
  EXPECT_EQ(contentAt("/a-b/._e"), "z");
  EXPECT_EQ(rooms(), 1u);
}

TEST_P(LitterStoreTest, AHiddenFileIsFoundAndNotListedUntilItIsMadeAnew) {
  EXPECT_EQ(store->makeHiddenFile("/.directory", "ours"), 0);
  EXPECT_EQ(contentAt("/.directory"), "ours");
  EXPECT_TRUE(store->namesInFolder("/").empty());
  write("/.directory", "theirs");
  EXPECT_EQ(store->namesInFolder("/"), (Names{".directory"}));
}

TEST_P(LitterStoreTest, FoldersOfTheServerWithLittersNamesAreMadeOnTheWay) {
  EXPECT_EQ(write("/.fseventsd/a/b", "x"), 0);
  EXPECT_EQ(contentAt("/.fseventsd/a/b"), "x");
  EXPECT_EQ(store->remove("/.fseventsd/a"), ENOTEMPTY);
  EXPECT_EQ(store->remove("/.fseventsd/a/b"), 0);
  EXPECT_EQ(store->remove("/.fseventsd/a"), 0);
  EXPECT_EQ(store->remove("/.fseventsd"), 0);
  EXPECT_EQ(rooms(), 0u);
}

TEST_P(LitterStoreTest, StrangersInTheFolderAreLeftAlone) {
  write("/._a", "x");
  std::filesystem::create_directories(path + "/another helper's/%2F._b");
  std::filesystem::create_directories(path + "/0123456789abcdef0123456789abcdef01234567");
  reopen();
  EXPECT_EQ(rooms(), 3u);
  EXPECT_EQ(store->namesInFolder("/"), (Names{"._a"}));
}

TEST(LitterStore, NamesAreHashesOfPathsOnlyWhenAskedFor) {
  TemporaryFolder folder;
  std::string reason;
  const auto make = [](const std::string& local) { return LocalFile::write(local, ""); };
  LitterStore::open(folder / "hashed", true, &reason)->make("/a/._b", make);
  LitterStore::open(folder / "plain", false, &reason)->make("/a/._b", make);
  // printf /a/._b | sha1sum
  EXPECT_EQ(namesIn(folder / "hashed"), (Names{"b4f4f798856c4c1dd15180cccb9cf1f649861eff"}));
  EXPECT_EQ(namesIn(folder / "plain"), (Names{"%2Fa%2F._b"}));
}

TEST(LitterStore, AFolderThatCannotBeUsedIsRefusedWithTheReason) {
  TemporaryFolder folder;
  std::filesystem::create_directory(folder / "real");
  std::filesystem::create_symlink(folder / "real", folder / "link");
  LocalFile::write(folder / "file", "");
  const struct {
    std::string path;
    const char* words;
  } kCases[] = {{folder / "missing/store", "No such file or directory"},
                {folder / "link", "Not a directory"},
                {folder / "file", "Not a directory"},
                {"relative", "Invalid argument"}};
  for (const auto& refused : kCases) {
    std::string reason;
    EXPECT_EQ(LitterStore::open(refused.path, true, &reason), nullptr) << refused.path;
    EXPECT_EQ(reason, "\"" + refused.path + "\" cannot be used: " + refused.words);
  }
}

class VolumeInfoTest : public ::testing::Test {
 protected:
  std::string contentAt(std::string_view path) {
    const auto local = store->find(path);
    return local ? contentOfFile(*local).value_or("(unreadable)") : "(none)";
  }
  TemporaryFolder folder;
  std::string reason;
  std::unique_ptr<LitterStore> store = LitterStore::open(folder / "store", true, &reason);
};

TEST_F(VolumeInfoTest, NameAndIconAreWrittenForFileManagers) {
  const std::string icon = folder / "my, icon.PNG";
  LocalFile::write(icon, "image");
  EXPECT_EQ(VolumeInfo::publish(*store, "Ada's files", icon), std::nullopt);
  EXPECT_EQ(contentAt("/.xdg-volume-info"),
            "[Volume Info]\n# Shown for as long as the volume is mounted; not on the server.\n"
            "Name=Ada's files\nIcon=folder-remote\nIconFile=.VolumeIcon.png\n");
  EXPECT_EQ(contentAt("/.VolumeIcon.png"), "image");
  EXPECT_NE(contentAt("/.directory").find("Icon=./.VolumeIcon.png\n"), std::string::npos);
  EXPECT_TRUE(store->namesInFolder("/").empty());
}

TEST_F(VolumeInfoTest, ANameCannotAddALine) {
  EXPECT_NE(VolumeInfo::info(" a\nIcon=b\\", "").find("Name=\\sa\\nIcon=b\\\\\nIcon=folder-remote\n"),
            std::string::npos);
}

TEST_F(VolumeInfoTest, WithoutAnIconTheUsualOneIsNamed) {
  EXPECT_EQ(VolumeInfo::publish(*store, "X", std::nullopt), std::nullopt);
  EXPECT_EQ(contentAt("/.xdg-volume-info").find("IconFile"), std::string::npos);
  EXPECT_EQ(contentAt("/.directory"), "(none)");
}

TEST_F(VolumeInfoTest, AnIconThatCannotBeUsedIsComplainedOfAndTheNameIsShownAllTheSame) {
  mkfifo((folder / "pipe").c_str(), 0600);
  const struct {
    std::string path;
    const char* why;
  } kCases[] = {{folder / "missing.png", "No such file or directory"},
                {folder.path(), "it is not a file"},
                {folder / "pipe", "it is not a file"},
                {"", "No such file or directory"}};
  for (const auto& bad : kCases) {
    EXPECT_EQ(VolumeInfo::publish(*store, "X", bad.path),
              "The icon \"" + bad.path + "\" cannot be used: " + bad.why +
                  ". The volume has the usual icon; mount it again with the path of an image.");
    EXPECT_NE(contentAt("/.xdg-volume-info").find("Name=X\n"), std::string::npos);
  }
}

TEST_F(VolumeInfoTest, WhatAUserHasMadeOfTheFilesIsKept) {
  store->make("/.directory", [](const std::string& local) { return LocalFile::write(local, "[Mine]\n"); });
  const std::string icon = folder / "icon.svg";
  LocalFile::write(icon, "image");
  VolumeInfo::publish(*store, "Old", icon);
  VolumeInfo::publish(*store, "New", icon);
  EXPECT_EQ(contentAt("/.directory"), "[Mine]\n");
  EXPECT_EQ(store->namesInFolder("/"), (Names{".directory"}));
  EXPECT_NE(contentAt("/.xdg-volume-info").find("Name=New\n"), std::string::npos);
}

TEST_F(VolumeInfoTest, TheIconKeepsItsKindAndNothingElseOfItsName) {
  EXPECT_EQ(VolumeInfo::iconName("/a/b.icns"), ".VolumeIcon.icns");
  EXPECT_EQ(VolumeInfo::iconName("/a.b/c"), ".VolumeIcon.img");
  EXPECT_EQ(VolumeInfo::iconName("/a/b.p\nng"), ".VolumeIcon.img");
  EXPECT_EQ(VolumeInfo::iconName(""), ".VolumeIcon.img");
}

}  // namespace
}  // namespace ombra
