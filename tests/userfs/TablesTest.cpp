// The tables of open files and of folders.
#include <gtest/gtest.h>
#include <time.h>  // NOLINT: clock_gettime

#include <algorithm>
#include <functional>

#include "platform/userfs/FolderTable.h"
#include "platform/userfs/HandleTable.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

GMUserData newFile() { return std::make_shared<GMOpenFile>(); }

// The processor time of some work. The least of a few measurements: what disturbs makes it only longer.
double secondsOfThread(const std::function<void()>& work) {
  double least = 1e9;
  for (int round = 0; round < 5; ++round) {
    timespec before{};
    timespec after{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &before);
    work();
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &after);
    least = std::min(least, static_cast<double>(after.tv_sec - before.tv_sec) +
                                static_cast<double>(after.tv_nsec - before.tv_nsec) * 1e-9);
  }
  return least;
}

TEST(PathMap, ASubtreeIsWhatBeginsWithThePathAndASlash) {
  PathMap<int> map;
  for (const char* path : {"/a", "/a/b", "/a/b/c", "/a b", "/a.txt", "/a0", "/ab", "/b"}) map.insert(path, 1);
  EXPECT_EQ(map.extractSubtree("/a").size(), 3u);
  EXPECT_EQ(map.size(), 5u);
}

TEST(PathMap, TheRootHoldsEverything) {
  PathMap<int> map;
  for (const char* path : {"/", "/a", "/~"}) map.insert(path, 1);
  EXPECT_EQ(map.extractSubtree("/").size(), 3u);
}

TEST(PathMap, AMoveTakesTheSubtreeAlong) {
  PathMap<int> map;
  map.insert("/a", 1);
  map.insert("/a/x", 2);
  map.insert("/ax", 3);
  map.moveSubtree("/a", "/deep/b");
  EXPECT_EQ(*map.find("/deep/b"), 1);
  EXPECT_EQ(*map.find("/deep/b/x"), 2);
  EXPECT_EQ(*map.find("/ax"), 3);
  EXPECT_EQ(map.find("/a"), nullptr);
}

TEST(HandleTable, HandlesOfOneFileShareItsItem) {
  HandleTable table;
  const auto file = newFile();
  const auto first = table.add("/a", file, FileAccess::kReads, 0, 5);
  const auto second = table.add("/a", file, FileAccess::kBoth, 0, 5);
  EXPECT_NE(first->identifier, second->identifier);
  EXPECT_EQ(first->item, second->item);
  EXPECT_EQ(table.itemAtPath("/a"), first->item);
}

TEST(HandleTable, AnotherOpenFileAtThePathIsAnItemOfItsOwn) {
  HandleTable table;
  const auto first = table.add("/a", newFile(), FileAccess::kReads, 0, 5);
  const auto second = table.add("/a", newFile(), FileAccess::kReads, 0, 5);
  EXPECT_NE(first->item, second->item);
  EXPECT_EQ(table.itemAtPath("/a"), second->item);
}

TEST(HandleTable, TheLastReleaseForgetsTheItem) {
  HandleTable table;
  const auto file = newFile();
  const auto first = table.add("/a", file, FileAccess::kReads, 0, 5);
  const auto second = table.add("/a", file, FileAccess::kReads, 0, 5);
  EXPECT_EQ(table.remove(first->identifier), first);
  EXPECT_NE(table.itemAtPath("/a"), nullptr);
  EXPECT_EQ(table.remove(second->identifier), second);
  EXPECT_EQ(table.itemAtPath("/a"), nullptr);
  EXPECT_EQ(table.remove(second->identifier), nullptr);
}

TEST(HandleTable, OpenFilesFollowTheMoveOfAFolderAboveThem) {
  HandleTable table;
  const auto below = table.add("/folder/sub/a", newFile(), FileAccess::kReads, 0, 5);
  const auto beside = table.add("/folder2/a", newFile(), FileAccess::kReads, 0, 6);
  table.move("/folder", "/other/place");
  EXPECT_EQ(below->item->path(), "/other/place/sub/a");
  EXPECT_EQ(beside->item->path(), "/folder2/a");
  EXPECT_EQ(table.itemAtPath("/other/place/sub/a"), below->item);
}

TEST(HandleTable, ARemovedFileHasNoPathAndKeepsItsAttributes) {
  HandleTable table;
  const auto handle = table.add("/a", newFile(), FileAccess::kBoth, 0, 5);
  NSFileAttributes attributes;
  attributes.fileSize = 10;
  attributes.posixPermissions = 0600;
  table.markRemoved("/a", attributes);
  EXPECT_EQ(handle->item->path(), std::nullopt);
  EXPECT_EQ(table.itemAtPath("/a"), nullptr);
  handle->item->noteWrite(25);
  EXPECT_EQ(handle->item->lastAttributes().fileSize, 25u);
  EXPECT_EQ(handle->item->lastAttributes().posixPermissions, 0600);
}

TEST(HandleTable, ARemovedFileIsFoundByItsNumberUntilItIsReleased) {
  HandleTable table;
  const auto handle = table.add("/a", newFile(), FileAccess::kBoth, 0, 5);
  EXPECT_EQ(table.handleOfRemovedNode(5), 0u);
  table.markRemoved("/a", {});
  EXPECT_EQ(table.handleOfRemovedNode(5), handle->identifier);
  EXPECT_EQ(table.handleOfRemovedNode(6), 0u);
  table.remove(handle->identifier);
  EXPECT_EQ(table.handleOfRemovedNode(5), 0u);
}

TEST(HandleTable, ARemovedFileIsFoundByAnyOfItsHandlesThatIsLeft) {
  HandleTable table;
  const auto file = newFile();
  const auto first = table.add("/a", file, FileAccess::kBoth, 0, 5);
  const auto second = table.add("/a", file, FileAccess::kReads, 0, 5);
  table.markRemoved("/a", {});
  table.remove(first->identifier);
  EXPECT_EQ(table.handleOfRemovedNode(5), second->identifier);
  table.remove(second->identifier);
  EXPECT_EQ(table.handleOfRemovedNode(5), 0u);
}

TEST(HandleTable, OfTwoRemovedFilesOfOneNumberTheOneThatIsStillOpenIsFound) {
  HandleTable table;
  const auto first = table.add("/a", newFile(), FileAccess::kBoth, 0, 5);
  const auto second = table.add("/a", newFile(), FileAccess::kBoth, 0, 5);
  table.markRemoved("/a", {});
  table.remove(first->identifier);
  EXPECT_EQ(table.handleOfRemovedNode(5), second->identifier);
}

TEST(HandleTable, ANumberThatIsLearnedAfterTheRemovalLeavesNothingBehind) {
  HandleTable table;
  const auto handle = table.add("/a", newFile(), FileAccess::kBoth, 0, 0);
  const auto other = table.add("/b", newFile(), FileAccess::kBoth, 0, 6);
  table.markRemoved("/a", {});
  table.markRemoved("/b", {});
  handle->item->setNodeID(5);
  table.remove(handle->identifier);
  EXPECT_EQ(table.handleOfRemovedNode(5), 0u);
  EXPECT_EQ(table.handleOfRemovedNode(0), 0u);
  EXPECT_EQ(table.handleOfRemovedNode(6), other->identifier);
}

TEST(HandleTable, AChangeOfAFileIsNotedForEachOfItsHandlesThatWrites) {
  HandleTable table;
  const auto file = newFile();
  const auto writer = table.add("/a", file, FileAccess::kWrites, 0, 5);
  const auto both = table.add("/a", file, FileAccess::kBoth, 0, 5);
  const auto reader = table.add("/a", file, FileAccess::kReads, 0, 5);
  const auto closed = table.add("/a", file, FileAccess::kBoth, 0, 5);
  const auto other = table.add("/b", newFile(), FileAccess::kBoth, 0, 6);
  table.remove(closed->identifier);
  table.noteChange(file);
  EXPECT_TRUE(writer->hasUnstored());
  EXPECT_TRUE(both->hasUnstored());
  for (const auto& handle : {reader, closed, other}) EXPECT_FALSE(handle->hasUnstored());
}

TEST(HandleTable, AChangeIsAlsoNotedWhereAFileIsOpenAtTwoPathsOrRemoved) {
  HandleTable table;
  const auto file = newFile();
  const auto removed = table.add("/a", file, FileAccess::kBoth, 0, 5);
  table.markRemoved("/a", {});
  const auto beside = table.add("/b", file, FileAccess::kBoth, 0, 6);
  table.noteChange(file);
  EXPECT_TRUE(removed->hasUnstored());
  EXPECT_TRUE(beside->hasUnstored());
}

TEST(HandleTable, WhatConcernsOneFileCostsNoMoreWhereTenThousandAreOpen) {
  const auto secondsAmong = [](int files) {
    HandleTable table;
    const auto file = newFile();
    const auto removed = table.add("/removed", newFile(), FileAccess::kBoth, 0, 1);
    for (int i = 0; i < files; ++i) {
      table.add("/" + std::to_string(i), newFile(), FileAccess::kBoth, 0, 10u + static_cast<unsigned>(i));
    }
    table.add("/last", file, FileAccess::kBoth, 0, 2);
    table.markRemoved("/removed", {});
    return secondsOfThread([&] {
      for (int i = 0; i < 200; ++i) {
        table.noteChange(file);
        ASSERT_EQ(table.handleOfRemovedNode(1), removed->identifier);
        ASSERT_EQ(table.handleOfRemovedNode(3), 0u);
      }
    });
  };
  const double few = secondsAmong(10);
  EXPECT_LT(secondsAmong(10000), 20 * few) << "a walk over all takes about a thousand times as long";
}

TEST(HandleTable, ANewFileAtThePathOfARemovedOneIsAnother) {
  HandleTable table;
  const auto removed = table.add("/a", newFile(), FileAccess::kBoth, 0, 5);
  table.markRemoved("/a", {});
  const auto fresh = table.add("/a", newFile(), FileAccess::kBoth, 0, 6);
  EXPECT_NE(removed->item, fresh->item);
  table.move("/a", "/b");
  EXPECT_EQ(removed->item->path(), std::nullopt);
  EXPECT_EQ(fresh->item->path(), "/b");
}

TEST(HandleTable, PagesAreKeptWhileTheOpenFileIsTheSame) {
  HandleTable table;
  const auto file = newFile();
  EXPECT_FALSE(table.isContentOfLastOpen("/a", file));
  EXPECT_TRUE(table.isContentOfLastOpen("/a", file));
  EXPECT_FALSE(table.isContentOfLastOpen("/a", newFile()));
  EXPECT_FALSE(table.isContentOfLastOpen("/a", file));
}

TEST(HandleTable, PagesAreNotKeptWithoutAnOpenFile) {
  HandleTable table;
  EXPECT_FALSE(table.isContentOfLastOpen("/a", nullptr));
  EXPECT_FALSE(table.isContentOfLastOpen("/a", nullptr));
}

TEST(HandleTable, PagesAreNotKeptAfterTheyWereForgottenOrReplaced) {
  HandleTable table;
  const auto file = newFile();
  table.isContentOfLastOpen("/a", file);
  table.forgetLastOpen("/a");
  EXPECT_FALSE(table.isContentOfLastOpen("/a", file));
  table.move("/b", "/a");
  EXPECT_FALSE(table.isContentOfLastOpen("/a", file));
}

TEST(HandleTable, OnlyAHandleThatOnlyWritesGoesPastThePages) {
  HandleTable table;
  EXPECT_TRUE(table.add("/a", newFile(), FileAccess::kWrites, 0, 5)->bypassesPages);
  EXPECT_FALSE(table.add("/b", newFile(), FileAccess::kReads, 0, 6)->bypassesPages);
  EXPECT_FALSE(table.add("/c", newFile(), FileAccess::kBoth, 0, 7)->bypassesPages);
}

TEST(HandleTable, NobodyGoesPastThePagesThatAnotherMayHave) {
  HandleTable table;
  const auto file = newFile();
  const auto reader = table.add("/a", file, FileAccess::kReads, 0, 5);
  EXPECT_TRUE(reader->item->mayHavePages());
  EXPECT_FALSE(table.add("/a", file, FileAccess::kWrites, 0, 5)->bypassesPages);
}

TEST(HandleTable, SeveralThatOnlyWriteMayGoPastThePages) {
  HandleTable table;
  const auto file = newFile();
  const auto first = table.add("/a", file, FileAccess::kWrites, 0, 5);
  EXPECT_TRUE(table.add("/a", file, FileAccess::kWrites, 0, 5)->bypassesPages);
  EXPECT_FALSE(first->item->mayHavePages());
  table.add("/a", file, FileAccess::kReads, 0, 5);
  EXPECT_TRUE(first->item->mayHavePages());
}

TEST(HandleTable, PagesAreNotKeptWhileSomebodyWritesPastThemNorRightAfter) {
  HandleTable table;
  const auto file = newFile();
  table.isContentOfLastOpen("/a", file);
  const auto writer = table.add("/a", file, FileAccess::kWrites, 0, 5);
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(table.isContentOfLastOpen("/a", file));
  table.remove(writer->identifier);
  EXPECT_FALSE(table.isContentOfLastOpen("/a", file));
  EXPECT_TRUE(table.isContentOfLastOpen("/a", file));
}

TEST(HandleTable, PathsOfClosedFilesDoNotPileUp) {
  HandleTable table;
  for (int i = 0; i < 5000; ++i) EXPECT_FALSE(table.isContentOfLastOpen("/" + std::to_string(i), newFile()));
  const auto file = newFile();
  table.isContentOfLastOpen("/kept", file);
  EXPECT_TRUE(table.isContentOfLastOpen("/kept", file));
}

TEST(HandleTable, WhatIsStillOpenAtTheEndCanBeTakenOut) {
  HandleTable table;
  table.add("/a", newFile(), FileAccess::kBoth, 0, 5);
  table.add("/b", newFile(), FileAccess::kBoth, 0, 6);
  EXPECT_EQ(table.removeAll().size(), 2u);
  EXPECT_TRUE(table.removeAll().empty());
}

FolderListing listing(std::vector<std::string> names) {
  return std::make_shared<const std::vector<std::string>>(std::move(names));
}

TEST(FolderTable, AListingIsGoodForItsTimeAndUntilItIsInvalidated) {
  ManualClock clock;
  FolderTable table;
  EXPECT_FALSE(table.wasListedWithin("/a", 30));
  const auto handle = table.open("/a", 7);
  table.setListing(handle, listing({"x"}));
  clock.advance(29);
  EXPECT_TRUE(table.wasListedWithin("/a", 30));
  clock.advance(1);
  EXPECT_FALSE(table.wasListedWithin("/a", 30));
  table.setListing(handle, listing({"x"}));
  table.invalidate("/a");
  EXPECT_FALSE(table.wasListedWithin("/a", 30));
}

TEST(FolderTable, InvalidatingTellsTheNamesThatWereListedOrLookedUp) {
  FolderTable table;
  const auto handle = table.open("/a", 7);
  table.setListing(handle, listing({"x", "y"}));
  table.noteEntry("/a/z", 7);
  auto known = table.invalidate("/a");
  ASSERT_TRUE(known);
  std::sort(known->names.begin(), known->names.end());
  EXPECT_EQ(known->nodeID, 7u);
  EXPECT_EQ(known->names, (std::vector<std::string>{"x", "y", "z"}));
  EXPECT_EQ(table.invalidate("/unknown"), std::nullopt);
}

TEST(FolderTable, ANameThatIsGoneIsNoLongerTold) {
  FolderTable table;
  for (const char* name : {"/a/file", "/a/folder", "/a/moved", "/a/kept"}) table.noteEntry(name, 7);
  table.noteEntry("/b/other", 8);
  table.forgetEntry("/a/file");
  table.remove("/a/folder");
  table.move("/a/moved", "/b/moved");
  table.forgetEntry("/unknown/file");
  EXPECT_EQ(table.invalidate("/a")->names, std::vector<std::string>{"kept"});
  auto names = table.invalidate("/b")->names;
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"moved", "other"}));
}

TEST(FolderTable, AMoveWithinAFolderLeavesTheNewNameAlone) {
  FolderTable table;
  table.noteEntry("/a/old", 7);
  table.move("/a/old", "/a/new");
  EXPECT_EQ(table.invalidate("/a")->names, std::vector<std::string>{"new"});
}

TEST(FolderTable, AnOpenFolderFollowsItsMoveAndEndsWithItsRemoval) {
  FolderTable table;
  const auto handle = table.open("/a/b", 7);
  table.move("/a", "/c");
  EXPECT_EQ(table.pathOfHandle(handle), "/c/b");
  table.remove("/c/b");
  EXPECT_EQ(table.pathOfHandle(handle), std::nullopt);
}

TEST(FolderTable, TheSnapshotOfAnOpenFolderStaysItsOwn) {
  FolderTable table;
  const auto first = table.open("/a", 7);
  const auto second = table.open("/a", 7);
  table.setListing(first, listing({"x"}));
  EXPECT_EQ(table.listingOfHandle(second), nullptr);
  table.setListing(second, listing({"y"}));
  EXPECT_EQ(table.listingOfHandle(first)->front(), "x");
  table.close(first);
  EXPECT_EQ(table.listingOfHandle(first), nullptr);
}

}  // namespace
}  // namespace ombra
