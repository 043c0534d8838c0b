// The first connection, and where the root is.
#include "fshelper/OFSRemoteFile.h"
#include "platform/foundation/NSUserDefaults.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

class Preflight : public FileSystemTest {
 protected:
  Preflight() {
    server.setLoginPath("/home/u");
    server.addFolder("/home/u/docs");
  }
  ~Preflight() override { NSUserDefaults::standardUserDefaults().setVolatileObject({}, "MountAtRemoteRoot"); }
  void mountAtRemoteRoot() {
    NSUserDefaults::standardUserDefaults().setVolatileObject(true, "MountAtRemoteRoot");
  }
};

TEST_F(Preflight, LogsInAndReleasesTheConnection) {
  EXPECT_TRUE(fileSystem.preflight(&error));
  EXPECT_TRUE(fileSystem.isConnected());
  EXPECT_EQ(server.heldConnections(), 0u);
  EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnectionWithTimeout 30 none", "setDelegate delegate",
                                              "loginPath", "connect", "loginPath", "releaseConnection"));
}

TEST_F(Preflight, ALoggedInConnectionIsNotAskedToConnect) {
  server.setLoggedIn(true);
  EXPECT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(server.count("connect"), 0u);
}

TEST_F(Preflight, TheFirstConnectionHasTheFileSystemAsItsDelegate) {
  const std::shared_ptr<AbstractConnection> connection =
      ofs_acquireConnectionForFileSystem(*server.pool(), fileSystem, &error);
  ASSERT_NE(connection, nullptr);
  EXPECT_EQ(connection->delegate(), &fileSystem);
  EXPECT_EQ(server.heldConnections(), 1u);
  server.pool()->releaseConnection(connection);
}

TEST_F(Preflight, TheRootHasThePoolsCredentials) {
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->credentials(), server.credentials());
}

TEST_F(Preflight, AnErrorBesideASuccessfulLoginDoesNotReachTheCaller) {
  server.succeedWithError("connect", kAnyPath, refusal());
  EXPECT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(error, nullptr);
}

// Nothing but the root decides whether the file system is connected.
TEST_F(Preflight, WithARootAFailedLoginStillConnects) {
  fileSystem.setRootNode(KCRemoteFolderNode::folderNodeWithPath("/kept", server.credentials()));
  server.fail("connect", kAnyPath, refusal(kQuarnKitLoginFailed));
  EXPECT_TRUE(fileSystem.preflight(&error));
  EXPECT_TRUE(fileSystem.isConnected());
  EXPECT_EQ(fileSystem.rootNode()->path(), "/kept");
}

TEST_F(Preflight, WithoutAnInitialPathTheLoginFolderIsTheRoot) {
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/home/u");
  EXPECT_EQ(fileSystem.initialPath(), "/");
  EXPECT_EQ(server.count("changeDir"), 0u);
}

TEST_F(Preflight, WithoutAnInitialPathTheServersRootLeadsToTheLoginFolder) {
  mountAtRemoteRoot();
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
  EXPECT_EQ(fileSystem.initialPath(), "/home/u");
}

TEST_F(Preflight, ARelativeInitialPathIsTheRoot) {
  server.credentials()->setInitialPath("docs");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/home/u/docs");
  EXPECT_EQ(fileSystem.initialPath(), "/");
}

TEST_F(Preflight, ARelativeInitialPathIsWhereTheServersRootLeads) {
  mountAtRemoteRoot();
  server.credentials()->setInitialPath("docs");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
  EXPECT_EQ(fileSystem.initialPath(), "/home/u/docs");
}

TEST_F(Preflight, AnInitialPathThatNamesAFileLeadsToItsFolder) {
  server.addFile("/home/u/a.txt", "a");
  server.credentials()->setInitialPath("/home/u/a.txt");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/home/u");
  EXPECT_THAT(server.callTexts(), Contains("changeDir /home/u/a.txt"));
  EXPECT_THAT(server.callTexts(), Contains("changeDir /home/u"));
}

TEST_F(Preflight, AnInitialPathThatNamesAFileLeavesTheErrorOfTheFirstAttempt) {
  server.addFile("/home/u/a.txt", "a");
  server.credentials()->setInitialPath("/home/u/a.txt");
  const NSErrorRef refused = refusal(kQuarnKitProtocolError);
  server.fail("changeDir", "/home/u/a.txt", refused);
  EXPECT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(error, refused);
}

TEST_F(Preflight, WhyTheStartFolderCouldNotBeEnteredIsKept) {
  server.credentials()->setInitialPath("/home/u/gone");
  const NSErrorRef refused = refusal(kQuarnKitNoSuchItem);
  server.fail("changeDir", "/home/u/gone", refused);
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/home/u");
  EXPECT_EQ(fileSystem.startFolderError(), refused);
}

TEST_F(Preflight, AStartFolderThatCanBeEnteredLeavesNoErrorOfIts) {
  server.credentials()->setInitialPath("/home/u/docs");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.startFolderError(), nullptr);
}

TEST_F(Preflight, AnEmptyInitialPathIsTheLoginFolder) {
  server.credentials()->setInitialPath("");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_THAT(server.callTexts(), Contains("changeDir /home/u"));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/home/u");
  EXPECT_EQ(fileSystem.initialPath(), "/");
}

TEST_F(Preflight, ATildeGoesToTheServerUnchanged) {
  server.credentials()->setInitialPath("~/docs");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_THAT(server.callTexts(), Contains("changeDir ~/docs"));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/home/u/docs");
}

TEST_F(Preflight, OnWebDAVAnInitialPathIsMeantFromTheServersRoot) {
  server.setIsWebDAV(true);
  server.addFolder("/dav");
  server.credentials()->setInitialPath("dav");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_THAT(server.callTexts(), Contains("changeDir /dav"));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/dav");
}

TEST_F(Preflight, OnWebDAVATildeIsAnOrdinaryName) {
  server.setIsWebDAV(true);
  server.addFolder("/~u");
  server.credentials()->setInitialPath("~u");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/~u");
}

TEST_F(Preflight, OnWebDAVAnEmptyInitialPathIsTheServersRoot) {
  server.setIsWebDAV(true);
  server.credentials()->setInitialPath("");
  ASSERT_TRUE(fileSystem.preflight(&error));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
}

TEST_F(Preflight, AnUnreachableInitialPathFailsWithTheLibrarysError) {
  server.credentials()->setInitialPath("/nowhere/at/all");
  EXPECT_FALSE(fileSystem.preflight(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitNoSuchItem));
  EXPECT_FALSE(fileSystem.isConnected());
  EXPECT_EQ(fileSystem.rootNode(), nullptr);
  EXPECT_EQ(server.heldConnections(), 0u);
}

TEST_F(Preflight, AnUnreachableInitialPathFailsWithTheErrorOfTheSecondAttempt) {
  const NSErrorRef first = refusal(kQuarnKitPermissionDenied);
  const NSErrorRef second = refusal(kQuarnKitProtocolError);
  server.credentials()->setInitialPath("/home/u/docs");
  server.fail("changeDir", "/home/u/docs", first);
  server.fail("changeDir", "/home/u", second);
  EXPECT_FALSE(fileSystem.preflight(&error));
  EXPECT_EQ(error, second);
  EXPECT_EQ(server.count("pwd"), 0u);
}

TEST_F(Preflight, AFailedQuestionForTheFolderFailsWithTheLibrarysError) {
  server.credentials()->setInitialPath("docs");
  server.fail("pwd", kAnyPath, refusal(kQuarnKitProtocolError));
  EXPECT_FALSE(fileSystem.preflight(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitProtocolError));
  EXPECT_EQ(fileSystem.rootNode(), nullptr);
  EXPECT_EQ(server.heldConnections(), 0u);
}

TEST_F(Preflight, AFailedLoginReachesTheCallerUnchanged) {
  const NSErrorRef refused = refusal(kQuarnKitLoginFailed);
  server.fail("connect", kAnyPath, refused);
  EXPECT_FALSE(fileSystem.preflight(&error));
  EXPECT_EQ(error, refused);
  EXPECT_EQ(server.heldConnections(), 0u);
}

TEST_F(Preflight, ALoginWithoutAFolderFailsWithoutAnError) {
  server.setLoginPath(std::nullopt);
  EXPECT_FALSE(fileSystem.preflight(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(server.heldConnections(), 0u);
}

TEST_F(Preflight, AnAcquisitionThatTimesOutFailsWithoutAnError) {
  server.setAcquisitionTimesOut(true);
  EXPECT_FALSE(fileSystem.preflight(&error));
  EXPECT_EQ(error, nullptr);
  EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnectionWithTimeout 30 none"));
}

TEST_F(Preflight, AfterTheFirstAConnectionIsTakenPlainly) {
  connect();
  const std::shared_ptr<AbstractConnection> connection =
      ofs_acquireConnectionForFileSystem(*server.pool(), fileSystem, &error);
  EXPECT_NE(connection, nullptr);
  EXPECT_THAT(server.callTexts(), ElementsAre("acquireConnection"));
  server.pool()->releaseConnection(connection);
}

TEST_F(Preflight, WithoutAPoolThereIsNoConnection) {
  OmbraFileSystem lonely;
  EXPECT_FALSE(lonely.preflight(&error));
}

TEST_F(Preflight, TrustsWhateverServerTheFrontEndHasAccepted) {
  connect();
  const std::shared_ptr<AbstractConnection> connection = server.pool()->acquireConnection();
  EXPECT_TRUE(fileSystem.connection(*connection, TrustQuestion{"SHA256:x"}));
  server.pool()->releaseConnection(connection);
}

TEST_F(Preflight, TheObjectBeginsWithItsMountDateAndTheUsualIntervalAndNothingElse) {
  const OmbraFileSystem fresh;
  const NSDate made = clock.now();
  clock.advance(5);
  EXPECT_EQ(fresh.mountDate(), made);
  EXPECT_EQ(fresh.refreshInterval(), 60.0);
  EXPECT_FALSE(fresh.isConnected());
  EXPECT_EQ(fresh.controller(), nullptr);
  EXPECT_EQ(fresh.connectionPool(), nullptr);
  EXPECT_EQ(fresh.rootNode(), nullptr);
  EXPECT_EQ(fresh.mountError(), nullptr);
  EXPECT_EQ(fresh.initialPath(), "");
}

TEST_F(Preflight, TheFileSystemReceivesThePoolsTranscript) {
  EXPECT_EQ(server.transcriptDelegate(), &fileSystem);
}

class WillMount : public FileSystemTest {
 protected:
  // Mounted at "/" with the start folder /a/b.
  void prepare() {
    server.addFile("/a/b/c.txt", "c");
    connect();
    fileSystem.setInitialPath("/a/b");
  }
};

TEST_F(WillMount, ListsTheRootAndLeavesNoError) {
  prepare();
  fileSystem.willMount();
  EXPECT_THAT(serverCalls(), ElementsAre("contentsAtPath /"));
  EXPECT_EQ(fileSystem.mountError(), nullptr);
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
  EXPECT_EQ(fileSystem.initialPath(), "/a/b");
}

TEST_F(WillMount, MovesTheRootDownToTheFirstFolderThatCanBeListed) {
  prepare();
  server.failAlways("contentsAtPath", "/", refusal(kQuarnKitListingNotPermitted));
  fileSystem.willMount();
  EXPECT_EQ(fileSystem.rootNode()->path(), "/a");
  EXPECT_EQ(fileSystem.rootNode()->credentials(), server.credentials());
  EXPECT_EQ(fileSystem.initialPath(), "/b");
  EXPECT_EQ(fileSystem.startFolderError(), nullptr);
  EXPECT_THAT(list("/"), ElementsAre("b"));
}

TEST_F(WillMount, TheErrorStaysAfterARetryThatSucceeded) {
  prepare();
  server.failAlways("contentsAtPath", "/", refusal(kQuarnKitListingNotPermitted));
  fileSystem.willMount();
  ASSERT_NE(fileSystem.mountError(), nullptr);
  EXPECT_EQ(fileSystem.mountError()->code(), kENOENT);
  EXPECT_TRUE(
      QuarnKitError::isCode(fileSystem.mountError()->underlyingError(), kQuarnKitListingNotPermitted));
}

TEST_F(WillMount, StopsAtTheStartFolder) {
  prepare();
  server.failAlways("contentsAtPath", kAnyPath, refusal(kQuarnKitListingNotPermitted));
  fileSystem.willMount();
  EXPECT_EQ(fileSystem.rootNode()->path(), "/a/b");
  EXPECT_EQ(fileSystem.initialPath(), "/");
  EXPECT_EQ(server.count("contentsAtPath"), 3u);
  EXPECT_TRUE(QuarnKitError::isCode(fileSystem.startFolderError(), kQuarnKitListingNotPermitted));
}

TEST_F(WillMount, AnotherFailureEndsTheDescentAtOnce) {
  prepare();
  server.failAlways("contentsAtPath", "/", refusal(kQuarnKitConnectionLost));
  fileSystem.willMount();
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
  EXPECT_EQ(fileSystem.initialPath(), "/a/b");
  EXPECT_TRUE(QuarnKitError::isCode(fileSystem.mountError()->underlyingError(), kQuarnKitConnectionLost));
}

TEST_F(WillMount, TheNumberOfARefusedListingInAnotherDomainIsAnotherFailure) {
  prepare();
  server.failAlways("contentsAtPath", "/",
                    NSError::errorWithDomain(NSPOSIXErrorDomain, kQuarnKitListingNotPermitted));
  fileSystem.willMount();
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
}

TEST_F(WillMount, AFailureWithoutALibraryErrorEndsTheDescentAndIsNotTracedAsASuccess) {
  prepare();
  server.failAlways("contentsAtPath", "/", nullptr);
  RecordedLog log;
  {
    const TracingOn tracing;
    fileSystem.willMount();
  }
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
  EXPECT_EQ(fileSystem.rootNode()->path(), "/");
  EXPECT_EQ(fileSystem.mountError()->code(), kENOENT);
  EXPECT_THAT(log.linesWith("rootPath="), ::testing::IsEmpty());
}

// Its first component is taken for the root all the same.
TEST_F(WillMount, ARelativeInitialPathFailsAConditionOnly) {
  prepare();
  server.addFile("/b/x.txt", "x");
  fileSystem.setInitialPath("a/b");
  server.failAlways("contentsAtPath", "/", refusal(kQuarnKitListingNotPermitted));
  RecordedLog log;
  fileSystem.willMount();
  EXPECT_THAT(log.lines(), Contains("CONDITION FAILED: initial path is expected to be absolute"));
  EXPECT_EQ(fileSystem.rootNode()->path(), "/b");
  EXPECT_EQ(fileSystem.initialPath(), "/");
  EXPECT_THAT(list("/"), ElementsAre("x.txt"));
}

}  // namespace
}  // namespace ombra
