#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "remote/KCCredentials.h"
#include "remote/KCNode.h"

namespace ombra {
namespace {

std::shared_ptr<KCCredentials> latin1() {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setEncoding("ISO-8859-1");
  return credentials;
}

TEST(Node, NamesFollowTheLastComponentOfThePath) {
  KCNode node("/home/u/a.txt");
  EXPECT_EQ(node.path(), "/home/u/a.txt");
  EXPECT_EQ(node.displayName(), "a.txt");
  EXPECT_EQ(node.filename(), "a.txt");
  node.setPath("/home/u/b.txt");
  EXPECT_EQ(node.displayName(), "b.txt");
  EXPECT_EQ(node.filename(), "b.txt");
}

TEST(Node, TheRootIsNamedBySlash) { EXPECT_EQ(KCNode("/").displayName(), "/"); }

TEST(Node, ASetDisplayNameLeavesTheFileNameUntilThePathChanges) {
  KCNode node("/elsewhere/target");
  node.setDisplayName("link");
  EXPECT_EQ(node.displayName(), "link");
  EXPECT_EQ(node.filename(), "target");
  EXPECT_EQ(node.path(), "/elsewhere/target");
  node.setPath("/elsewhere/other");
  EXPECT_EQ(node.displayName(), "other");
  EXPECT_EQ(node.filename(), "other");
}

TEST(Node, ASetFileNameLeavesTheDisplayName) {
  KCNode node("/a");
  node.setFilename("A~1");
  EXPECT_EQ(node.filename(), "A~1");
  EXPECT_EQ(node.displayName(), "a");
}

TEST(Node, AnyPathIsAnsweredAsItWasGiven) {
  for (const char* path : {"", "/", "a", "a/b", "/a", "/a/", "/a//b", "//", "/a/b/c.txt", "/d/caf\xC3\xA9"}) {
    EXPECT_EQ(KCNode(path).path(), path);
    KCNode node("/other");
    node.setPath(path);
    EXPECT_EQ(node.path(), path);
    node.setDisplayName("link");
    EXPECT_EQ(node.path(), path);
    EXPECT_EQ(node.filename(), KCNode(path).displayName());
  }
}

TEST(Node, APathStaysAsItIsWhenTheDisplayNameBecomesThatOfItsEndAgain) {
  KCNode node("/d/a");
  node.setDisplayName("b");
  node.setDisplayName("a");
  EXPECT_EQ(node.path(), "/d/a");
  EXPECT_EQ(node.displayName(), "a");
  EXPECT_EQ(node.filename(), "a");
}

TEST(Node, ASetFileNameOutlastsADisplayName) {
  KCNode node("/d/a");
  node.setFilename("A~1");
  node.setDisplayName("b");
  EXPECT_EQ(node.filename(), "A~1");
  node.setDisplayName("A~1");
  EXPECT_EQ(node.filename(), "A~1");
  EXPECT_EQ(node.path(), "/d/a");
}

TEST(Node, NamesAreConvertedByTheCredentials) {
  KCRemoteFileNode node("/d/caf\xE9", latin1());
  EXPECT_EQ(node.displayName(), "café");
  EXPECT_EQ(node.filename(), "caf\xE9");
  node.setPath("/d/\xFC");
  EXPECT_EQ(node.displayName(), "ü");
  EXPECT_EQ(node.filename(), "\xFC");
}

TEST(Node, HashIsThatOfTheCanonicalFormAndFollowsTheName) {
  KCNode composed("/\xC3\xA9");
  KCNode decomposed("/e\xCC\x81");
  EXPECT_EQ(composed.displayNameHash(), decomposed.displayNameHash());
  const size_t before = composed.displayNameHash();
  composed.setDisplayName("other");
  EXPECT_NE(composed.displayNameHash(), before);
  composed.setPath("/e\xCC\x81");
  EXPECT_EQ(composed.displayNameHash(), before);
}

TEST(Node, UserPropertiesAreSetReplacedAndRemoved) {
  KCNode node("/a");
  EXPECT_FALSE(node.userPropertyForKey("OFSContents").has_value());
  node.setUserProperty(1, "OFSContents");
  node.setUserProperty(2, "OFSContents");
  node.setUserProperty(std::string("x"), "OFSResolvedPath");
  EXPECT_EQ(std::any_cast<int>(node.userPropertyForKey("OFSContents")), 2);
  node.setUserProperty({}, "OFSContents");
  EXPECT_FALSE(node.userPropertyForKey("OFSContents").has_value());
  EXPECT_EQ(std::any_cast<std::string>(node.userPropertyForKey("OFSResolvedPath")), "x");
  node.setUserProperty({}, "never set");
}

TEST(Node, AReplacedPropertyMayUseTheNodeWhileItGoes) {
  // An open file that is closed by being replaced asks its node.
  struct Asker {
    KCNode* node;
    ~Asker() { EXPECT_EQ(node->displayName(), "a"); }
  };
  KCNode node("/a");
  node.setUserProperty(std::make_shared<Asker>(Asker{&node}), "OFSRemoteFile");
  node.setUserProperty({}, "OFSRemoteFile");
}

TEST(Node, ParentIsNotKeptAlive) {
  auto parent = std::make_shared<KCNode>("/d");
  KCNode node("/d/a");
  EXPECT_EQ(node.parent(), nullptr);
  node.setParent(parent);
  EXPECT_EQ(node.parent(), parent);
  parent.reset();
  EXPECT_EQ(node.parent(), nullptr);
}

TEST(Node, ExpiryFlagIsOffUntilSet) {
  KCNode node("/a");
  EXPECT_FALSE(node.isExpired());
  node.setExpired(true);
  EXPECT_TRUE(node.isExpired());
}

TEST(Node, AWholeListingEndsTheExpiryAndOneOfNewItemsOnlyTheirs) {
  KCNode node("/a");
  node.setExpired(true);
  node.setHasNewItems(true);
  EXPECT_FALSE(node.hasOnlyNewItems());
  node.setListed(false, false);
  EXPECT_TRUE(node.isExpired());
  node.setListed(true, true);
  EXPECT_TRUE(node.hasOnlyNewItems());
  node.setListed(true, false);
  EXPECT_FALSE(node.isExpired());
}

TEST(Node, AListingThatIsOutOfDateAlreadyIsNeverSeenUpToDate) {
  KCNode node("/a");
  node.setHasNewItems(true);
  std::atomic<bool> isDone{false};
  std::thread listing([&] {
    for (int times = 0; times < 500000; ++times) node.setListed(true, true);
    isDone = true;
  });
  int upToDate = 0;
  while (!isDone) {
    if (!node.isExpired()) ++upToDate;
  }
  listing.join();
  EXPECT_EQ(upToDate, 0);
}

TEST(Node, KindsTellTheirTypes) {
  KCRemoteFileNode file("/f", nullptr);
  EXPECT_EQ(file.type(), kNodeTypeFile);
  file.setType(kNodeTypeAlias);
  EXPECT_EQ(file.type(), kNodeTypeAlias);
  const auto folder = KCRemoteFolderNode::folderNodeWithPath("/d", nullptr);
  EXPECT_EQ(folder->type(), kNodeTypeFolder);
  EXPECT_EQ(folder->path(), "/d");
}

TEST(Node, AttributesAreSizeDatesAndPermissions) {
  KCRemoteFileNode node("/f", nullptr);
  EXPECT_EQ(node.attributes().count(), 0u);
  NSFileAttributes attributes;
  attributes.fileSize = 5;
  attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(1);
  attributes.creationDate = NSDate::dateWithTimeIntervalSince1970(2);
  attributes.posixPermissions = 0640;
  node.setAttributes(attributes);
  EXPECT_EQ(node.attributes(), attributes);
  EXPECT_EQ(node.size(), 5u);
  EXPECT_EQ(node.permissions(), FilePermissions(0640));
  node.setAttributes({});
  EXPECT_EQ(node.attributes().count(), 0u);
}

TEST(Node, SingleAttributesAreSetOneByOne) {
  KCRemoteFileNode node("/f", nullptr);
  node.setSize(7);
  node.setModificationDate(NSDate::dateWithTimeIntervalSince1970(3));
  node.setPermissions(FilePermissions(0600));
  node.setTargetPath("../x");
  EXPECT_EQ(node.attributes().fileSize, 7u);
  EXPECT_EQ(node.modificationDate(), NSDate::dateWithTimeIntervalSince1970(3));
  EXPECT_EQ(node.attributes().posixPermissions, 0600);
  EXPECT_EQ(node.targetPath(), "../x");
  node.setTargetPath(std::nullopt);
  EXPECT_FALSE(node.targetPath().has_value());
}

TEST(Node, AttributesComeAndGoOneByOne) {
  KCRemoteFileNode node("/f", nullptr);
  node.setExpired(true);
  node.setSize(0);
  node.setModificationDate(NSDate());
  node.setPermissions(FilePermissions(0));
  EXPECT_EQ(node.size(), 0u);
  EXPECT_EQ(node.modificationDate(), NSDate());
  EXPECT_EQ(node.permissions(), FilePermissions(0));
  EXPECT_FALSE(node.creationDate().has_value());
  node.setModificationDate(std::nullopt);
  EXPECT_EQ(node.attributes().count(), 2u);
  node.setSize(std::nullopt);
  node.setPermissions(std::nullopt);
  EXPECT_EQ(node.attributes().count(), 0u);
  EXPECT_TRUE(node.isExpired());
  EXPECT_EQ(node.path(), "/f");
}

TEST(Node, TheObjectLockIsAlwaysTheSame) {
  KCNode node("/a");
  const RecursiveMutex* lock = &node.objectLock();
  node.setUserProperty(1, "OFSContents");
  node.setDisplayName("b");
  node.setUserProperty({}, "OFSContents");
  EXPECT_EQ(&node.objectLock(), lock);
}

TEST(Node, TheObjectLockMayBeTakenAgainByItsOwner) {
  KCNode node("/a");
  const RecursiveMutexLock outer(node.objectLock());
  // The accessors use a lock of their own, so that they work under the object's.
  EXPECT_EQ(node.displayName(), "a");
}

}  // namespace
}  // namespace ombra
