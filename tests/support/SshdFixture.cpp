#include "tests/support/SshdFixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "remote/KCTypes.h"

extern char** environ;

namespace ombra {
namespace {

constexpr const char* kServer = "/usr/sbin/sshd";
// Ends the server when a test program is killed before it could.
constexpr const char* kLauncher = "/usr/bin/setpriv";
constexpr int kStartLimit = 20000;  // milliseconds

// Runs a program to its end; its output. Empty when it failed.
std::string outputOf(const std::vector<std::string>& command) {
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], STDOUT_FILENO);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_t process = -1;
  const int failed = posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe[1]);
  std::string output;
  std::array<char, 4096> buffer{};
  ssize_t count = 0;
  while (failed == 0 && (count = read(pipe[0], buffer.data(), buffer.size())) > 0) {
    output.append(buffer.data(), static_cast<size_t>(count));
  }
  close(pipe[0]);
  int status = -1;
  if (failed != 0 || waitpid(process, &status, 0) != process || status != 0) return {};
  return output.empty() ? " " : output;
}

int freePort() {
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* plain = reinterpret_cast<sockaddr*>(&address);
  const bool bound = bind(probe, plain, length) == 0 && getsockname(probe, plain, &length) == 0;
  close(probe);
  return bound ? ntohs(address.sin_port) : 0;
}

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

SshdFixture::SshdFixture(std::vector<std::string> extraConfiguration)
    : iExtraConfiguration(std::move(extraConfiguration)) {
  if (!prepare()) return;
  // Somebody may take the port between the probe and the start.
  for (int attempt = 0; attempt < 5 && !isRunning(); ++attempt) {
    iPort = freePort();
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
    if (outputOf({"ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", iFolder + key}).empty()) {
      return fail("ssh-keygen made no key");
    }
  }
  std::filesystem::copy_file(iFolder + "/client_key.pub", iFolder + "/authorized_keys");
  std::istringstream description(outputOf({"ssh-keygen", "-l", "-f", iFolder + "/host_key.pub"}));
  std::string bits;
  description >> bits >> iFingerprint;
  return iFingerprint.starts_with("SHA256:") || fail("ssh-keygen tells no fingerprint");
}

bool SshdFixture::start() {
  std::ofstream configuration(iFolder + "/sshd_config");
  for (const std::string& line : iExtraConfiguration) configuration << line << "\n";
  configuration << "Port " << iPort << "\nListenAddress 127.0.0.1\nHostKey " << iFolder << "/host_key\n"
                << "AuthorizedKeysFile " << iFolder << "/authorized_keys\n"
                << "PidFile none\nUsePAM no\nStrictModes no\nPermitRootLogin yes\nPasswordAuthentication no\n"
                << "KbdInteractiveAuthentication no\nMaxStartups 100\nMaxSessions 100\nUseDNS no\n"
                << "LogLevel INFO\nSubsystem sftp internal-sftp\n";
  configuration.close();
  return launch();
}

bool SshdFixture::launch() {
  std::array<int, 2> log{};
  if (pipe2(log.data(), O_CLOEXEC) != 0) return fail("no pipe can be made");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, log[1], STDERR_FILENO);
  const std::string configuration = iFolder + "/sshd_config";
  std::vector<const char*> command{kServer, "-D", "-e", "-f", configuration.c_str(), nullptr};
  if (access(kLauncher, X_OK) == 0) command.insert(command.begin(), {kLauncher, "--pdeathsig", "TERM"});
  const int failed = posix_spawn(&iProcess, command[0], &actions, nullptr,
                                 const_cast<char* const*>(command.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(log[1]);
  if (iLogDescriptor >= 0) close(iLogDescriptor);
  iLogDescriptor = log[0];
  if (failed != 0) {
    iProcess = -1;
    return fail("the SSH server does not start: " + std::string(strerror(failed)));
  }
  if (waitUntilListening(log[0])) return true;
  stop();
  return fail("the SSH server does not listen: " + iLog);
}

bool SshdFixture::waitUntilListening(int descriptor) {
  iLog.clear();
  std::array<char, 1024> buffer{};
  while (iLog.find("Server listening") == std::string::npos) {
    pollfd waiting{descriptor, POLLIN, 0};
    if (poll(&waiting, 1, kStartLimit) <= 0) return false;
    const ssize_t count = read(descriptor, buffer.data(), buffer.size());
    if (count <= 0) return false;
    iLog.append(buffer.data(), static_cast<size_t>(count));
  }
  return true;
}

void SshdFixture::stop() {
  if (iProcess <= 0) return;
  kill(iProcess, SIGTERM);
  waitpid(iProcess, nullptr, 0);
  iProcess = -1;
}

void SshdFixture::dropConnections() {
  if (iProcess <= 0) return;
  for (const pid_t child : childrenOf(iProcess)) killTree(child);
}

void SshdFixture::configure(KCCredentials& credentials) const {
  credentials.setProtocol(kProtocolSFTP);
  credentials.setAddress("127.0.0.1");
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
  return "[127.0.0.1]:" + std::to_string(iPort) + " " + type + " " + key;
}

}  // namespace ombra
