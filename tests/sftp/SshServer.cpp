#include "tests/sftp/SshServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "remote/sftp/SFTPEngine.h"

namespace ombra::test {

namespace {

std::string makeFolder() {
  char name[] = "/tmp/ombra-sftp-XXXXXX";
  return mkdtemp(name) != nullptr ? name : "";
}

// Free at this moment; sshd takes it a moment later.
int freePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  int port = 0;
  if (bind(socket, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(socket);
  return port;
}

void writeFile(const std::string& name, const std::string& content) {
  std::ofstream(name, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace

SshServer::SshServer(const std::vector<std::string>& extra) : iFolder(makeFolder()) {
  if (geteuid() != 0 || access("/usr/sbin/sshd", X_OK) != 0) {
    iProblem = "needs root and /usr/sbin/sshd (package openssh-server)";
    return;
  }
  mkdir("/run/sshd", 0755);
  if (!makeKey(hostKeyFile(), "") || !makeKey(keyFile(), "") || !makeKey(encryptedKeyFile(), kPassphrase)) {
    iProblem = "ssh-keygen made no keys";
    return;
  }
  chmod(iFolder.c_str(), 0755);
  std::string keys;
  for (const std::string& file : {keyFile(), encryptedKeyFile()}) {
    std::string line;
    std::ifstream stream(file + ".pub");
    std::getline(stream, line);
    keys += line + "\n";
  }
  writeFile(iFolder + "/authorized", keys);
  iPort = freePort();
  writeConfiguration(extra);
  iDaemon = std::make_unique<ChildProcess>(
      std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", iFolder + "/sshd_config"});
  if (iDaemon->waitForLine("Server listening on").empty()) iProblem = "sshd did not start";
}

SshServer::~SshServer() {
  iDaemon.reset();
  std::error_code ignored;
  std::filesystem::remove_all(iFolder, ignored);
}

bool SshServer::makeKey(const std::string& file, const std::string& passphrase) {
  return runProgram({"ssh-keygen", "-q", "-t", "ed25519", "-N", passphrase, "-f", file});
}

void SshServer::writeConfiguration(const std::vector<std::string>& extra) {
  std::string text;
  for (const std::string& line : extra) text += line + "\n";
  text += fmt::format(
      "Port {0}\nListenAddress 127.0.0.1\nHostKey {1}/host\nPidFile none\nAuthorizedKeysFile {1}/authorized\n"
      "StrictModes no\nPermitRootLogin yes\nUsePAM no\nUseDNS no\nPasswordAuthentication no\n"
      "KbdInteractiveAuthentication no\nMaxStartups 100:30:200\nSubsystem sftp internal-sftp\n",
      iPort, iFolder);
  writeFile(iFolder + "/sshd_config", text);
}

std::string SshServer::fingerprint() const {
  ChildProcess child({"ssh-keygen", "-lf", hostKeyFile() + ".pub"});
  const std::string line = child.waitForLine("SHA256:");
  const size_t begin = line.find("SHA256:");
  return begin == std::string::npos ? "" : line.substr(begin, line.find(' ', begin) - begin);
}

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
  server = std::make_unique<SshServer>(extra);
  OMBRA_SKIP_UNLESS(server->problem().empty(), server->problem());
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
  credentials->setOption("identityFile", server->keyFile());
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
