#include "tests/sftp/SshTest.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "remote/sftp/SFTPEngine.h"
#include "tests/support/ChildProcess.h"

namespace ombra::test {

namespace {

std::string makeFolder() {
  char name[] = "/tmp/ombra-sftp-XXXXXX";
  return mkdtemp(name) != nullptr ? name : "";
}

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace

void SshTest::SetUp() {
  if (const char* old = std::getenv("HOME")) iOldHome = old;
  home = makeFolder();
  setenv("HOME", home.c_str(), 1);
  unsetenv("SSH_AUTH_SOCK");
}

void SshTest::TearDown() {
  session.reset();
  server.reset();
  std::error_code ignored;
  std::filesystem::remove_all(home, ignored);
  if (iOldHome) setenv("HOME", iOldHome->c_str(), 1);
}

void SshTest::start(const std::vector<std::string>& extra) {
  OMBRA_SKIP_UNLESS(geteuid() == 0, "needs root: sshd takes passwords and accounts from the system");
  server = std::make_unique<SshdFixture>(extra);
  OMBRA_SKIP_UNLESS(server->isRunning(), server->whyNot());
  // Other accounts are asked for their keys as themselves.
  chmod(server->folder().c_str(), 0755);
}

std::string SshTest::makeEncryptedKey(const std::string& passphrase) const {
  const std::string file = server->folder() + "/encrypted_key";
  EXPECT_TRUE(runProgram({"ssh-keygen", "-q", "-t", "ed25519", "-N", passphrase, "-f", file}));
  std::ofstream(server->authorizedKeysFile(), std::ios::app) << std::ifstream(file + ".pub").rdbuf();
  return file;
}

std::shared_ptr<KCCredentials> SshTest::bareCredentials() const {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(kProtocolSFTP);
  credentials->setAddress("127.0.0.1");
  credentials->setPort(server->port());
  credentials->setUsername("root");
  return credentials;
}

std::shared_ptr<KCCredentials> SshTest::keyCredentials() const {
  auto credentials = bareCredentials();
  credentials->setOption("identityFile", server->identityFile());
  return credentials;
}

std::unique_ptr<Session> SshTest::makeSession(std::shared_ptr<const KCCredentials> credentials, int) {
  registerSFTPEngine();
  SessionEnvironment environment;
  environment.credentials = std::move(credentials);
  environment.transcript = transcript;
  environment.connectLimit = connectLimit;
  environment.idleLimit = idleLimit;
  environment.isWorthyTrust = [this](const std::string& fingerprint) {
    trustQuestions.push_back(fingerprint);
    return trusts;
  };
  return EngineRegistry::engineForCredentials(*environment.credentials)->makeSession(environment);
}

int64_t SshTest::logIn(std::shared_ptr<const KCCredentials> credentials) {
  session = makeSession(std::move(credentials));
  error = nullptr;
  return session->logIn(&error) ? 0 : codeOf(error);
}

void SshTest::writeHomeFile(const std::string& name, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(home + "/" + name).parent_path());
  writeFile(home + "/" + name, content);
}

std::string SshTest::remoteFile(const std::string& name, const std::string& content) const {
  writeFile(server->folder() + "/" + name, content);
  return server->folder() + "/" + name;
}

}  // namespace ombra::test
