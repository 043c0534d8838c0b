// Which names are litter.
#include "platform/userfs/redirect/RedirectRules.h"

#include <gtest/gtest.h>

namespace ombra {
namespace {

TEST(RedirectRules, NamesThatDesktopsLeaveBehindAreLitter) {
  for (const char* name :
       {".DS_Store",         "._report.pdf",     "._.DS_Store",      ".fseventsd",
        ".Spotlight-V100",   ".TemporaryItems",  ".apdisk",          ".DocumentRevisions-V100",
        "Thumbs.db",         "thumbs.db",        "THUMBS.DB",        "ehthumbs.db",
        "desktop.ini",       "Desktop.ini",      ".directory",       ".directory.lock",
        ".directory.aB3xYz", ".xdg-volume-info", ".VolumeIcon.icns", ".VolumeIcon.png"}) {
    EXPECT_TRUE(RedirectRules::isLitterName(name)) << name;
  }
}

// A name taken for litter by mistake would cost a document.
TEST(RedirectRules, NamesOfDocumentsLocksAndTrashAreNot) {
  for (const char* name : {"",
                           ".",
                           "..",
                           "._",
                           "_",
                           "a",
                           ".ds_store",
                           "DS_Store",
                           "x._y",
                           ".Trash",
                           ".Trash-1000",
                           ".Trashes",
                           "$RECYCLE.BIN",
                           ".hidden",
                           ".~lock.report.odt#",
                           ".goutputstream-A1B2C3",
                           ".directory.old.txt",
                           ".directories",
                           ".VolumeIcon",
                           ".VolumeIcon.",
                           "Thumbs.db.txt",
                           "my Thumbs.db",
                           "desktop.init",
                           "directory",
                           ".git",
                           ".gitignore",
                           ".nfs000123"}) {
    EXPECT_FALSE(RedirectRules::isLitterName(name)) << name;
  }
}

TEST(RedirectRules, WhatLiesInLitterIsLitter) {
  const struct {
    const char* path;
    const char* litter;
  } kPaths[] = {{"/", ""},
                {"/a/b", ""},
                {"/.DS_Store", "/.DS_Store"},
                {"/a/.DS_Store", "/a/.DS_Store"},
                {"/a/.fseventsd/b/c", "/a/.fseventsd"},
                {"/a/.fseventsd/._b", "/a/.fseventsd"},
                {"/a.DS_Store/b", ""},
                {"/.DS_Stores", ""}};
  for (const auto& path : kPaths) {
    EXPECT_EQ(RedirectRules::litterInPath(path.path), path.litter) << path.path;
    EXPECT_EQ(RedirectRules::isLitter(path.path), *path.litter != '\0') << path.path;
  }
}

TEST(RedirectRules, APathHasAFolderAndAName) {
  EXPECT_EQ(folderOf("/a"), "/");
  EXPECT_EQ(folderOf("/a/b"), "/a");
  EXPECT_EQ(nameOf("/a/b"), "b");
}

}  // namespace
}  // namespace ombra
