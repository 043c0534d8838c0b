// The contract over the engines of this library.
#include "remote/Session.h"
#include "remote/local/LocalEngine.h"
#include "remote/sftp/SFTPEngine.h"
#include "tests/support/ConnectionContractTests.h"
#include "tests/support/SshdFixture.h"

namespace ombra {
namespace {

class LocalServer : public FolderBackedServer {
 public:
  explicit LocalServer(bool inPlace) : iInPlace(inPlace) { registerLocalEngine(); }
  std::shared_ptr<KCCredentials> credentials() override {
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolFile);
    credentials->setAddress("localhost");
    credentials->setOption("inPlace", iInPlace ? "1" : "0");
    return credentials;
  }

 private:
  const bool iInPlace;
};

// The file protocol over the pipe of a local server program.
class PipedServer : public FolderBackedServer {
 public:
  PipedServer() { registerSFTPEngine(); }
  std::string whyNot() const override {
    return access(kProgram, X_OK) == 0 ? ""
                                       : "no SFTP server program is installed at " + std::string(kProgram);
  }
  std::shared_ptr<KCCredentials> credentials() override {
    auto credentials = std::make_shared<KCCredentials>();
    credentials->setProtocol(kProtocolSFTP);
    credentials->setAddress("localhost");
    credentials->setOption("sftpServer", kProgram);
    return credentials;
  }

 private:
  static constexpr const char* kProgram = "/usr/lib/openssh/sftp-server";
};

class SSHServer : public FolderBackedServer {
 public:
  SSHServer() { registerSFTPEngine(); }
  std::string whyNot() const override { return iServer.isRunning() ? "" : iServer.whyNot(); }
  std::shared_ptr<KCCredentials> credentials() override {
    auto credentials = std::make_shared<KCCredentials>();
    iServer.configure(*credentials);
    return credentials;
  }

 private:
  SshdFixture iServer;
};

// So many sessions to one server at most, unless the server has room for fewer.
TEST(EngineRegistry, EnginesHaveTheirOwnCapOnSessions) {
  registerLocalEngine();
  registerSFTPEngine();
  KCCredentials credentials;
  credentials.setProtocol(kProtocolSFTP);
  ASSERT_NE(EngineRegistry::engineForCredentials(credentials), nullptr);
  EXPECT_EQ(EngineRegistry::engineForCredentials(credentials)->sessionCap(), 8);
  credentials.setProtocol(kProtocolFile);
  ASSERT_NE(EngineRegistry::engineForCredentials(credentials), nullptr);
  EXPECT_GT(EngineRegistry::engineForCredentials(credentials)->sessionCap(), 1) << "transfers leave one free";
}

INSTANTIATE_TEST_SUITE_P(
    Servers, ConnectionContract,
    testing::Values(ContractServerKind{"local", [] { return std::make_unique<LocalServer>(true); }},
                    ContractServerKind{"localWhole", [] { return std::make_unique<LocalServer>(false); }},
                    ContractServerKind{"sftpPipe", [] { return std::make_unique<PipedServer>(); }},
                    ContractServerKind{"sftpSSH", [] { return std::make_unique<SSHServer>(); }}),
    contractName);

}  // namespace
}  // namespace ombra
