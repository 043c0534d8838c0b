// From paths to nodes, and between the forms of paths.
#include "fshelper/OFSRemoteFile.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using NodeTree = FileSystemTest;

TEST_F(NodeTree, TheRootNeedsNoLookUpAndNoListing) {
  connect();
  EXPECT_EQ(fileSystem._nodeForPath("/"), fileSystem.rootNode());
  EXPECT_EQ(fileSystem.nodeForPath("/"), fileSystem.rootNode());
  EXPECT_THAT(serverCalls(), IsEmpty());
}

TEST_F(NodeTree, WithoutARootThereIsNoNodeAndNoListing) {
  EXPECT_EQ(fileSystem.nodeForPath("/"), nullptr);
  EXPECT_THAT(serverCalls(), IsEmpty());
}

TEST_F(NodeTree, TheCachedLookUpAsksNoServer) {
  server.addFile("/a.txt", "a");
  connect();
  EXPECT_EQ(fileSystem._nodeForPath("/a.txt"), nullptr);
  EXPECT_THAT(serverCalls(), IsEmpty());
}

TEST_F(NodeTree, AMissListsTheParentOnce) {
  server.addFile("/a.txt", "a");
  connect();
  const auto node = fileSystem.nodeForPath("/a.txt");
  ASSERT_NE(node, nullptr);
  EXPECT_EQ(node->path(), "/a.txt");
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt"), node);
  EXPECT_THAT(serverCalls(), ElementsAre("contentsAtPath /"));
}

TEST_F(NodeTree, ADeepMissListsEachLevelOnce) {
  server.addFile("/a/b/c.txt", "c");
  connect();
  EXPECT_NE(fileSystem.nodeForPath("/a/b/c.txt"), nullptr);
  EXPECT_THAT(serverCalls(), ElementsAre("contentsAtPath /", "contentsAtPath /a", "contentsAtPath /a/b"));
}

TEST_F(NodeTree, ANameThatAFreshListingLacksStaysMissingWithoutARequest) {
  server.addFile("/a.txt", "a");
  connect();
  list("/");
  server.addFile("/b.txt", "b");
  server.clearCalls();
  EXPECT_EQ(fileSystem.nodeForPath("/b.txt"), nullptr);
  EXPECT_THAT(serverCalls(), IsEmpty());
  makeStale("/");
  EXPECT_NE(fileSystem.nodeForPath("/b.txt"), nullptr);
}

TEST_F(NodeTree, ANameIsFoundInEitherUnicodeForm) {
  server.addFile("/caf\xC3\xA9", "composed");
  server.addFile("/tre\xCC\x81s", "decomposed");
  connect();
  EXPECT_NE(fileSystem.nodeForPath("/cafe\xCC\x81"), nullptr);
  EXPECT_NE(fileSystem.nodeForPath("/caf\xC3\xA9"), nullptr);
  EXPECT_NE(fileSystem.nodeForPath("/tr\xC3\xA9s"), nullptr);
  EXPECT_EQ(fileSystem.nodeForPath("/CAF\xC3\xA9"), nullptr);
}

TEST_F(NodeTree, ChildrenKnowTheirFolder) {
  server.addFile("/a/b.txt", "b");
  connect();
  EXPECT_EQ(fileSystem.nodeForPath("/a/b.txt")->parent(), fileSystem.nodeForPath("/a"));
  EXPECT_EQ(fileSystem.nodeForPath("/a")->parent(), fileSystem.rootNode());
}

TEST_F(NodeTree, NothingIsFoundBelowAFile) {
  server.addFile("/a.txt", "a");
  connect();
  EXPECT_EQ(fileSystem.nodeForPath("/a.txt/b"), nullptr);
}

TEST_F(NodeTree, LocalPathsBecomePathsBelowTheRoot) {
  connectAt("/home/u");
  EXPECT_EQ(fileSystem.remotePathForPath("/"), "/home/u");
  EXPECT_EQ(fileSystem.remotePathForPath("/a/b"), "/home/u/a/b");
  EXPECT_EQ(fileSystem.remotePathForPath("a/b"), "/home/u/a/b");
}

TEST_F(NodeTree, LocalPathsBelowTheServersRootKeepTheirText) {
  connect();
  EXPECT_EQ(fileSystem.remotePathForPath("/"), "/");
  EXPECT_EQ(fileSystem.remotePathForPath("/a"), "/a");
}

TEST_F(NodeTree, LocalPathsAreWrittenInTheServersEncoding) {
  server.credentials()->setEncoding("ISO-8859-1");
  connect();
  EXPECT_EQ(fileSystem.remotePathForPath("/caf\xC3\xA9"), "/caf\xE9");
  EXPECT_EQ(fileSystem.pathForRemotePath("/caf\xE9"), "/caf\xC3\xA9");
}

TEST_F(NodeTree, PathsOfTheServerBecomeLocal) {
  connectAt("/home/u");
  EXPECT_EQ(fileSystem.pathForRemotePath("/home/u"), "/");
  EXPECT_EQ(fileSystem.pathForRemotePath("/home/u/a/b"), "/a/b");
}

TEST_F(NodeTree, PathsOutsideTheRootKeepWhatTheyDoNotShare) {
  connectAt("/home/u");
  EXPECT_EQ(fileSystem.pathForRemotePath("/home/user2/x"), "/user2/x");
  EXPECT_EQ(fileSystem.pathForRemotePath("/etc/hosts"), "/etc/hosts");
}

TEST_F(NodeTree, FullPathsLoseTheMountPoint) {
  connectAt("/home/u");
  mountPoint.path = "/Volumes/Srv";
  EXPECT_EQ(fileSystem.remotePathForFullPath("/Volumes/Srv/a/b"), "/home/u/a/b");
  EXPECT_EQ(fileSystem.remotePathForFullPath("/Volumes/Srv"), "/home/u");
  EXPECT_EQ(fileSystem.remotePathForFullPath("/Users/x"), "/home/u/Users/x");
  EXPECT_EQ(fileSystem.remotePathForFullPath("/Volumes/Other/x"), "/home/u/Other/x");
}

TEST_F(NodeTree, FullPathsAreTakenAsTheyAreBeforeTheMount) {
  connectAt("/home/u");
  EXPECT_EQ(fileSystem.remotePathForFullPath("/Volumes/Srv/a"), "/home/u/Volumes/Srv/a");
  fileSystem.setController(nullptr);
  EXPECT_EQ(fileSystem.remotePathForFullPath("/a"), "/home/u/a");
}

TEST_F(NodeTree, ANodeHasOneOpenFileObject) {
  server.addFile("/a.txt", "a");
  connect();
  const auto node = fileSystem.nodeForPath("/a.txt");
  const auto file = fileSystem._remoteFileForNode(node, "/a.txt");
  EXPECT_EQ(fileSystem._remoteFileForNode(node, "/elsewhere"), file);
  EXPECT_EQ(file->remotePath(), "/a.txt");
  EXPECT_EQ(file->connectionPool(), server.pool());
  EXPECT_EQ(ofs_remoteFile(*node), file);
}

TEST_F(NodeTree, ForgettingVisitsTheSubtreeAndChangesNothing) {
  server.addFile("/a/b/c.txt", "c");
  connect();
  fileSystem.nodeForPath("/a/b/c.txt");
  const auto folder = fileSystem._nodeForPath("/a");
  RecordedLog log;
  {
    const TracingOn tracing;
    fileSystem._forgetNode(folder);
  }
  EXPECT_THAT(log.lines(),
              ElementsAre("{ -[OmbraFileSystem _forgetNode:] /a", " { -[OmbraFileSystem _forgetNode:] /a/b",
                          "  { -[OmbraFileSystem _forgetNode:] /a/b/c.txt",
                          "  } -[OmbraFileSystem _forgetNode:] /a/b/c.txt",
                          " } -[OmbraFileSystem _forgetNode:] /a/b", "} -[OmbraFileSystem _forgetNode:] /a"));
  EXPECT_NE(fileSystem._nodeForPath("/a/b/c.txt"), nullptr);
}

TEST_F(NodeTree, EachStepOfALookUpHasItsComparisonNode) {
  server.addFile("/a/b.txt", "b");
  connect();
  fileSystem.nodeForPath("/a/b.txt");
  RecordedLog log;
  {
    const TracingOn tracing;
    EXPECT_NE(fileSystem._nodeForPath("/a//b.txt"), nullptr);
    EXPECT_NE(fileSystem._nodeForPath("/"), nullptr);
  }
  EXPECT_THAT(log.linesWith("{ -[OmbraFileSystem _comparisonNodeWithDisplayName:]"),
              ElementsAre(" { -[OmbraFileSystem _comparisonNodeWithDisplayName:] a",
                          " { -[OmbraFileSystem _comparisonNodeWithDisplayName:] b.txt"));
}

TEST_F(NodeTree, TheComparisonNodeCarriesTheName) {
  EXPECT_EQ(fileSystem._comparisonNodeWithDisplayName("x")->displayName(), "x");
}

}  // namespace
}  // namespace ombra
