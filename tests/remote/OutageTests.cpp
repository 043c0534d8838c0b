// A real server that goes away for a moment.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <thread>

#include "remote/KCConnectionPool.h"
#include "remote/QuarnKitError.h"
#include "remote/sftp/SFTPEngine.h"
#include "tests/support/ConnectionContract.h"
#include "tests/support/SshdFixture.h"
#include "tests/support/TemporaryFile.h"

namespace ombra {
namespace {

class SSHFolder : public FolderBackedServer {
 public:
  std::shared_ptr<KCCredentials> credentials() override {
    auto credentials = std::make_shared<KCCredentials>();
    sshd.configure(*credentials);
    return credentials;
  }
  SshdFixture sshd;
};

class Outage : public testing::Test, public ConnectionDelegate {
 protected:
  void SetUp() override {
    registerSFTPEngine();
    if (!iServer.sshd.isRunning()) {
      const char* value = std::getenv("CI");
      ASSERT_FALSE(value != nullptr && std::string_view(value) == "true") << iServer.sshd.whyNot();
      GTEST_SKIP() << iServer.sshd.whyNot();
    }
    iRoot = iServer.makeTestFolder();
    iPool = KCConnectionPool::initWithCredentials(iServer.credentials());
    iConnection = iPool->acquireConnection();
    NSErrorRef error;
    ASSERT_TRUE(iConnection->connect(&error)) << error->description();
  }
  void TearDown() override {
    if (iPool != nullptr) iPool->releaseConnection(std::move(iConnection));
  }

  bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
  void connection(AbstractConnection&, uint64_t, double, bool) override {
    if (!iDropped.exchange(true)) iServer.sshd.dropConnections();
  }
  using ConnectionDelegate::connection;

  SSHFolder iServer;
  std::string iRoot;
  std::shared_ptr<KCConnectionPool> iPool;
  std::shared_ptr<AbstractConnection> iConnection;
  std::atomic<bool> iDropped{false};
};

TEST_F(Outage, ADownloadInTheMiddleOfWhichTheConnectionBreaksEndsComplete) {
  const std::string content = contractContent(48 * 1024 * 1024);
  iServer.putFile(iRoot + "/file", content);
  const auto file = temporaryFile();
  iConnection->setDelegate(this);
  NSErrorRef error;
  uint64_t bytes = 0;
  EXPECT_TRUE(iConnection->downloadFileAtPath(iRoot + "/file", *file, 0, &bytes, &error))
      << (error ? error->description() : "");
  iConnection->setDelegate(nullptr);
  EXPECT_TRUE(iDropped);
  EXPECT_EQ(bytes, content.size());
  EXPECT_TRUE(contentOf(*file) == content);
}

TEST_F(Outage, AListingAfterTheConnectionBrokeIsAnsweredOnANewOne) {
  iServer.putFile(iRoot + "/file", "x");
  iServer.sshd.dropConnections();
  std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
  NSErrorRef error;
  EXPECT_TRUE(iConnection->contentsAtPath(iRoot, &nodes, &error)) << (error ? error->description() : "");
  EXPECT_EQ(nodes.size(), 1u);
}

TEST_F(Outage, AServerThatRestartsIsWaitedFor) {
  iServer.putFile(iRoot + "/file", "x");
  iServer.sshd.dropConnections();
  iServer.sshd.stop();
  std::atomic<bool> answered{false};
  std::thread caller([&] {
    std::vector<std::shared_ptr<KCRemoteFileNode>> nodes;
    EXPECT_TRUE(iConnection->contentsAtPath(iRoot, &nodes, nullptr));
    EXPECT_EQ(nodes.size(), 1u);
    answered = true;
  });
  EXPECT_FALSE(answered);
  EXPECT_TRUE(iServer.sshd.start()) << iServer.sshd.whyNot();
  caller.join();
}

TEST_F(Outage, AKeyThatContradictsTheAcceptedOneFailsTheLogin) {
  auto credentials = iServer.credentials();
  credentials->setOption("fingerprint", "SHA256:AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA");
  const auto pool = KCConnectionPool::initWithCredentials(credentials);
  const auto other = pool->acquireConnection();
  other->setDelegate(this);  // says yes to everything, but is not asked
  NSErrorRef error;
  EXPECT_FALSE(other->connect(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitUntrusted)) << (error ? error->description() : "");
  other->setDelegate(nullptr);
  pool->releaseConnection(other);
}

TEST_F(Outage, AWrongUserFailsTheLoginAtOnce) {
  auto credentials = iServer.credentials();
  credentials->setUsername("nobody-of-this-name");
  const auto pool = KCConnectionPool::initWithCredentials(credentials);
  const auto other = pool->acquireConnection();
  NSErrorRef error;
  EXPECT_FALSE(other->connect(&error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitLoginFailed)) << (error ? error->description() : "");
  pool->releaseConnection(other);
}

TEST_F(Outage, ShutDownEndsADownloadSoon) {
  iServer.putFile(iRoot + "/file", contractContent(64 * 1024 * 1024));
  class Stopper : public ConnectionDelegate {
   public:
    explicit Stopper(KCConnectionPool& pool) : iPool(pool) {}
    bool connection(AbstractConnection&, const TrustQuestion&) override { return true; }
    void connection(AbstractConnection&, uint64_t, double, bool) override { iPool.shutDown(); }
    using ConnectionDelegate::connection;

   private:
    KCConnectionPool& iPool;
  } stopper(*iPool);
  iConnection->setDelegate(&stopper);
  const auto file = temporaryFile();
  NSErrorRef error;
  EXPECT_FALSE(iConnection->downloadFileAtPath(iRoot + "/file", *file, 0, nullptr, &error));
  EXPECT_TRUE(QuarnKitError::isCode(error, kQuarnKitConnectionLost));
  iConnection->setDelegate(nullptr);
}

}  // namespace
}  // namespace ombra
