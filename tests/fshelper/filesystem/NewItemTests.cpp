// What is made in a folder whose listing is known: the server is asked for that alone.
#include <functional>

#include "tests/fshelper/filesystem/FileSystemFixture.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class NewItems : public FileSystemTest {
 protected:
  NewItems() {
    server.setTellsNews(true);
    server.addFile("/old", "x");
    connect();
  }
  std::vector<std::string> names(const std::string& path) {
    return fileSystem.contentsOfDirectoryAtPath(path, nullptr).value_or(std::vector<std::string>{"<failed>"});
  }
  size_t listings() const { return server.count("contentsAtPath"); }
  size_t looks() const { return server.count("newsAtPath"); }
  bool makeFile(const std::string& path) {
    NSFileAttributes attributes;
    attributes.posixPermissions = 0640;
    return fileSystem.createFileAtPath(path, attributes, &made, &error);
  }
  GMUserData made;
};

TEST_F(NewItems, AFileIsAskedForAloneWhereTheListingIsKnown) {
  names("/");
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_EQ(listings(), before);
  EXPECT_EQ(looks(), 1u);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "new"));
  EXPECT_EQ(listings() + looks(), before + 1) << "and is fresh afterwards";
  const auto attributes = fileSystem.attributesOfItemAtPath("/new", nullptr, nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->fileType, NSFileTypeValue::NSFileTypeRegular);
  EXPECT_EQ(attributes->fileSize, 0u);
  EXPECT_EQ(attributes->posixPermissions, 0640);
}

TEST_F(NewItems, EachFileIsAskedForOnce) {
  names("/");
  const size_t before = listings();
  for (const char* path : {"/1", "/2", "/3", "/4"}) ASSERT_TRUE(makeFile(path)) << path;
  EXPECT_EQ(listings(), before);
  EXPECT_EQ(looks(), 4u);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "1", "2", "3", "4"));
}

TEST_F(NewItems, AFileThatTheServerDoesNotHaveIsAnInputOutputError) {
  names("/");
  server.setHidden("/new", true);
  EXPECT_FALSE(makeFile("/new"));
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(looks(), 1u);
  EXPECT_THAT(names("/"), ElementsAre("old"));
}

TEST_F(NewItems, AFileInAFolderThatIsNotListedYetIsListedWithIt) {
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_EQ(listings(), 1u);
  EXPECT_EQ(looks(), 0u);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "new"));
}

TEST_F(NewItems, AListingThatHasExpiredIsFetched) {
  names("/");
  clock.advance(61);
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_EQ(listings(), before + 1);
}

TEST_F(NewItems, AnInvalidatedListingIsFetched) {
  names("/");
  makeStale("/");
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_EQ(listings(), before + 1);
  EXPECT_EQ(looks(), 0u);
}

TEST_F(NewItems, AnInvalidationAfterTheMakingIsNotForgotten) {
  names("/");
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/folder", {}, nullptr));
  makeStale("/");
  server.removeItem("/old");
  const size_t before = listings();
  EXPECT_THAT(names("/"), ElementsAre("folder"));
  EXPECT_EQ(listings(), before + 1);
}

// Others change the folder, too.
TEST_F(NewItems, WhatIsAskedForDoesNotMakeAnOldListingYounger) {
  names("/");
  for (int second = 0; second < 3; ++second) {
    clock.advance(0.3);
    ASSERT_TRUE(makeFile("/" + std::to_string(second)));
  }
  clock.advance(59.2);
  const size_t before = listings();
  names("/");
  EXPECT_EQ(listings(), before + 1) << "60 s after the folder was listed";
}

TEST_F(NewItems, AFolderIsAskedForWhenItIsLookedAtAndIsKnownToBeEmpty) {
  names("/");
  const size_t before = listings();
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/folder", {}, nullptr));
  EXPECT_EQ(looks(), 0u);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "folder"));
  EXPECT_EQ(looks(), 1u);
  EXPECT_THAT(names("/folder"), IsEmpty());
  ASSERT_TRUE(makeFile("/folder/a"));
  EXPECT_THAT(names("/folder"), ElementsAre("a"));
  EXPECT_EQ(listings(), before);
  EXPECT_EQ(looks(), 2u);
  const auto attributes = fileSystem.attributesOfItemAtPath("/folder", nullptr, nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->fileType, NSFileTypeValue::NSFileTypeDirectory);
  EXPECT_EQ(attributes->posixPermissions, 0755);
}

TEST_F(NewItems, ANewLinkHasItsFolderListed) {
  names("/");
  const size_t before = listings();
  ASSERT_TRUE(fileSystem.createSymbolicLinkAtPath("/link", "old", nullptr));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "link"));
  EXPECT_EQ(listings(), before + 1);
  EXPECT_EQ(fileSystem.destinationOfSymbolicLinkAtPath("/link", nullptr), "old");
}

TEST_F(NewItems, AnOldListingIsStillFetchedAfterACreationThatFailed) {
  names("/");
  clock.advance(61);
  const size_t before = listings();
  server.fail("uploadFileHandle", "/new", QuarnKitError::errorWithCode(kQuarnKitRefused));
  ASSERT_FALSE(makeFile("/new"));
  names("/");
  EXPECT_EQ(listings(), before + 1);
}

TEST_F(NewItems, AFileTakesThePlaceOfTheListedOneOfItsName) {
  names("/");
  const auto node = fileSystem._nodeForPath("/old");
  ASSERT_TRUE(makeFile("/old"));
  EXPECT_EQ(fileSystem._nodeForPath("/old"), node);
  EXPECT_EQ(fileOnNode("/old"), made);
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/old", nullptr, nullptr)->fileSize, 0u);
  EXPECT_THAT(names("/"), ElementsAre("old"));
}

TEST_F(NewItems, WhatWasRemovedOrMovedAwaySinceItWasMadeIsNotShownAgain) {
  names("/");
  for (const char* path : {"/removed", "/moved"}) {
    ASSERT_TRUE(makeFile(path)) << path;
    fileSystem.releaseFileAtPath(path, made);
  }
  ASSERT_TRUE(fileSystem.removeItemAtPath("/removed", nullptr));
  ASSERT_TRUE(fileSystem.moveItemAtPath("/moved", "/there", nullptr));
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "there", "new"));
}

// Something happens on the server, or here, while it makes "/folder/new".
class NewItemMeanwhile : public NewItems {
 protected:
  NewItemMeanwhile() {
    server.addFolder("/folder");
    server.addFile("/folder/old", "x");
    names("/folder");
  }
  void meanwhile(std::function<void()> event) {
    server.setObserver([this, event = std::move(event)](const ScriptedCall& call) {
      if (call.name != "uploadFileHandle") return;
      server.setObserver({});
      event();
    });
  }
  void listAgain(const std::string& folder) {
    makeStale(folder);
    names(folder);
  }
};

TEST_F(NewItemMeanwhile, AListingWithoutTheItemDoesNotHideIt) {
  meanwhile([this] { listAgain("/folder"); });
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_EQ(fileOnNode("/folder/new"), made);
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("old", "new"));
}

TEST_F(NewItemMeanwhile, AnInvalidationIsNotForgotten) {
  meanwhile([this] {
    makeStale("/folder");
    server.removeItem("/folder/old");
  });
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_EQ(listings(), before + 1);
  EXPECT_THAT(names("/folder"), ElementsAre("new"));
}

TEST_F(NewItemMeanwhile, AnInvalidationWhileTheItemIsAskedForIsNotForgotten) {
  server.setObserver([this](const ScriptedCall& call) {
    if (call.name != "newsAtPath") return;
    server.setObserver({});
    makeStale("/folder");
  });
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_EQ(looks(), 1u);
  server.removeItem("/folder/old");
  EXPECT_THAT(names("/folder"), ElementsAre("new"));
}

// It is told to a look that began before the removal, and may not believe it.
TEST_F(NewItemMeanwhile, WhatIsMadeAgainInThePlaceOfWhatWasRemovedIsNotLost) {
  ASSERT_TRUE(makeFile("/folder/again"));
  fileSystem.releaseFileAtPath("/folder/again", made);
  fileSystem._nodeForPath("/folder")->setHasNewItems(true);
  server.setObserver([this](const ScriptedCall& call) {
    if (!call.name.starts_with("acquireConnection")) return;
    server.setObserver({});
    EXPECT_TRUE(fileSystem.removeItemAtPath("/folder/again", nullptr));
    const auto connection = server.pool()->acquireConnection();
    EXPECT_TRUE(
        connection->uploadFileHandle(*temporaryFile(), "again", "/folder/again", 0, nullptr, nullptr));
    server.pool()->releaseConnection(connection);
  });
  names("/folder");
  EXPECT_EQ(looks(), 2u);
  EXPECT_EQ(fileSystem._nodeForPath("/folder/again"), nullptr);
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("old", "again", "new"));
}

TEST_F(NewItemMeanwhile, AListingWithTheItemBringsItsNode) {
  std::shared_ptr<KCRemoteFileNode> node;
  meanwhile([this, &node] {
    server.addFile("/folder/new", "");
    listAgain("/folder");
    node = fileSystem._nodeForPath("/folder/new");
  });
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_NE(node, nullptr);
  EXPECT_EQ(fileSystem._nodeForPath("/folder/new"), node);
  EXPECT_EQ(fileOnNode("/folder/new"), made);
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("old", "new"));
}

TEST_F(NewItemMeanwhile, AnotherFolderOfThatNameGetsTheItem) {
  meanwhile([this] {
    server.removeItem("/folder");
    listAgain("/");
    server.addFolder("/folder");
    listAgain("/");
    names("/folder");
  });
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_EQ(fileOnNode("/folder/new"), made);
  EXPECT_THAT(names("/folder"), ElementsAre("new"));
}

TEST_F(NewItems, AListingThatWasUnderWayMeanwhileKeepsTheNewItem) {
  names("/");
  fileSystem.rootNode()->setExpired(true);
  server.setContentsHandler([this](std::string_view, auto* nodes, NSErrorRef*) {
    server.setContentsHandler({});
    // The server's answer is on its way when the file is made.
    fileSystem.rootNode()->setExpired(false);
    EXPECT_TRUE(makeFile("/new"));
    nodes->push_back(std::make_shared<KCRemoteFileNode>("/old", server.credentials()));
    return true;
  });
  names("/");
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "new"));
}

}  // namespace
}  // namespace ombra
