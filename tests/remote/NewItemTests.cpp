// What the server is asked by whoever has a folder's listing and has made something in it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "tests/support/FakeEngine.h"
#include "tests/support/ManualClock.h"

namespace ombra {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NewItemLooks : public testing::Test {
 protected:
  NewItemLooks() {
    fake.engine->keepsNames = true;
    fake.engine->onList = [this](FakeSession&, const std::string&, std::vector<RemoteEntry>* entries,
                                 NSErrorRef*) {
      for (const std::string& name : onServer) entries->push_back(entryNamed(name));
      return true;
    };
    fake.engine->onAttributes = [this](FakeSession&, const std::string& path, NSErrorRef* error) {
      asked.push_back(path);
      if (refusal != 0) return failWith(static_cast<QuarnKitErrorCode>(refusal), error);
      return onServer.contains(path.substr(path.rfind('/') + 1)) || failWith(kQuarnKitNoSuchItem, error);
    };
    fake.engine->isFolder = [](const std::string& path) { return path.find("folder") != std::string::npos; };
    list();
  }

  // As whoever has the last listing that was answered.
  void list() {
    fake.with([this](AbstractConnection& connection) {
      ASSERT_TRUE(connection.contentsAtPath("/", contents.number, &contents, nullptr));
    });
  }
  void makeFile(const std::string& name, bool isOnServer = true) {
    fake.with([&](AbstractConnection& connection) {
      connection.setPutsOffNewFiles(true);
      const auto empty = temporaryFile();
      ASSERT_TRUE(connection.uploadFileHandle(*empty, name, "/" + name, 0, nullptr, nullptr));
    });
    if (isOnServer) onServer.insert(name);
  }
  void makeFolder(const std::string& name) {
    fake.with([&](AbstractConnection& connection) {
      ASSERT_TRUE(connection.createFolderAtPath("/" + name, nullptr));
    });
    onServer.insert(name);
  }
  // Who lists after a file of that name was made is answered with all there is.
  void expectWhole(const std::string& name) {
    makeFile(name);
    const int before = fake.engine->lists;
    list();
    EXPECT_TRUE(contents.isWhole) << name;
    EXPECT_EQ(fake.engine->lists, before + 1) << name;
  }
  void expectTold(const std::string& name) {
    makeFile(name);
    const int before = fake.engine->lists;
    list();
    EXPECT_FALSE(contents.isWhole) << name;
    EXPECT_THAT(names(), ElementsAre(name));
    EXPECT_EQ(fake.engine->lists, before) << name;
  }
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const auto& node : contents.nodes) all.push_back(node->displayName());
    return all;
  }

  ManualClock clock;
  std::set<std::string> onServer{"old"};
  std::vector<std::string> asked;  // for attributes
  int refusal = 0;                 // of those; a code of the library's, 0 for none
  FolderContents contents;
  FakePool fake;
};

TEST_F(NewItemLooks, ANewFileIsToldAloneOfAServerThatHasSaidThatItMadeIt) {
  makeFile("1");
  list();
  EXPECT_FALSE(contents.isWhole);
  EXPECT_THAT(names(), ElementsAre("1"));
  EXPECT_EQ(contents.nodes.front()->type(), kNodeTypeFile);
  EXPECT_EQ(contents.nodes.front()->size(), 0u);
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(NewItemLooks, ANewFileIsToldAsTheServerDescribedItAlongWithItsMaking) {
  fake.engine->looksAtNew = true;
  fake.engine->onUpload = [](FakeSession&, NSFileHandle&, uint64_t, TransferControl& control, NSErrorRef*) {
    NSFileAttributes attributes;
    attributes.fileSize = 0;
    attributes.posixPermissions = 0604;
    control.newFileIsThere(attributes);
    return true;
  };
  makeFile("1");
  list();
  EXPECT_THAT(names(), ElementsAre("1"));
  EXPECT_EQ(contents.nodes.front()->attributes().posixPermissions, 0604);
  EXPECT_THAT(asked, IsEmpty());
}

TEST_F(NewItemLooks, ANewFileThatTheServerDidNotDescribeIsAskedFor) {
  fake.engine->looksAtNew = true;
  makeFile("1");
  list();
  EXPECT_THAT(names(), ElementsAre("1"));
  EXPECT_EQ(contents.nodes.front()->size(), 3u) << "as the server says";
  EXPECT_THAT(asked, ElementsAre("/1"));
}

// It may be there under another name.
TEST_F(NewItemLooks, WhereTheServerDoesNotHaveTheNewFileTheFolderIsListed) {
  fake.engine->looksAtNew = true;
  makeFile("1", false);
  list();
  EXPECT_TRUE(contents.isWhole);
  EXPECT_THAT(names(), ElementsAre("old"));
}

TEST_F(NewItemLooks, WhereTheServerDoesNotAnswerForItTheFolderIsListed) {
  fake.engine->looksAtNew = true;
  refusal = kQuarnKitPermissionDenied;
  expectWhole("1");
}

TEST_F(NewItemLooks, WhereSomethingOfAnotherKindIsThereTheFolderIsListed) {
  fake.engine->looksAtNew = true;
  expectWhole("folder in the place of a file");
}

TEST_F(NewItemLooks, ANewFolderIsAskedFor) {
  makeFolder("folder 1");
  list();
  EXPECT_THAT(names(), ElementsAre("folder 1"));
  EXPECT_EQ(contents.nodes.front()->type(), kNodeTypeFolder);
  EXPECT_THAT(asked, ElementsAre("/folder 1", "/FOLDER 1")) << "the second one for whether case counts";
}

TEST_F(NewItemLooks, AContentThatIsUploadedIsNoNews) {
  makeFile("1");
  list();
  fake.with([&](AbstractConnection& connection) {
    const auto content = temporaryFile("content");
    ASSERT_TRUE(connection.uploadFileHandle(*content, "1", "/1", 0, nullptr, nullptr));
  });
  expectTold("2");
}

TEST_F(NewItemLooks, WhoHasNoListingGetsAWholeOne) {
  makeFile("1");
  contents.number = 0;
  list();
  EXPECT_TRUE(contents.isWhole);
  EXPECT_THAT(names(), ElementsAre("1", "old"));
}

TEST_F(NewItemLooks, WhereNothingWasMadeTheFolderIsListed) {
  list();
  EXPECT_TRUE(contents.isWhole);
  EXPECT_EQ(fake.engine->lists, 2);
}

TEST_F(NewItemLooks, WhereNamesAreNotKeptTheFolderIsListed) {
  fake.engine->keepsNames = false;
  expectWhole("1");
}

// Some servers cut such ends off, or write other characters for them.
TEST_F(NewItemLooks, ForANameThatABlankBeginsOrABlankOrADotEndsTheFolderIsListed) {
  for (const char* name : {" first", "last ", "dot."}) expectWhole(name);
}

TEST_F(NewItemLooks, AFolderIsAskedOnceWhetherItTellsNamesApartByCase) {
  expectTold("New");
  expectTold("Other");
  EXPECT_THAT(asked, ElementsAre("/nEW"));
}

TEST_F(NewItemLooks, WhereCaseDoesNotCountTheFolderIsListed) {
  onServer.insert("nEW");
  makeFile("New", false);
  list();
  EXPECT_TRUE(contents.isWhole);
  EXPECT_THAT(names(), ElementsAre("nEW", "old")) << "under the name that it had before";
  expectWhole("Other");
  EXPECT_THAT(asked, ElementsAre("/nEW"));
}

TEST_F(NewItemLooks, WhereBothSpellingsAreListedCaseCounts) {
  onServer.insert("nEW");
  expectWhole("New");
  expectTold("Other");
  EXPECT_THAT(asked, ElementsAre("/nEW"));
}

// In this encoding the second byte of a character may be that of a letter.
TEST_F(NewItemLooks, TheOtherCaseIsThatOfTheTextNotOfItsBytes) {
  fake.credentials->setEncoding("SHIFT_JIS");
  makeFile("\x83\x41z");
  list();
  EXPECT_FALSE(contents.isWhole);
  EXPECT_THAT(asked, ElementsAre("/\x83\x41Z"));
}

TEST_F(NewItemLooks, WhatIsNotThereTeachesNothingOfCase) {
  fake.engine->looksAtNew = true;
  makeFile("New", false);
  list();
  EXPECT_THAT(asked, ElementsAre("/New"));
}

TEST_F(NewItemLooks, ALinkInThePlaceOfANewFileHasTheFolderListed) {
  fake.engine->looksAtNew = true;
  fake.engine->onUpload = [](FakeSession&, NSFileHandle&, uint64_t, TransferControl& control, NSErrorRef*) {
    NSFileAttributes attributes;
    attributes.fileType = NSFileTypeValue::NSFileTypeSymbolicLink;
    control.newFileIsThere(attributes);
    return true;
  };
  expectWhole("1");
}

// Which letters of other alphabets a server takes for one is not known.
TEST_F(NewItemLooks, UntilItIsKnownWhetherCaseCountsAnItemOfAnotherAlphabetHasTheFolderListed) {
  expectWhole("\xc3\xa4");
  expectTold("1");
  expectTold("New");
  expectTold("\xc3\xb6");
}

TEST_F(NewItemLooks, WhereNobodyTellsWhetherCaseCountsTheFolderIsListedAndAskedAgain) {
  refusal = kQuarnKitRefused;
  expectWhole("New");
  refusal = 0;
  expectTold("Other");
  EXPECT_THAT(asked, ElementsAre("/nEW", "/oTHER"));
}

TEST_F(NewItemLooks, ANewLinkHasTheFolderListed) {
  makeFile("1");
  fake.with([](AbstractConnection& connection) {
    ASSERT_TRUE(connection.createSymbolicLinkAtPath("/link", "1", nullptr));
  });
  list();
  EXPECT_TRUE(contents.isWhole);
}

TEST_F(NewItemLooks, WhatWasMovedOrRemovedIsNotTold) {
  for (const char* name : {"moved", "replaced", "removed", "stays"}) makeFile(name);
  fake.with([](AbstractConnection& connection) {
    ASSERT_TRUE(connection.moveItemFromPath("/moved", false, "/replaced", nullptr));
    ASSERT_TRUE(connection.deleteItemAtPath("/removed", false, nullptr));
  });
  list();
  EXPECT_THAT(names(), ElementsAre("stays"));
}

// To the server it is not there for a second, to all connections of the pool it is.
class PutOffNewItem : public NewItemLooks {
 protected:
  PutOffNewItem() {
    fake.engine->putsOff = true;
    fake.engine->onMake = [this](FakeSession&, const std::string&, NSErrorRef*) { return ++made > 0; };
  }
  ~PutOffNewItem() override { fake.pool->shutDown(); }
  std::atomic<int> made{0};
};

TEST_F(PutOffNewItem, IsToldWithoutBeingMade) {
  makeFile("1", false);
  list();
  EXPECT_FALSE(contents.isWhole);
  EXPECT_THAT(names(), ElementsAre("1"));
  EXPECT_EQ(made, 0);
}

TEST_F(PutOffNewItem, IsInTheListingOfWhoHasMadeItWithoutBeingMade) {
  onServer.insert("2");
  fake.engine->keepsNames = false;
  makeFile("1", false);
  makeFile("2", false);
  list();
  EXPECT_TRUE(contents.isWhole);
  EXPECT_THAT(names(), ElementsAre("2", "old", "1"));
  EXPECT_EQ(made, 0);
}

TEST_F(PutOffNewItem, IsMadeForTheListingOfAnybodyElse) {
  makeFile("1", false);
  contents.number = 0;
  list();
  EXPECT_EQ(made, 1);
}

}  // namespace
}  // namespace ombra
