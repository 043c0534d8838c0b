// The table of open-file objects: what each operation finds without a look at all others.
#include "fshelper/OFSNodeFileTable.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class FileTable : public ::testing::Test {
 protected:
  std::shared_ptr<OFSRemoteFile> add(const std::string& path) {
    auto file = OFSRemoteFile::remoteFileForPath(path);
    table.add(file, nullptr);
    return file;
  }
  void use(OFSRemoteFile& file) {
    table.beginUse(file);
    table.endUse(file);
  }
  // The paths of the unused ones, that which was left alone the longest first.
  std::vector<std::string> unused() {
    std::vector<std::string> paths;
    for (auto entry = table.firstUnusedAfter(0); entry; entry = table.firstUnusedAfter(entry->lastUse))
      paths.push_back(entry->file->remotePath());
    return paths;
  }
  std::vector<std::string> atAndBelow(const std::string& path) {
    std::vector<std::string> paths;
    for (const auto& entry : table.atAndBelowPath(path)) paths.push_back(entry.file->remotePath());
    return paths;
  }
  OFSNodeFileTable table;
};

TEST_F(FileTable, TheUnusedComeInTheOrderOfTheirLastUse) {
  const auto one = add("/1");
  const auto two = add("/2");
  const auto three = add("/3");
  use(*one);
  use(*three);
  EXPECT_THAT(unused(), ElementsAre("/2", "/1", "/3"));
}

TEST_F(FileTable, WhatIsInUseIsUnusedOnlyAfterItsLastUse) {
  const auto one = add("/1");
  const auto two = add("/2");
  table.beginUse(*one);
  table.beginUse(*one);
  EXPECT_THAT(unused(), ElementsAre("/2"));
  table.endUse(*one);
  EXPECT_THAT(unused(), ElementsAre("/2"));
  table.endUse(*one);
  EXPECT_THAT(unused(), ElementsAre("/2", "/1"));
}

TEST_F(FileTable, WhatIsForgottenOrRemovedIsNowhereFound) {
  const auto one = add("/f/1");
  const auto two = add("/f/2");
  table.forget(*one);
  EXPECT_TRUE(table.removeIfUnused(*two, *table.lastUse(*two)));
  EXPECT_THAT(unused(), IsEmpty());
  EXPECT_THAT(atAndBelow("/f"), IsEmpty());
  EXPECT_EQ(table.count(), 0u);
}

TEST_F(FileTable, AFileThatWasUsedSinceIsNotRemoved) {
  const auto one = add("/1");
  const auto before = table.lastUse(*one);
  use(*one);
  EXPECT_FALSE(table.removeIfUnused(*one, *before));
  table.beginUse(*one);
  EXPECT_FALSE(table.removeIfUnused(*one, *before));
  EXPECT_EQ(table.count(), 1u);
}

TEST_F(FileTable, AFolderOfALongerNameIsNotBelow) {
  const std::vector<std::shared_ptr<OFSRemoteFile>> files = {add("/a"), add("/a/1"), add("/a b/2"),
                                                             add("/ab"), add("/a/c/3")};
  EXPECT_THAT(atAndBelow("/a"), UnorderedElementsAre("/a", "/a/1", "/a/c/3"));
  EXPECT_THAT(atAndBelow("/"), UnorderedElementsAre("/a", "/a/1", "/a b/2", "/ab", "/a/c/3"));
}

TEST_F(FileTable, WhatIsBelowAMovedFolderFollowsIt) {
  const std::vector<std::shared_ptr<OFSRemoteFile>> files = {add("/a/1"), add("/a/c/2"), add("/ab/3"),
                                                             add("/a")};
  table.moveBelow("/a", "/x/y");
  EXPECT_EQ(files[0]->remotePath(), "/x/y/1");
  EXPECT_EQ(files[1]->remotePath(), "/x/y/c/2");
  EXPECT_EQ(files[2]->remotePath(), "/ab/3");
  EXPECT_EQ(files[3]->remotePath(), "/a");
  EXPECT_THAT(atAndBelow("/x"), UnorderedElementsAre("/x/y/1", "/x/y/c/2"));
  EXPECT_THAT(atAndBelow("/a"), ElementsAre("/a"));
}

TEST_F(FileTable, AMoveIntoTheFolderItselfIsMadeOnce) {
  const auto file = add("/a/1");
  table.moveBelow("/a", "/a/b");
  EXPECT_EQ(file->remotePath(), "/a/b/1");
}

TEST_F(FileTable, APathIsAlsoSetOfAFileThatTheTableDoesNotKnow) {
  const auto file = OFSRemoteFile::remoteFileForPath("/1");
  table.setRemotePath(*file, "/2");
  EXPECT_EQ(file->remotePath(), "/2");
  EXPECT_EQ(table.count(), 0u);
}

// Whether a detached file counts as outdated is told by what is at its path by then.
class Detached : public FileTable {
 protected:
  Detached() : old(add("/old")) {
    // In use, so that it stays.
    table.beginUse(*old);
    table.detach(*old);
  }
  bool isOutdated() {
    for (const auto& entry : table.entries()) {
      if (entry.file == old) return entry.isOutdated;
    }
    ADD_FAILURE() << "the file is gone";
    return false;
  }
  const std::shared_ptr<OFSRemoteFile> old;
};

TEST_F(Detached, AYoungerFileOfThePathOutdatesIt) {
  EXPECT_FALSE(isOutdated());
  const auto young = add("/old");
  EXPECT_TRUE(isOutdated());
}

TEST_F(Detached, AFileOfAnotherPathDoesNotOutdateIt) {
  const auto young = add("/older");
  EXPECT_FALSE(isOutdated());
}

TEST_F(Detached, IsFoundAtThePathThatItHasMovedTo) {
  table.setRemotePath(*old, "/new");
  EXPECT_THAT(table.detachedAtPath("/old"), IsEmpty());
  EXPECT_THAT(table.detachedAtPath("/new"), ElementsAre(old));
  const auto atFormerPath = add("/old");
  EXPECT_FALSE(isOutdated());
  const auto atPresentPath = add("/new");
  EXPECT_TRUE(isOutdated());
}

}  // namespace
}  // namespace ombra
