// What is made where the server keeps the names that it is given: it joins the known listing.
#include <functional>

#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

class NewItems : public FileSystemTest {
 protected:
  NewItems() {
    server.setKeepsNamesOfNewItems(true);
    server.addFile("/old", "x");
    connect();
  }
  std::vector<std::string> names(const std::string& path) {
    return fileSystem.contentsOfDirectoryAtPath(path, nullptr).value_or(std::vector<std::string>{"<failed>"});
  }
  size_t listings() const { return server.count("contentsAtPath"); }
  bool makeFile(const std::string& path) {
    NSFileAttributes attributes;
    attributes.posixPermissions = 0640;
    return fileSystem.createFileAtPath(path, attributes, &made, nullptr);
  }
  GMUserData made;
};

TEST_F(NewItems, AFileJoinsAFreshListingWithoutAnotherOne) {
  names("/");
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_EQ(listings(), before);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "new"));
  EXPECT_EQ(listings(), before);
  const auto attributes = fileSystem.attributesOfItemAtPath("/new", nullptr, nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->fileType, NSFileTypeValue::NSFileTypeRegular);
  EXPECT_EQ(attributes->fileSize, 0u);
  EXPECT_EQ(attributes->posixPermissions, 0640);
}

TEST_F(NewItems, AFileInAFolderThatIsNotListedYetIsListedWithIt) {
  ASSERT_TRUE(makeFile("/new"));
  EXPECT_EQ(listings(), 1u);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "new"));
}

// Some servers cut such ends off, or write other characters for them.
TEST_F(NewItems, ANameThatABlankBeginsOrABlankOrADotEndsIsListed) {
  names("/");
  for (const char* path : {"/ first", "/last ", "/dot."}) {
    const size_t before = listings();
    ASSERT_TRUE(makeFile(path)) << path;
    EXPECT_EQ(listings(), before + 1) << path;
  }
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/folder.", {}, nullptr));
  const size_t before = listings();
  names("/");
  EXPECT_EQ(listings(), before + 1);
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
  makeStale("/");
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/folder", {}, nullptr));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "new", "folder"));
  EXPECT_EQ(listings(), before + 2);
}

TEST_F(NewItems, AFolderJoinsWithTheServersAttributesAndIsKnownToBeEmpty) {
  names("/");
  const size_t before = listings();
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/folder", {}, nullptr));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "folder"));
  EXPECT_TRUE(names("/folder").empty());
  ASSERT_TRUE(makeFile("/folder/a"));
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("a"));
  EXPECT_EQ(listings(), before);
  const auto attributes = fileSystem.attributesOfItemAtPath("/folder", nullptr, nullptr);
  ASSERT_TRUE(attributes);
  EXPECT_EQ(attributes->fileType, NSFileTypeValue::NSFileTypeDirectory);
  EXPECT_EQ(attributes->posixPermissions, 0755);
}

TEST_F(NewItems, AFolderWhoseAttributesCannotBeReadIsListed) {
  names("/");
  const size_t before = listings();
  server.fail("attributesOfItemAtPath", "/folder", QuarnKitError::errorWithCode(kQuarnKitRefused));
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/folder", {}, nullptr));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "folder"));
  EXPECT_EQ(listings(), before + 1);
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

TEST_F(NewItems, AFolderIsAskedOnceWhetherItTellsNamesApartByCase) {
  names("/");
  ASSERT_TRUE(makeFile("/New"));
  ASSERT_TRUE(makeFile("/Other"));
  ASSERT_TRUE(fileSystem.createDirectoryAtPath("/Folder", {}, nullptr));
  ASSERT_TRUE(makeFile("/Folder/new"));
  std::vector<std::string> asked;
  for (const ScriptedCall& call : server.calls("attributesOfItemAtPath")) asked.push_back(call.arguments[0]);
  EXPECT_THAT(asked, ElementsAre("/nEW", "/Folder")) << "the second one for what the folder is like";
}

TEST_F(NewItems, WhereCaseDoesNotCountTheFolderIsListed) {
  names("/");
  server.setAttributesHandler([](std::string_view, bool* isDirectory, NSErrorRef*) {
    *isDirectory = false;
    return NSFileAttributes();
  });
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/New"));
  ASSERT_TRUE(makeFile("/Other"));
  EXPECT_EQ(listings(), before + 2);
  EXPECT_EQ(server.count("attributesOfItemAtPath"), 1u);
}

// The server keeps the name that the item had before.
TEST_F(NewItems, AnItemThatIsThereInOtherCaseIsNotShownTwice) {
  names("/");
  server.setAttributesHandler([](std::string_view, bool*, NSErrorRef*) { return NSFileAttributes(); });
  server.setHidden("/OLD", true);
  EXPECT_FALSE(makeFile("/OLD"));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old"));
}

// Which letters of other alphabets a server takes for one is not known here.
TEST_F(NewItems, AnItemThatIsThereInOtherCaseOfAnotherAlphabetIsNotShownTwice) {
  server.addFile("/\xc3\x84", "x");
  server.setHidden("/\xc3\xa4", true);
  names("/");
  EXPECT_FALSE(makeFile("/\xc3\xa4"));
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "A\xcc\x88"));
}

TEST_F(NewItems, WhereCaseIsKnownToCountNamesOfOtherAlphabetsJoin) {
  names("/");
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/New"));
  ASSERT_TRUE(makeFile("/\xc3\xa4"));
  ASSERT_TRUE(makeFile("/1"));
  EXPECT_EQ(listings(), before);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old", "New", "a\xcc\x88", "1"));
}

TEST_F(NewItems, WhereNobodyKnowsWhetherCaseCountsTheFolderIsListed) {
  names("/");
  server.fail("attributesOfItemAtPath", "/nEW", QuarnKitError::errorWithCode(kQuarnKitRefused));
  const size_t before = listings();
  ASSERT_TRUE(makeFile("/New"));
  EXPECT_EQ(listings(), before + 1);
  ASSERT_TRUE(makeFile("/Other"));
  EXPECT_EQ(listings(), before + 1) << "asked again, and answered";
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

TEST_F(NewItemMeanwhile, AListingWithoutTheItemKeepsIt) {
  meanwhile([this] { listAgain("/folder"); });
  ASSERT_TRUE(makeFile("/folder/new"));
  EXPECT_EQ(fileOnNode("/folder/new"), made);
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("old", "new"));
}

TEST_F(NewItemMeanwhile, AnInvalidationIsNotForgotten) {
  meanwhile([this] { makeStale("/folder"); });
  ASSERT_TRUE(makeFile("/folder/new"));
  const size_t before = listings();
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("old", "new"));
  EXPECT_EQ(listings(), before + 1);
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
  EXPECT_THAT(names("/folder"), UnorderedElementsAre("new"));
}

TEST_F(NewItems, AFileTakesThePlaceOfTheListedOneOfItsName) {
  names("/");
  const auto node = fileSystem._nodeForPath("/old");
  ASSERT_TRUE(makeFile("/old"));
  EXPECT_EQ(fileSystem._nodeForPath("/old"), node);
  EXPECT_EQ(fileOnNode("/old"), made);
  EXPECT_EQ(fileSystem.attributesOfItemAtPath("/old", nullptr, nullptr)->fileSize, 0u);
  EXPECT_THAT(names("/"), UnorderedElementsAre("old"));
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
