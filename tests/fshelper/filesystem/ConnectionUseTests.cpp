// When connections are taken, and what the pool and the threads keep of that.
#include <functional>
#include <latch>
#include <set>
#include <thread>

#include "fshelper/StAbstractConnection.h"
#include "tests/fshelper/filesystem/FileSystemFixture.h"

namespace ombra {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ConnectionUse : public FileSystemTest {
 protected:
  ConnectionUse() {
    server.addFile("/docs/a.txt", "a");
    connect();
  }
};

TEST_F(ConnectionUse, TheRootIsFoundWithoutAConnection) {
  EXPECT_NE(fileSystem.nodeForPath("/"), nullptr);
  EXPECT_TRUE(fileSystem.attributesOfItemAtPath("/", nullptr, &error).has_value());
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(ConnectionUse, LookUpsInFreshListingsTakeNoConnection) {
  list("/");
  list("/docs");
  server.clearCalls();
  EXPECT_NE(fileSystem.nodeForPath("/docs/a.txt"), nullptr);
  EXPECT_EQ(fileSystem.nodeForPath("/docs/missing"), nullptr);
  EXPECT_TRUE(fileSystem.attributesOfItemAtPath("/docs/a.txt", nullptr, &error).has_value());
  EXPECT_THAT(server.callTexts(), IsEmpty());
}

TEST_F(ConnectionUse, AListingMayBeOneThatWasFetchedAheadUnlessWhatIsThereNowIsAskedFor) {
  list("/");
  list("/docs");
  EXPECT_TRUE(server.lastTookAhead());
  fileSystem.nodeForPath("/docs")->setExpired(true);
  list("/docs");
  EXPECT_FALSE(server.lastTookAhead());
}

TEST_F(ConnectionUse, OperationsOfTheFileSystemHaveItAsTheirConnectionsDelegate) {
  server.setTellsNews(true);
  list("/docs");
  std::set<std::string> asked;
  server.setObserver([&](const ScriptedCall& call) {
    const AbstractConnection* const current = StAbstractConnection::currentConnection();
    if (current == nullptr || call.connection == 0 || call.name == "setDelegate") return;
    EXPECT_EQ(current->delegate(), &fileSystem) << call.text();
    asked.insert(call.name);
  });
  makeStale("/");
  list("/");
  fileSystem.attributesOfFileSystemForPath("/", nullptr);
  EXPECT_TRUE(fileSystem.createDirectoryAtPath("/docs/new", {}, nullptr));
  EXPECT_TRUE(fileSystem.setAttributes(withMode(0700), "/docs/new", nullptr, nullptr));
  EXPECT_TRUE(fileSystem.createSymbolicLinkAtPath("/link", "docs", nullptr));
  EXPECT_TRUE(fileSystem.moveItemAtPath("/docs/new", "/docs/moved", nullptr));
  EXPECT_TRUE(fileSystem.removeItemAtPath("/docs/moved", nullptr));
  EXPECT_THAT(asked,
              ::testing::IsSupersetOf({"contentsAtPath", "fileSystemAttributesAtPath", "createFolderAtPath",
                                       "newsAtPath", "changeAttributes", "createSymbolicLinkAtPath",
                                       "moveItemFromPath", "deleteItemAtPath"}));
}

TEST_F(ConnectionUse, AlsoTheLookAfterANewFileHasTheFileSystemAsDelegate) {
  server.setTellsNews(true);
  list("/docs");
  server.clearCalls();
  const ConnectionDelegate* delegate = nullptr;
  server.setObserver([&](const ScriptedCall& call) {
    if (call.name == "newsAtPath") delegate = StAbstractConnection::currentConnection()->delegate();
  });
  GMUserData file;
  ASSERT_TRUE(fileSystem.createFileAtPath("/docs/new", {}, &file, &error));
  EXPECT_EQ(delegate, &fileSystem);
}

// Only holders fill it.
TEST_F(ConnectionUse, AnAcquisitionIsNotTheThreadsCurrentConnection) {
  OmbraFileSystem fresh;
  fresh.setConnectionPool(server.pool());
  for (OmbraFileSystem* one : {&fresh, &fileSystem}) {
    const auto connection = ofs_acquireConnectionForFileSystem(*server.pool(), *one, &error);
    ASSERT_NE(connection, nullptr);
    EXPECT_EQ(StAbstractConnection::currentConnection(), nullptr);
    server.pool()->releaseConnection(connection);
  }
}

TEST_F(ConnectionUse, HoldersMadeBySixteenThreadsAtOnceEachHaveTheirOwnConnection) {
  constexpr size_t kThreads = 16;
  std::latch start(kThreads);
  std::vector<AbstractConnection*> held(kThreads);
  std::vector<AbstractConnection*> current(kThreads);
  std::latch all(kThreads);
  std::vector<std::thread> threads;
  for (size_t index = 0; index < kThreads; ++index) {
    threads.emplace_back([&, index] {
      start.arrive_and_wait();
      StAbstractConnection holder(server.pool().get(), nullptr);
      held[index] = holder.connection();
      current[index] = StAbstractConnection::currentConnection();
      all.arrive_and_wait();
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(held, current);
  EXPECT_EQ(std::set<AbstractConnection*>(held.begin(), held.end()).size(), kThreads);
  EXPECT_EQ(server.heldConnections(), 0u);
}

// A pool without connections that tells when its transcript delegate is set.
class WatchedPool final : public KCConnectionPool {
 public:
  std::shared_ptr<KCCredentials> credentials() const override { return nullptr; }
  void setMaximumConnections(int) override {}
  std::shared_ptr<AbstractConnection> acquireConnection() override { return nullptr; }
  std::shared_ptr<AbstractConnection> acquireConnectionWithTimeout(double,
                                                                   const CancellationToken*) override {
    return nullptr;
  }
  void releaseConnection(std::shared_ptr<AbstractConnection>) override {}
  void setTranscriptDelegate(TranscriptDelegate* delegate) override { onDelegate(delegate); }
  void shutDown() override {}
  std::function<void(TranscriptDelegate*)> onDelegate = [](TranscriptDelegate*) {};
};

TEST(PoolSetter, MakesItselfTheTranscriptDelegateBeforeItKeepsThePool) {
  const auto pool = std::make_shared<WatchedPool>();
  OmbraFileSystem fileSystem;
  std::vector<bool> wasKept;
  pool->onDelegate = [&](TranscriptDelegate* delegate) {
    EXPECT_EQ(delegate, &fileSystem);
    wasKept.push_back(fileSystem.connectionPool() != nullptr);
  };
  fileSystem.setConnectionPool(pool);
  EXPECT_THAT(wasKept, ElementsAre(false));
  EXPECT_EQ(fileSystem.connectionPool(), pool);
  pool->onDelegate = [](TranscriptDelegate*) {};
}

TEST(PoolSetter, TakesNoPoolAsNone) {
  OmbraFileSystem fileSystem;
  fileSystem.setConnectionPool(std::make_shared<WatchedPool>());
  fileSystem.setConnectionPool(nullptr);
  EXPECT_EQ(fileSystem.connectionPool(), nullptr);
}

// Which a pool may do for its sessions' last words: the transcript is open until after that.
TEST(PoolSetter, TheEndOfTheFileSystemDetachesItFromThePool) {
  const auto pool = std::make_shared<WatchedPool>();
  std::vector<TranscriptDelegate*> told;
  {
    OmbraFileSystem fileSystem;
    pool->onDelegate = [&](TranscriptDelegate* delegate) { told.push_back(delegate); };
    fileSystem.setConnectionPool(pool);
    EXPECT_THAT(told, ElementsAre(&fileSystem));
    told.clear();
  }
  EXPECT_THAT(told, ElementsAre(nullptr));
}

}  // namespace
}  // namespace ombra
