#include "tests/support/SshdFixture.h"

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "remote/KCTypes.h"
#include "tests/support/ChildProcess.h"

namespace ombra {
namespace {

constexpr const char* kServer = "/usr/sbin/sshd";

std::vector<pid_t> childrenOf(pid_t process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/task/" + std::to_string(process) + "/children");
  std::vector<pid_t> children;
  pid_t child = 0;
  while (file >> child) children.push_back(child);
  return children;
}

void killTree(pid_t process) {
  for (const pid_t child : childrenOf(process)) killTree(child);
  kill(process, SIGKILL);
}

}  // namespace

SshdFixture::SshdFixture(std::vector<std::string> extraConfiguration, std::string address)
    : iExtraConfiguration(std::move(extraConfiguration)), iAddress(std::move(address)) {
  if (!prepare()) return;
  // The port is free of 127.0.0.1 alone.
  for (int attempt = 0; attempt < 5 && !isRunning(); ++attempt) {
    iPort = ServerProcess::freePort();
    (void)start();
  }
}

SshdFixture::~SshdFixture() {
  dropConnections();
  stop();
  std::error_code ignored;
  if (!iFolder.empty()) std::filesystem::remove_all(iFolder, ignored);
}

bool SshdFixture::fail(const std::string& reason) {
  iWhyNot = reason;
  return false;
}

bool SshdFixture::prepare() {
  if (access(kServer, X_OK) != 0) return fail("no SSH server is installed at " + std::string(kServer));
  std::string pattern = (std::filesystem::temp_directory_path() / "ombra-sshd-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) return fail("no temporary folder can be made");
  iFolder = pattern;
  const passwd* entry = getpwuid(geteuid());
  if (entry == nullptr) return fail("the user of this process has no name");
  iUser = entry->pw_name;
  // The server refuses to start without its privilege separation folder.
  if (geteuid() == 0) mkdir("/run/sshd", 0755);
  for (const char* key : {"/host_key", "/client_key"}) {
    if (!runProgram({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", iFolder + key})) {
      return fail("ssh-keygen made no key");
    }
  }
  std::filesystem::copy_file(identityFile() + ".pub", authorizedKeysFile());
  std::string printed;
  (void)runProgram({"ssh-keygen", "-l", "-f", iFolder + "/host_key.pub"}, &printed);
  std::istringstream description(printed);
  std::string bits;
  description >> bits >> iFingerprint;
  return iFingerprint.starts_with("SHA256:") || fail("ssh-keygen tells no fingerprint");
}

bool SshdFixture::start() {
  std::ofstream configuration(iFolder + "/sshd_config");
  for (const std::string& line : iExtraConfiguration) configuration << line << "\n";
  configuration << "Port " << iPort << "\nListenAddress " << iAddress << "\nHostKey " << iFolder
                << "/host_key\n"
                << "AuthorizedKeysFile " << authorizedKeysFile() << "\n"
                << "PidFile none\nUsePAM no\nStrictModes no\nPermitRootLogin yes\nPasswordAuthentication no\n"
                << "KbdInteractiveAuthentication no\nMaxStartups 100\nMaxSessions 100\nUseDNS no\n"
                << "LogLevel INFO\nSubsystem sftp internal-sftp\n";
  configuration.close();
  const std::vector<std::string> command{kServer, "-D", "-e", "-f", iFolder + "/sshd_config"};
  return iServer.start(command, "Server listening", iPort) ||
         fail("the SSH server does not start: " + iServer.log());
}

std::string SshdFixture::waitForLog(const std::string& text) {
  return iServer.waitForOutput(text) ? iServer.log() : std::string();
}

void SshdFixture::dropConnections() {
  if (!isRunning()) return;
  for (const pid_t child : childrenOf(iServer.process())) killTree(child);
}

void SshdFixture::configure(KCCredentials& credentials) const {
  credentials.setProtocol(kProtocolSFTP);
  credentials.setAddress(iAddress);
  credentials.setPort(iPort);
  credentials.setUsername(iUser);
  credentials.setOption("identityFile", identityFile());
  credentials.setOption("fingerprint", iFingerprint);
}

std::string SshdFixture::knownHostsLine() const {
  std::ifstream file(iFolder + "/host_key.pub");
  std::string type;
  std::string key;
  file >> type >> key;
  return "[" + iAddress + "]:" + std::to_string(iPort) + " " + type + " " + key;
}

}  // namespace ombra
