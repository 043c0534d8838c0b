// The double that the program's delegate tests rest on.
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "tests/support/ScriptedServer.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

using testing::ElementsAre;

class ScriptedServerTest : public testing::Test {
 protected:
  void SetUp() override { connection = server.pool()->acquireConnection(); }
  void TearDown() override {
    if (connection == nullptr) return;
    connection->setDelegate(nullptr);
    server.pool()->releaseConnection(connection);
  }

  bool download(const std::string& path, uint64_t* bytes = nullptr, NSErrorRef* error = nullptr) {
    return connection->downloadFileAtPath(path, *file, 0, bytes, error);
  }

  ScriptedServer server;
  std::shared_ptr<AbstractConnection> connection;
  std::unique_ptr<NSFileHandle> file = temporaryFile();
};

// Reports and gives bytes.
class Peer : public ConnectionDelegate {
 public:
  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  void connection(AbstractConnection& reporting, uint64_t reached, double, bool stalled) override {
    reports.push_back(reached);
    stalls += stalled ? 1 : 0;
    threads.push_back(std::this_thread::get_id());
    if (cancels) reporting.setShouldCancel(true);
  }
  size_t connection(AbstractConnection&, std::byte* buffer, size_t length) override {
    const size_t count = std::min(length, bytes.size());
    std::memcpy(buffer, bytes.data(), count);
    bytes.erase(0, count);
    return count;
  }
  std::vector<uint64_t> reports;
  std::vector<std::thread::id> threads;
  int stalls = 0;
  bool cancels = false;
  std::string bytes;
};

TEST_F(ScriptedServerTest, RecordsEachCallWithItsArgumentsInOrder) {
  server.addFolder("/d");
  server.clearCalls();
  NSErrorRef error;
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  EXPECT_TRUE(connection->connect(&error));
  EXPECT_TRUE(connection->contentsAtPath("/d", &nodes, &error));
  EXPECT_TRUE(connection->createSymbolicLinkAtPath("/d/l", "../x", &error));
  EXPECT_TRUE(connection->moveItemFromPath("/d/l", false, "/d/m", &error));
  EXPECT_TRUE(connection->deleteItemAtPath("/d/m", false, &error));
  EXPECT_THAT(server.callTexts(),
              ElementsAre("connect", "contentsAtPath /d", "createSymbolicLinkAtPath /d/l ../x",
                          "moveItemFromPath /d/l 0 /d/m", "deleteItemAtPath /d/m 0"));
  EXPECT_EQ(server.count("contentsAtPath"), 1u);
  EXPECT_EQ(server.calls("connect")[0].connection, 1);
  EXPECT_EQ(server.calls("connect")[0].thread, std::this_thread::get_id());
  EXPECT_THAT(server.callTexts({"connect", "contentsAtPath"}).size(), 3u);
}

TEST_F(ScriptedServerTest, CountsAcquisitionsAndFailsTheTestOnADoubleRelease) {
  EXPECT_EQ(server.acquireCount(), 1u);
  EXPECT_EQ(server.heldConnections(), 1u);
  server.pool()->releaseConnection(connection);
  EXPECT_EQ(server.releaseCount(), 1u);
  EXPECT_EQ(server.heldConnections(), 0u);
  EXPECT_NONFATAL_FAILURE(server.pool()->releaseConnection(connection), "not held");
  connection = nullptr;
}

TEST_F(ScriptedServerTest, AcquisitionsTimeOutAndFailWhenToldTo) {
  server.setAcquisitionTimesOut(true);
  EXPECT_EQ(server.pool()->acquireConnectionWithTimeout(30.0, nullptr), nullptr);
  server.setAcquisitionFails(true);
  EXPECT_EQ(server.pool()->acquireConnection(), nullptr);
  EXPECT_EQ(server.calls("acquireConnectionWithTimeout")[0].text(), "acquireConnectionWithTimeout 30 none");
}

TEST_F(ScriptedServerTest, LoginPathAppearsWithTheFirstLogin) {
  server.setLoginPath("/home/u");
  EXPECT_FALSE(connection->loginPath().has_value());
  EXPECT_TRUE(connection->connect(nullptr));
  EXPECT_EQ(connection->loginPath(), "/home/u");
  EXPECT_EQ(connection->pwd(nullptr), "/home/u");
  server.addFolder("/home/u/docs");
  EXPECT_TRUE(connection->changeDir("~/docs", nullptr));
  EXPECT_EQ(connection->pwd(nullptr), "/home/u/docs");
  server.setLoginPath(std::nullopt);
  EXPECT_FALSE(connection->loginPath().has_value());
}

TEST_F(ScriptedServerTest, ListsItsTreeInTheOrderOfItsMaking) {
  server.addFile("/d/b", "bb");
  server.addFolder("/d/a");
  server.addLink("/d/l", "b");
  server.addFile("/d/hidden", "");
  server.setHidden("/d/hidden", true);
  server.setPermissions("/d/b", 0600);
  server.setListedSize("/d/a", std::nullopt);
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  ASSERT_TRUE(connection->contentsAtPath("/d", &nodes, nullptr));
  ASSERT_EQ(nodes.size(), 3u);
  EXPECT_EQ(nodes[0]->path(), "/d/b");
  EXPECT_EQ(nodes[0]->size(), 2u);
  EXPECT_EQ(nodes[0]->permissions(), FilePermissions(0600));
  EXPECT_EQ(nodes[1]->type(), kNodeTypeFolder);
  EXPECT_EQ(nodes[2]->type(), kNodeTypeAlias);
  EXPECT_EQ(nodes[2]->targetPath(), "b");
  EXPECT_FALSE(connection->attributesOfItemAtPath("/d/hidden", nullptr, nullptr).has_value());
}

TEST_F(ScriptedServerTest, ResolvesLinksToTheirEnd) {
  server.addFile("/data/file", "x");
  server.addLink("/one", "two");
  server.addLink("/two", "/data/../data/file");
  server.addLink("/circle", "circle");
  server.addLink("/dangling", "gone");
  std::string resolved;
  EXPECT_TRUE(connection->resolvePath("/one", &resolved, nullptr, nullptr));
  EXPECT_EQ(resolved, "/data/file");
  EXPECT_TRUE(connection->resolvePath("/dangling", &resolved, nullptr, nullptr));
  EXPECT_EQ(resolved, "/gone");
  EXPECT_FALSE(connection->resolvePath("/circle", &resolved, nullptr, nullptr));
}

TEST_F(ScriptedServerTest, InjectedErrorsComeOnceOrAlwaysAndMayBeEmpty) {
  const NSErrorRef once = QuarnKitError::errorWithCode(kQuarnKitTimedOut);
  const NSErrorRef always = QuarnKitError::errorWithCode(kQuarnKitRefused);
  server.failAlways("createFolderAtPath", "/a", always);
  server.fail("createFolderAtPath", kAnyPath, once);
  NSErrorRef error;
  EXPECT_FALSE(connection->createFolderAtPath("/a", &error));
  EXPECT_EQ(error, once);
  EXPECT_FALSE(connection->createFolderAtPath("/a", &error));
  EXPECT_EQ(error, always);
  EXPECT_TRUE(connection->createFolderAtPath("/b", &error));
  server.stopFailing();
  server.fail("deleteItemAtPath", "/b", nullptr);
  error = nullptr;
  EXPECT_FALSE(connection->deleteItemAtPath("/b", true, &error));
  EXPECT_EQ(error, nullptr);
  server.succeedWithError("deleteItemAtPath", "/b", once);
  EXPECT_TRUE(connection->deleteItemAtPath("/b", true, &error));
  EXPECT_EQ(error, once);
}

TEST_F(ScriptedServerTest, HeldCallsGoOnWhenReleasedOrFailAsTold) {
  server.addFolder("/d");
  for (const bool fails : {false, true}) {
    const auto hold = server.hold("contentsAtPath", "/d");
    bool listed = fails;
    std::thread caller([&] {
      std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
      listed = connection->contentsAtPath("/d", &nodes, nullptr);
    });
    EXPECT_TRUE(hold->waitUntilHeld());
    EXPECT_EQ(hold->heldCount(), 1u);
    if (fails) {
      hold->releaseFailing(QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
    } else {
      hold->release();
    }
    caller.join();
    EXPECT_EQ(listed, !fails);
  }
}

TEST_F(ScriptedServerTest, DownloadsArriveInPiecesAndStopWhereTheyAreHeld) {
  server.addFile("/f", "0123456789");
  server.setChunkSize(4);
  const auto hold = server.hold("downloadFileAtPath", "/f", 6);
  Peer peer;
  connection->setDelegate(&peer);
  uint64_t bytes = 0;
  std::thread caller([&] { EXPECT_TRUE(download("/f", &bytes)); });
  EXPECT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(contentOf(*file), "012345");
  EXPECT_THAT(peer.reports, ElementsAre(4u, 6u));
  server.reportProgress("/f");
  EXPECT_THAT(peer.reports, ElementsAre(4u, 6u, 6u));
  EXPECT_EQ(peer.stalls, 1);
  hold->release();
  caller.join();
  EXPECT_EQ(bytes, 10u);
  EXPECT_EQ(contentOf(*file), "0123456789");
  EXPECT_THAT(server.transfers()[0].pieces, ElementsAre(4u, 2u, 4u));
  EXPECT_TRUE(server.transfers("downloadFileAtPath")[0].succeeded);
}

TEST_F(ScriptedServerTest, DownloadsFailInTheMiddle) {
  server.addFile("/f", "0123456789");
  server.failAfter("downloadFileAtPath", "/f", 3, QuarnKitError::errorWithCode(kQuarnKitConnectionLost));
  uint64_t bytes = 0;
  NSErrorRef error;
  EXPECT_FALSE(download("/f", &bytes, &error));
  EXPECT_EQ(bytes, 3u);
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_TRUE(download("/f", &bytes, &error)) << "only once";
}

TEST_F(ScriptedServerTest, CancellingIsHonouredFromTheDelegateAndWhileHeld) {
  server.addFile("/f", "0123456789");
  server.setChunkSize(4);
  Peer peer;
  peer.cancels = true;
  connection->setDelegate(&peer);
  NSErrorRef error;
  EXPECT_FALSE(download("/f", nullptr, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled));
  EXPECT_THAT(peer.reports, ElementsAre(4u));
  const auto hold = server.hold("downloadFileAtPath", "/f");
  std::thread caller([&] { EXPECT_FALSE(download("/f", nullptr, &error)); });
  EXPECT_TRUE(hold->waitUntilHeld());
  connection->setShouldCancel(true);
  caller.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitCancelled));
}

TEST_F(ScriptedServerTest, UploadsAreRecordedByteForByteAndStoredAtTheirEnd) {
  const auto hold = server.hold("uploadFileHandle", kAnyPath, kAtEnd);
  const auto source = temporaryFile("hello");
  std::thread caller([&] {
    uint64_t bytes = 0;
    EXPECT_TRUE(connection->uploadFileHandle(*source, "name", "/f", 0, &bytes, nullptr));
    EXPECT_EQ(bytes, 5u);
  });
  EXPECT_TRUE(hold->waitUntilHeld());
  EXPECT_FALSE(server.exists("/f"));
  hold->release();
  caller.join();
  EXPECT_EQ(server.content("/f"), "hello");
  const ScriptedTransfer transfer = server.transfers().at(0);
  EXPECT_EQ(transfer.bytes, "hello");
  EXPECT_EQ(transfer.name, "name");
  EXPECT_EQ(transfer.extents, (std::vector<FileExtent>{{0, 5}}));
  EXPECT_TRUE(source->unconfirmedExtents(0).empty());
  EXPECT_TRUE(source->writeAll("LOUD", 4, 3));
  source->noteWritten({3, 7});
  EXPECT_TRUE(connection->uploadFileHandle(*source, "name", "/f", 3, nullptr, nullptr));
  EXPECT_EQ(server.content("/f"), "helLOUD");
  EXPECT_EQ(server.transfers().at(1).bytes, "LOUD");
}

TEST_F(ScriptedServerTest, AFailedUploadStoresNothing) {
  server.addFile("/f", "old");
  server.failAfter("uploadFileHandle", "/f", 2, QuarnKitError::errorWithCode(kQuarnKitOutOfSpace));
  const auto source = temporaryFile("hello");
  uint64_t bytes = 0;
  EXPECT_FALSE(connection->uploadFileHandle(*source, "f", "/f", 0, &bytes, nullptr));
  EXPECT_EQ(bytes, 2u);
  EXPECT_EQ(server.content("/f"), "old");
  EXPECT_EQ(source->unconfirmedExtents(0), (std::vector<FileExtent>{{0, 5}}));
}

TEST_F(ScriptedServerTest, StreamsTakeWhatTheHandlerGivesInPiecesOfTheCapacity) {
  server.setStreamCapacity(4);
  Peer peer;
  peer.bytes = "0123456789";
  const auto hold = server.hold("streamBytesWithFilename", "/f", 5);
  std::thread caller([&] { EXPECT_TRUE(connection->streamBytesWithFilename("f", "/f", peer, nullptr)); });
  EXPECT_TRUE(hold->waitUntilHeld());
  EXPECT_EQ(server.transfers()[0].bytes, "01234");
  hold->release();
  caller.join();
  EXPECT_EQ(server.content("/f"), "0123456789");
  EXPECT_THAT(server.transfers()[0].pieces, ElementsAre(4u, 1u, 4u, 1u, 0u));
  EXPECT_TRUE(peer.reports.empty());
}

TEST_F(ScriptedServerTest, WaitsForCallsAndTransfersAndReleases) {
  server.addFile("/f", "x");
  std::thread caller([&] {
    EXPECT_TRUE(download("/f"));
    server.pool()->releaseConnection(connection);
  });
  EXPECT_TRUE(server.waitForCalls("downloadFileAtPath", 1));
  EXPECT_TRUE(server.waitForTransfers("downloadFileAtPath", 1));
  EXPECT_TRUE(server.waitUntilAllReleased());
  caller.join();
  connection = nullptr;
}

TEST_F(ScriptedServerTest, OwnAnswersAndTheObserverRunOnTheCallersThread) {
  std::vector<std::string> seen;
  server.setObserver([&](const ScriptedCall& call) { seen.push_back(call.text()); });
  server.setResolvePathHandler([](std::string_view path, std::string* resolved, bool*, NSErrorRef*) {
    *resolved = std::string(path) + "!";
    return true;
  });
  std::string resolved;
  EXPECT_TRUE(connection->resolvePath("/a", &resolved, nullptr, nullptr));
  EXPECT_EQ(resolved, "/a!");
  EXPECT_THAT(seen, ElementsAre("resolvePath /a"));
  server.setObserver({});
}

TEST_F(ScriptedServerTest, ShutDownEndsHeldCallsAndLaterOnes) {
  server.addFile("/f", "x");
  const auto hold = server.hold("downloadFileAtPath", "/f");
  NSErrorRef error;
  std::thread caller([&] { EXPECT_FALSE(download("/f", nullptr, &error)); });
  EXPECT_TRUE(hold->waitUntilHeld());
  server.pool()->shutDown();
  caller.join();
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  EXPECT_FALSE(connection->createFolderAtPath("/a", nullptr));
  EXPECT_EQ(server.pool()->acquireConnection(), nullptr);
}

TEST_F(ScriptedServerTest, CapabilitiesFollowTheProtocolUntilSet) {
  EXPECT_TRUE(connection->isSFTP());
  EXPECT_TRUE(connection->supportsUploadByteOffset());
  server.setSupportsUploadByteOffset(false);
  server.setIsWebDAV(true);
  EXPECT_FALSE(connection->supportsUploadByteOffset());
  EXPECT_TRUE(connection->isWebDAV());
  ScriptedServer dav(kProtocolWebDAV);
  const auto other = dav.pool()->acquireConnection();
  EXPECT_TRUE(other->isWebDAV());
  EXPECT_FALSE(other->isSFTP());
  EXPECT_FALSE(other->supportsUploadByteOffset());
  dav.pool()->releaseConnection(other);
}

TEST_F(ScriptedServerTest, TranscriptsGoToTheDelegateThatWasSet) {
  class Listener : public TranscriptDelegate {
   public:
    void connectionUUID(const KCUUID&, std::string_view text, bool isOutgoing) override {
      lines.push_back((isOutgoing ? ">" : "<") + std::string(text));
    }
    void connectionUUIDFlushTranscript(const KCUUID&) override { ++flushes; }
    std::vector<std::string> lines;
    int flushes = 0;
  } recorder;
  server.appendTranscript("nobody listens", true);
  server.pool()->setTranscriptDelegate(&recorder);
  EXPECT_EQ(server.transcriptDelegate(), &recorder);
  server.appendTranscript("LIST\n", true);
  server.flushTranscript();
  EXPECT_THAT(recorder.lines, ElementsAre(">LIST\n"));
  EXPECT_EQ(recorder.flushes, 1);
}

}  // namespace
}  // namespace ombra
