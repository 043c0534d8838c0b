// The contract for logging in, listing and changing. Included by ConnectionContractTests.h alone.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <thread>

#include "tests/support/ConnectionContract.h"

namespace ombra {

using testing::ElementsAre;

TEST_P(ConnectionContract, CapabilitiesAreToldWithoutALogin) {
  EXPECT_EQ(connection().protocol(), server().credentials()->protocol());
  EXPECT_EQ(connection().isSFTP(), connection().protocol() == kProtocolSFTP);
  EXPECT_EQ(connection().isWebDAV(),
            connection().protocol() == kProtocolWebDAV || connection().protocol() == kProtocolWebDAVTLS);
  (void)connection().supportsUploadByteOffset();
  EXPECT_FALSE(connection().loginPath().has_value());
}

TEST_P(ConnectionContract, LoginPathIsAbsoluteOnceConnectedAndKnownToLaterConnections) {
  NSErrorRef error;
  ASSERT_TRUE(connection().connect(&error)) << error->description();
  const std::optional<std::string> path = connection().loginPath();
  ASSERT_TRUE(path.has_value());
  EXPECT_TRUE(path->starts_with("/")) << *path;
  reconnect();
  EXPECT_EQ(connection().loginPath(), path);
}

TEST_P(ConnectionContract, CurrentFolderIsAnsweredInNormalForm) {
  server().makeFolder(at("sub"));
  ASSERT_TRUE(connection().changeDir(root() + "//sub/./", nullptr));
  EXPECT_EQ(connection().pwd(nullptr), at("sub"));
  ASSERT_TRUE(connection().changeDir("..", nullptr));
  EXPECT_EQ(connection().pwd(nullptr), root());
  ASSERT_TRUE(connection().changeDir("sub", nullptr));
  EXPECT_EQ(connection().pwd(nullptr), at("sub"));
}

TEST_P(ConnectionContract, CurrentFolderStaysWhenTheNextCannotBeEntered) {
  server().putFile(at("file"), "x");
  ASSERT_TRUE(connection().changeDir(root(), nullptr));
  NSErrorRef error;
  EXPECT_FALSE(connection().changeDir(at("missing"), &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_FALSE(connection().changeDir(at("file"), &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNotAFolder, kQuarnKitNoSuchItem}));
  EXPECT_EQ(connection().pwd(nullptr), root());
}

TEST_P(ConnectionContract, ListingTellsKindsSizesAndNames) {
  server().makeFolder(at("folder"));
  server().putFile(at("file.txt"), "hello");
  server().putFile(at("empty"), "");
  EXPECT_THAT(names(root()), ElementsAre("empty", "file.txt", "folder"));
  const auto file = node(root(), "file.txt");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->type(), kNodeTypeFile);
  EXPECT_EQ(file->path(), at("file.txt"));
  EXPECT_EQ(file->displayName(), "file.txt");
  EXPECT_EQ(file->size(), 5u);
  EXPECT_EQ(node(root(), "empty")->size(), 0u);
  const auto folder = node(root(), "folder");
  EXPECT_EQ(folder->type(), kNodeTypeFolder);
  EXPECT_NE(dynamic_cast<KCRemoteFolderNode*>(folder.get()), nullptr);
}

TEST_P(ConnectionContract, ListingAnEmptyFolderGivesNothing) { EXPECT_TRUE(list(root()).empty()); }

TEST_P(ConnectionContract, ListingWhatIsMissingSaysSo) {
  Nodes nodes;
  NSErrorRef error;
  EXPECT_FALSE(connection().contentsAtPath(at("missing"), &nodes, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_TRUE(nodes.empty());
}

TEST_P(ConnectionContract, ListingAFileFails) {
  server().putFile(at("file"), "x");
  Nodes nodes;
  NSErrorRef error;
  EXPECT_FALSE(connection().contentsAtPath(at("file"), &nodes, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNotAFolder, kQuarnKitNoSuchItem}));
}

TEST_P(ConnectionContract, UnusualNamesAreListedReadAndRemovedAsTheyAre) {
  std::vector<std::string> unusual{
      " blank ",  "#%?&;=+", "%41", "'single'", "\"double\"", "(round)",   "*star*", "-dash", "..a",  "...",
      "[square]", "\\back",  "a:b", "ünïcödé",  "日本語",     "e\xCC\x81", "~tilde", "$HOME", "a\tb", "😀"};
  std::erase_if(unusual, [this](const std::string& name) { return !server().handlesName(name); });
  for (const std::string& name : unusual) server().putFile(at(name), "content of " + name);
  std::vector<std::string> expected = unusual;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names(root()), expected);
  for (const std::string& name : unusual) {
    EXPECT_EQ(fetch(at(name)), "content of " + name) << name;
    NSErrorRef error;
    EXPECT_TRUE(connection().deleteItemAtPath(at(name), false, &error)) << name;
  }
  EXPECT_TRUE(server().storedNames(root()).empty());
}

TEST_P(ConnectionContract, ManyEntriesAreAllListedOnce) {
  constexpr int kCount = 1200;  // more than any server tells at a time
  for (int i = 0; i < kCount; ++i) server().putFile(at("file " + std::to_string(i)), "");
  const std::vector<std::string> listed = names(root());
  EXPECT_EQ(listed.size(), static_cast<size_t>(kCount));
  EXPECT_EQ((std::set<std::string>(listed.begin(), listed.end()).size()), static_cast<size_t>(kCount));
}

TEST_P(ConnectionContract, AttributesTellSizeAndKind) {
  server().putFile(at("file"), "hello");
  bool isDirectory = true;
  NSErrorRef error;
  const auto file = connection().attributesOfItemAtPath(at("file"), &isDirectory, &error);
  ASSERT_TRUE(file.has_value()) << error->description();
  EXPECT_EQ(file->fileSize, 5u);
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(connection().attributesOfItemAtPath(root(), &isDirectory, &error).has_value());
  EXPECT_TRUE(isDirectory);
  EXPECT_FALSE(connection().attributesOfItemAtPath(at("missing"), nullptr, &error).has_value());
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
}

TEST_P(ConnectionContract, VolumeSizeIsToldOrKnownToBeUnknown) {
  NSErrorRef error;
  const auto volume = connection().fileSystemAttributesAtPath(root(), &error);
  if (!volume) {
    EXPECT_TRUE(hasCode(error, {kQuarnKitNotSupported}));
    return;
  }
  EXPECT_GT(volume->systemSize.value_or(0), 0u);
  ASSERT_TRUE(volume->systemFreeSize.has_value());
  EXPECT_LE(*volume->systemFreeSize, *volume->systemSize);
}

TEST_P(ConnectionContract, WhatIsNoLinkResolvesToItself) {
  server().putFile(at("file"), "x");
  const std::vector<std::pair<std::string, bool>> table{
      {at("file"), false}, {root(), true}, {at("missing"), false}};
  for (const auto& [path, isFolder] : table) {
    std::string resolved;
    bool isDirectory = !isFolder;
    EXPECT_TRUE(connection().resolvePath(path, &resolved, &isDirectory, nullptr)) << path;
    EXPECT_EQ(resolved, path);
    EXPECT_EQ(isDirectory, isFolder) << path;
  }
}

TEST_P(ConnectionContract, LinksKeepTheirTextAndLeadToTheirTarget) {
  server().makeFolder(at("folder"));
  server().putFile(at("folder/file"), "hello");
  if (!makeLink(at("relative"), "folder/file")) return;
  ASSERT_TRUE(makeLink(at("absolute"), at("folder")));
  ASSERT_TRUE(makeLink(at("chained"), "relative"));
  for (const bool listed : {false, true}) {
    // Asked alone, and asked after the listing has told the answers.
    if (listed) {
      EXPECT_EQ(list(root()).size(), 4u);
    }
    std::string resolved;
    bool isDirectory = true;
    EXPECT_TRUE(connection().resolvePath(at("relative"), &resolved, &isDirectory, nullptr));
    EXPECT_EQ(resolved, at("folder/file"));
    EXPECT_FALSE(isDirectory);
    EXPECT_EQ(connection().attributesOfItemAtPath(resolved, nullptr, nullptr)->fileSize, 5u);
    EXPECT_TRUE(connection().resolvePath(at("absolute"), &resolved, &isDirectory, nullptr));
    EXPECT_EQ(resolved, at("folder"));
    EXPECT_TRUE(isDirectory);
  }
  EXPECT_EQ(node(root(), "relative")->type(), kNodeTypeAlias);
  EXPECT_EQ(node(root(), "relative")->targetPath(), "folder/file");
  EXPECT_EQ(node(root(), "absolute")->targetPath(), at("folder"));
  // A chain ends where asking again changes nothing.
  std::string path = at("chained");
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(connection().resolvePath(path, &path, nullptr, nullptr));
  EXPECT_EQ(path, at("folder/file"));
}

TEST_P(ConnectionContract, ADanglingLinkResolvesToWhereItsTargetWouldBe) {
  if (!makeLink(at("dangling"), "gone")) return;
  for (const bool listed : {false, true}) {
    if (listed) {
      EXPECT_EQ(list(root()).size(), 1u);
    }
    std::string resolved;
    bool isDirectory = true;
    EXPECT_TRUE(connection().resolvePath(at("dangling"), &resolved, &isDirectory, nullptr));
    EXPECT_EQ(resolved, at("gone"));
    EXPECT_FALSE(isDirectory);
    NSErrorRef error;
    EXPECT_FALSE(connection().attributesOfItemAtPath(resolved, nullptr, &error).has_value());
    EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  }
}

TEST_P(ConnectionContract, ACircleOfLinksFailsToResolveButIsListed) {
  if (!makeLink(at("one"), "two")) return;
  ASSERT_TRUE(makeLink(at("two"), "one"));
  NSErrorRef error;
  EXPECT_FALSE(connection().resolvePath(at("one"), nullptr, nullptr, &error));
  EXPECT_NE(error, nullptr);
  EXPECT_THAT(names(root()), ElementsAre("one", "two"));
  EXPECT_FALSE(connection().resolvePath(at("one"), nullptr, nullptr, &error));
}

TEST_P(ConnectionContract, RemovingALinkLeavesItsTarget) {
  server().makeFolder(at("folder"));
  server().putFile(at("folder/file"), "x");
  if (!makeLink(at("link"), "folder")) return;
  EXPECT_TRUE(connection().deleteItemAtPath(at("link"), false, nullptr));
  EXPECT_FALSE(server().exists(at("link")));
  EXPECT_TRUE(server().exists(at("folder/file")));
}

TEST_P(ConnectionContract, FoldersAreMadeOnce) {
  NSErrorRef error;
  ASSERT_TRUE(connection().createFolderAtPath(at("new"), &error)) << error->description();
  EXPECT_THAT(names(root()), ElementsAre("new"));
  EXPECT_TRUE(list(at("new")).empty());
  EXPECT_FALSE(connection().createFolderAtPath(at("new"), &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitItemExists, kQuarnKitRefused}));
  EXPECT_FALSE(connection().createFolderAtPath(at("missing/new"), &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem, kQuarnKitRefused}));
}

TEST_P(ConnectionContract, WhoHasAListingIsToldOfWhatWasMadeSince) {
  server().putFile(at("old"), "x");
  FolderContents contents;
  const auto empty = temporaryFile();
  // On a busy machine a listing may be too old by then.
  for (int attempt = 0; attempt == 0 || (contents.isWhole && attempt < 20); ++attempt) {
    const std::string name = "New" + std::to_string(attempt);
    ASSERT_TRUE(connection().contentsAtPath(root(), 0, &contents, nullptr));
    EXPECT_TRUE(contents.isWhole);
    ASSERT_TRUE(connection().uploadFileHandle(*empty, name, at(name), 0, nullptr, nullptr));
    ASSERT_TRUE(connection().createFolderAtPath(at("Folder of " + name), nullptr));
    ASSERT_TRUE(connection().contentsAtPath(root(), contents.number, &contents, nullptr));
    std::map<std::string, std::shared_ptr<KCRemoteFileNode>> told;
    for (const auto& one : contents.nodes) told.emplace(one->displayName(), one);
    EXPECT_EQ(told.size(), contents.isWhole ? 3u + 2 * attempt : 2u);
    ASSERT_TRUE(told.contains(name) && told.contains("Folder of " + name));
    EXPECT_EQ(told[name]->type(), kNodeTypeFile);
    EXPECT_EQ(told[name]->size(), 0u);
    EXPECT_EQ(told[name]->path(), at(name));
    EXPECT_EQ(told["Folder of " + name]->type(), kNodeTypeFolder);
  }
  EXPECT_FALSE(contents.isWhole) << "of what was made alone";
}

TEST_P(ConnectionContract, FilesAndWholeFoldersAreMoved) {
  server().makeFolder(at("from"));
  server().makeFolder(at("to"));
  server().putFile(at("from/file"), "hello");
  NSErrorRef error;
  ASSERT_TRUE(connection().moveItemFromPath(at("from/file"), false, at("from/renamed"), &error));
  ASSERT_TRUE(connection().moveItemFromPath(at("from"), true, at("to/moved"), &error));
  EXPECT_THAT(names(root()), ElementsAre("to"));
  EXPECT_EQ(server().storedContent(at("to/moved/renamed")), "hello");
  EXPECT_FALSE(connection().moveItemFromPath(at("missing"), false, at("other"), &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
}

TEST_P(ConnectionContract, AMoveOntoAnExistingFileReplacesItOrIsRefusedButNeverLosesBoth) {
  server().putFile(at("a"), "new");
  server().putFile(at("b"), "old");
  NSErrorRef error;
  if (connection().moveItemFromPath(at("a"), false, at("b"), &error)) {
    EXPECT_EQ(server().storedContent(at("b")), "new");
    EXPECT_FALSE(server().exists(at("a")));
  } else {
    EXPECT_TRUE(hasCode(error, {kQuarnKitItemExists, kQuarnKitRefused}));
    EXPECT_EQ(server().storedContent(at("a")), "new");
    EXPECT_EQ(server().storedContent(at("b")), "old");
  }
}

TEST_P(ConnectionContract, FilesAndEmptyFoldersAreRemoved) {
  server().putFile(at("file"), "x");
  server().makeFolder(at("empty"));
  server().makeFolder(at("full"));
  server().putFile(at("full/file"), "x");
  NSErrorRef error;
  EXPECT_TRUE(connection().deleteItemAtPath(at("file"), false, &error));
  EXPECT_TRUE(connection().deleteItemAtPath(at("empty"), true, &error));
  EXPECT_FALSE(connection().deleteItemAtPath(at("full"), true, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitFolderNotEmpty, kQuarnKitRefused}));
  EXPECT_TRUE(server().exists(at("full/file")));
  // The program tells "not there" from every other refusal by this code.
  EXPECT_FALSE(connection().deleteItemAtPath(at("missing"), false, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
  EXPECT_FALSE(connection().deleteItemAtPath(at("missing"), true, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem}));
}

TEST_P(ConnectionContract, ModesAreChangedOrKnownNotToBeChangeable) {
  server().putFile(at("file"), "x");
  NSFileAttributes wanted;
  wanted.posixPermissions = 0640;
  NSErrorRef error;
  if (!connection().changeAttributes(wanted, at("file"), &error)) {
    EXPECT_TRUE(hasCode(error, {kQuarnKitAttributeChangeNotSupported}));
    return;
  }
  EXPECT_EQ(node(root(), "file")->permissions(), FilePermissions(0640));
}

TEST_P(ConnectionContract, DatesAreChangedOrKnownNotToBeChangeable) {
  server().putFile(at("file"), "x");
  NSFileAttributes wanted;
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(1000000000);
  NSErrorRef error;
  if (!connection().changeAttributes(wanted, at("file"), &error)) {
    EXPECT_TRUE(hasCode(error, {kQuarnKitAttributeChangeNotSupported}));
    return;
  }
  EXPECT_EQ(node(root(), "file")->modificationDate(), wanted.modificationDate);
}

TEST_P(ConnectionContract, ACreationDateAloneIsSetOrKnownNotToBeSettable) {
  server().putFile(at("file"), "x");
  NSFileAttributes wanted;
  wanted.creationDate = NSDate::dateWithTimeIntervalSince1970(1000000000);
  NSErrorRef error;
  if (!connection().changeAttributes(wanted, at("file"), &error)) {
    EXPECT_TRUE(hasCode(error, {kQuarnKitAttributeChangeNotSupported}));
    return;
  }
  EXPECT_EQ(node(root(), "file")->creationDate(), wanted.creationDate);
}

TEST_P(ConnectionContract, OwnerAndSetIDModeTogetherBothHold) {
  server().putFile(at("file"), "x");
  NSFileAttributes wanted;
  wanted.ownerAccountID = 12345;
  wanted.groupOwnerAccountID = 54321;
  wanted.posixPermissions = 06755;
  NSErrorRef error;
  if (!connection().changeAttributes(wanted, at("file"), &error)) {
    // Only the superuser gives files away.
    EXPECT_TRUE(hasCode(error, {kQuarnKitPermissionDenied, kQuarnKitAttributeChangeNotSupported}));
    return;
  }
  const auto attributes = connection().attributesOfItemAtPath(at("file"), nullptr, nullptr);
  ASSERT_TRUE(attributes.has_value());
  EXPECT_EQ(attributes->posixPermissions, 06755);
  EXPECT_EQ(attributes->ownerAccountID, 12345u);
  EXPECT_EQ(attributes->groupOwnerAccountID, 54321u);
}

TEST_P(ConnectionContract, TheDateOfALinkIntoNowhereIsThatOfTheLink) {
  if (!makeLink(at("link"), "nothing")) return;
  NSFileAttributes wanted;
  wanted.modificationDate = NSDate::dateWithTimeIntervalSince1970(1000000000);
  NSErrorRef error;
  if (!connection().changeAttributes(wanted, at("link"), &error)) {
    EXPECT_TRUE(hasCode(error, {kQuarnKitAttributeChangeNotSupported}));
    return;
  }
  EXPECT_EQ(node(root(), "link")->modificationDate(), wanted.modificationDate);
  EXPECT_FALSE(server().exists(at("nothing")));
}

TEST_P(ConnectionContract, ChangingWhatIsMissingSaysSo) {
  NSFileAttributes wanted;
  wanted.posixPermissions = 0640;
  NSErrorRef error;
  EXPECT_FALSE(connection().changeAttributes(wanted, at("missing"), &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitNoSuchItem, kQuarnKitAttributeChangeNotSupported}));
}

TEST_P(ConnectionContract, AConnectionWorksOnAfterAFailureAndAfterARelease) {
  server().putFile(at("file"), "x");
  NSErrorRef error;
  EXPECT_FALSE(connection().deleteItemAtPath(at("missing"), false, &error));
  EXPECT_THAT(names(root()), ElementsAre("file"));
  reconnect();
  EXPECT_THAT(names(root()), ElementsAre("file"));
}

TEST_P(ConnectionContract, SeveralThreadsWorkAtOnce) {
  constexpr int kThreads = 6;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([this, i] {
      const auto own = pool().acquireConnection();
      const std::string folder = at("thread " + std::to_string(i));
      EXPECT_TRUE(own->createFolderAtPath(folder, nullptr));
      for (int n = 0; n < 5; ++n) {
        EXPECT_TRUE(own->createFolderAtPath(folder + "/" + std::to_string(n), nullptr));
        Nodes nodes;
        EXPECT_TRUE(own->contentsAtPath(folder, &nodes, nullptr));
        EXPECT_EQ(nodes.size(), static_cast<size_t>(n + 1));
      }
      pool().releaseConnection(own);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(list(root()).size(), static_cast<size_t>(kThreads));
}

TEST_P(ConnectionContract, NothingWorksAfterShutDown) {
  ASSERT_TRUE(connection().connect(nullptr));
  pool().shutDown();
  NSErrorRef error;
  Nodes nodes;
  EXPECT_FALSE(connection().contentsAtPath(root(), &nodes, &error));
  EXPECT_TRUE(hasCode(error, {kQuarnKitConnectionLost}));
  EXPECT_FALSE(connection().createFolderAtPath(at("late"), &error));
  EXPECT_FALSE(server().exists(at("late")));
  EXPECT_EQ(pool().acquireConnection(), nullptr);
}

}  // namespace ombra
