// Links in listings: kept inside the volume, replaced by what they lead to outside.
#include <set>

#include "fshelper/StAbstractConnection.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;

class ListedLinks : public FileSystemTest {
 protected:
  // The node of /name in a volume whose root is /home/u.
  std::shared_ptr<KCRemoteFileNode> node(const std::string& name) {
    if (!fileSystem.isConnected()) connectAt("/home/u");
    return fileSystem.nodeForPath("/" + name);
  }
  static std::optional<std::string> resolved(const KCNode& node) {
    return ofs_property<std::string>(node, kOFSResolvedPath);
  }
};

TEST_F(ListedLinks, AnAbsoluteLinkInsideStaysALinkAndKnowsItsLocalTarget) {
  server.addFile("/home/u/docs/a.txt", "a");
  server.addLink("/home/u/link", "/home/u/docs/a.txt");
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), "/docs/a.txt");
}

TEST_F(ListedLinks, ALinkToTheRootItselfIsInside) {
  server.addLink("/home/u/link", "/home/u");
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), "/");
}

TEST_F(ListedLinks, ARelativeLinkInsideKeepsItsTextOnly) {
  server.addFile("/home/u/docs/a.txt", "a");
  server.addLink("/home/u/link", "docs/a.txt");
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), std::nullopt);
}

TEST_F(ListedLinks, ADanglingLinkKeepsItsRawTarget) {
  server.addLink("/home/u/link", "/nowhere/x");
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), "/nowhere/x");
}

TEST_F(ListedLinks, AnErrorBesideASuccessCountsAsADanglingLink) {
  server.addFile("/etc/hosts", "hosts");
  server.addLink("/home/u/link", "/etc/hosts");
  server.succeedWithError("attributesOfItemAtPath", kAnyPath, refusal());
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), "/etc/hosts");
}

TEST_F(ListedLinks, ALinkThatCannotBeResolvedIsListedAsItIs) {
  server.addLink("/home/u/link", "/etc/hosts");
  server.fail("resolvePath", kAnyPath, refusal());
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), std::nullopt);
  EXPECT_THAT(list("/"), ElementsAre("link"));
}

TEST_F(ListedLinks, WhatFailsOfALinkDoesNotReachTheCaller) {
  server.addFile("/etc/hosts", "hosts");
  server.addLink("/home/u/one", "/etc/hosts");
  server.addLink("/home/u/two", "/etc/hosts");
  connectAt("/home/u");
  server.fail("resolvePath", "/home/u/one", refusal());
  server.failAlways("contentsAtPath", "/etc", refusal());
  EXPECT_THAT(list("/"), ElementsAre("one", "two"));
  EXPECT_EQ(error, nullptr);
}

TEST_F(ListedLinks, ALinkToAFolderOutsideIsAFolderWithTheLinksName) {
  server.addFile("/srv/share/x.txt", "x");
  server.addLink("/home/u/link", "/srv/share");
  EXPECT_EQ(node("link")->type(), kNodeTypeFolder);
  EXPECT_EQ(node("link")->displayName(), "link");
  EXPECT_EQ(node("link")->path(), "/srv/share");
  EXPECT_THAT(list("/"), ElementsAre("link"));
}

TEST_F(ListedLinks, AnItemOutsideStandsInTheFolderWithThePoolsCredentials) {
  server.addFolder("/srv/share");
  server.addFile("/etc/hosts", "hosts");
  server.addLink("/home/u/folder", "/srv/share");
  server.addLink("/home/u/file", "/etc/hosts");
  connectAt("/home/u");
  for (const char* name : {"folder", "file"}) {
    EXPECT_EQ(node(name)->parent(), fileSystem.rootNode()) << name;
    EXPECT_EQ(node(name)->credentials(), server.credentials()) << name;
  }
}

TEST_F(ListedLinks, OfAFolderOutsideNothingButTheLinkIsAskedFor) {
  server.addFolder("/srv/share");
  server.addLink("/home/u/link", "/srv/share");
  server.setListedSize("/home/u/link", 4);
  EXPECT_EQ(node("link")->size(), 4u);
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
}

TEST_F(ListedLinks, AFolderOutsideIsListedThroughTheLink) {
  server.addFile("/srv/share/x.txt", "x");
  server.addLink("/home/u/link", "/srv/share");
  connectAt("/home/u");
  EXPECT_THAT(list("/link"), ElementsAre("x.txt"));
  EXPECT_THAT(server.callTexts(), Contains("contentsAtPath /home/u/link"));
}

TEST_F(ListedLinks, ALinkToAFileOutsideHasTheTargetsSize) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/link", "/etc/hosts");
  EXPECT_EQ(node("link")->type(), kNodeTypeFile);
  EXPECT_EQ(node("link")->size(), 12u);
  EXPECT_EQ(node("link")->displayName(), "link");
}

TEST_F(ListedLinks, ALinkToAFileOutsideTakesTheLinksOtherAttributes) {
  server.addFile("/etc/hosts", "hosts");
  server.addLink("/home/u/link", "/etc/hosts");
  server.setPermissions("/home/u/link", 0701);
  server.setModificationDate("/home/u/link", NSDate::dateWithTimeIntervalSince1970(77));
  EXPECT_EQ(node("link")->permissions(), FilePermissions(0701));
  EXPECT_EQ(node("link")->modificationDate(), NSDate::dateWithTimeIntervalSince1970(77));
}

TEST_F(ListedLinks, ATargetsSizeIsFoundByItsNameOnTheServer) {
  server.credentials()->setEncoding("ISO-8859-1");
  server.addFile("/etc/caf\xE9", "twelve bytes");
  server.addLink("/home/u/link", "/etc/caf\xE9");
  EXPECT_EQ(node("link")->size(), 12u);
}

TEST_F(ListedLinks, AllQuestionsOfAListingAreAskedOnOneConnection) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/link", "/etc/hosts");
  connectAt("/home/u");
  list("/");
  std::set<int> connections;
  for (const char* name : {"contentsAtPath", "resolvePath", "attributesOfItemAtPath"}) {
    ASSERT_GT(server.count(name), 0u) << name;
    for (const ScriptedCall& call : server.calls(name)) connections.insert(call.connection);
  }
  EXPECT_EQ(connections.size(), 1u);
}

TEST_F(ListedLinks, ALinkWhoseTargetsFolderCannotBeListedKeepsItsOwnSize) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/link", "/etc/hosts");
  server.setListedSize("/home/u/link", 4);
  server.fail("contentsAtPath", "/etc", refusal());
  EXPECT_EQ(node("link")->size(), 4u);
}

TEST_F(ListedLinks, ALinkWhoseTargetsFolderLacksTheEntryKeepsItsOwnSize) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/link", "/etc/hosts");
  server.setListedSize("/home/u/link", 4);
  server.setObserver([this](const ScriptedCall& call) {
    if (call.text() == "contentsAtPath /etc") server.setHidden("/etc/hosts", true);
  });
  EXPECT_EQ(node("link")->type(), kNodeTypeFile);
  EXPECT_EQ(node("link")->size(), 4u);
  EXPECT_EQ(server.calls("contentsAtPath").back().text(), "contentsAtPath /etc");
}

TEST_F(ListedLinks, AFailedListingOfAFolderOutsideIsTriedAgainForTheNextLink) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/one", "/etc/hosts");
  server.addLink("/home/u/two", "/etc/hosts");
  server.setListedSize("/home/u/one", 4);
  server.fail("contentsAtPath", "/etc", refusal());
  EXPECT_EQ(node("one")->size(), 4u);
  EXPECT_EQ(node("two")->size(), 12u);
}

TEST_F(ListedLinks, LinksIntoOneFolderOutsideListItOnce) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addFile("/etc/group", "group");
  server.addLink("/home/u/one", "/etc/hosts");
  server.addLink("/home/u/two", "/etc/group");
  EXPECT_EQ(node("two")->size(), 5u);
  EXPECT_EQ(node("one")->size(), 12u);
  const std::vector<std::string> calls = server.callTexts();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "contentsAtPath /etc"), 1);
}

TEST_F(ListedLinks, InsideIsAPlainComparisonOfTexts) {
  server.addFile("/home/user2/x", "x");
  server.addLink("/home/u/link", "/home/user2/x");
  EXPECT_EQ(node("link")->type(), kNodeTypeAlias);
  EXPECT_EQ(resolved(*node("link")), "/user2/x");
}

TEST_F(ListedLinks, AKnownLinkKeepsItsNode) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/link", "/etc/hosts");
  const auto before = node("link");
  makeStale("/");
  list("/");
  EXPECT_EQ(node("link"), before);
}

TEST_F(ListedLinks, AKnownLinkIsResolvedAgainAtEachFetch) {
  server.addFile("/etc/hosts", "twelve bytes");
  server.addLink("/home/u/link", "/etc/hosts");
  node("link");
  const size_t first = server.count("resolvePath");
  ASSERT_GT(first, 0u);
  makeStale("/");
  list("/");
  EXPECT_EQ(server.count("resolvePath"), 2 * first);
}

class Resolution : public FileSystemTest {
 protected:
  std::optional<std::string> resolve(const KCRemoteFileNode& node) {
    StAbstractConnection connection(server.pool().get(), nullptr);
    return ofs_resolvedPathForNode(*connection, node, &isDirectory, &targetExists, &error);
  }
  static std::shared_ptr<KCRemoteFileNode> link(const std::string& path) {
    auto node = std::make_shared<KCRemoteFileNode>(path, nullptr);
    node->setType(kNodeTypeAlias);
    node->setTargetPath("target");
    return node;
  }
  bool isDirectory = false;
  bool targetExists = false;
};

TEST_F(Resolution, FollowsAChainUntilTheAnswerNoLongerChanges) {
  std::vector<std::string> asked;
  server.setResolvePathHandler(
      [&](std::string_view path, std::string* resolvedPath, bool* directory, NSErrorRef*) {
        asked.emplace_back(path);
        *resolvedPath = path == "/a" ? "/b" : "/c";
        *directory = path != "/a";
        return true;
      });
  EXPECT_EQ(resolve(*link("/a")), "/c");
  EXPECT_THAT(asked, ElementsAre("/a", "/b", "/c"));
  EXPECT_TRUE(isDirectory);
  EXPECT_TRUE(targetExists);
}

TEST_F(Resolution, APathThatAnswersItselfEndsAtOnce) {
  server.setResolvePathHandler(
      [](std::string_view path, std::string* resolvedPath, bool* directory, NSErrorRef*) {
        *resolvedPath = path;
        *directory = true;
        return true;
      });
  EXPECT_EQ(resolve(*link("/a")), "/a");
  EXPECT_EQ(server.count("resolvePath"), 1u);
}

TEST_F(Resolution, ATargetWithoutAttributesDoesNotExist) {
  targetExists = true;
  EXPECT_EQ(resolve(*link("/nowhere")), "/nowhere");
  EXPECT_FALSE(targetExists);
}

TEST_F(Resolution, AnErrorOfCodeZeroBesideASuccessDoesNotCount) {
  server.addFile("/a", "a");
  server.succeedWithError("attributesOfItemAtPath", kAnyPath,
                          NSError::errorWithDomain(kQuarnKitErrorDomain, 0));
  EXPECT_EQ(resolve(*link("/a")), "/a");
  EXPECT_TRUE(targetExists);
}

TEST_F(Resolution, AFolderIsNotAskedForItsAttributes) {
  server.addFolder("/folder");
  EXPECT_EQ(resolve(*link("/folder")), "/folder");
  EXPECT_TRUE(targetExists);
  EXPECT_EQ(server.count("attributesOfItemAtPath"), 0u);
}

TEST_F(Resolution, WithoutAQuestionForExistenceTheAttributesAreNotAskedFor) {
  server.addFile("/a", "a");
  StAbstractConnection connection(server.pool().get(), nullptr);
  EXPECT_EQ(ofs_resolvedPathForNode(*connection, *link("/a"), nullptr, nullptr, nullptr), "/a");
  EXPECT_EQ(server.count("attributesOfItemAtPath"), 0u);
}

TEST_F(Resolution, AFailureIsAnInputOutputErrorOverTheLibrarysError) {
  server.fail("resolvePath", "/a", refusal(kQuarnKitPermissionDenied));
  EXPECT_EQ(resolve(*link("/a")), std::nullopt);
  EXPECT_EQ(error->domain(), NSPOSIXErrorDomain);
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(underlyingCode(), kQuarnKitPermissionDenied);
}

TEST_F(Resolution, AFailureWithoutALibraryErrorHasNoneBeneath) {
  server.fail("resolvePath", "/a", nullptr);
  EXPECT_EQ(resolve(*link("/a")), std::nullopt);
  EXPECT_EQ(code(), kEIO);
  EXPECT_EQ(error->userInfo().count(), 0u);
}

TEST_F(Resolution, AFailureIsReported) {
  server.fail("resolvePath", "/a", refusal());
  RecordedLog log;
  {
    const TracingOn tracing;
    EXPECT_EQ(resolve(*link("/a")), std::nullopt);
  }
  EXPECT_EQ(log.linesWith(": " + error->description()).size(), 1u);
}

TEST_F(Resolution, AnotherKindOfNodeFailsAConditionOnly) {
  server.addFile("/a", "a");
  RecordedLog log;
  EXPECT_EQ(resolve(KCRemoteFileNode("/a", nullptr)), "/a");
  EXPECT_THAT(log.lines(), Contains("CONDITION FAILED: node not an alias"));
}

}  // namespace
}  // namespace ombra
