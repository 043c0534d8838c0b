#include "tests/support/S3Server.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

namespace ombra {
namespace {

namespace fs = std::filesystem;

constexpr const char* kAccessKey = "AKIATESTTESTTEST";
constexpr const char* kSecret = "secretsecretsecretsecret";

std::string testServersFolder() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  const std::string base =
      cache != nullptr && *cache == '/' ? cache : std::string(home != nullptr ? home : "/root") + "/.cache";
  return base + "/ombra-test-servers";
}

pid_t spawnLogged(const std::vector<std::string>& command, const std::string& log) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  pid_t process = -1;
  const int failed = posix_spawnp(&process, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return failed == 0 ? process : -1;
}

}  // namespace

S3Server::S3Server() {
  std::string pattern = (fs::temp_directory_path() / "ombra-s3-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    (void)fail("no temporary folder can be made");
  } else {
    iFolder = pattern;
  }
}

S3Server::~S3Server() {
  // The last one first: each needs those that were started before it.
  while (!iProcesses.empty()) iProcesses.pop_back();
  std::error_code ignored;
  if (!iFolder.empty()) fs::remove_all(iFolder, ignored);
}

bool S3Server::fail(std::string why) {
  iWhyNot = std::move(why);
  return false;
}

std::string S3Server::logText() const {
  std::ostringstream text;
  text << std::ifstream(iFolder + "/log").rdbuf();
  const std::string whole = text.str();
  constexpr size_t kLast = 2000;
  return whole.size() > kLast ? whole.substr(whole.size() - kLast) : whole;
}

bool S3Server::start(const std::vector<std::string>& command, const std::string& ready, int port) {
  iProcesses.push_back(std::make_unique<ServerProcess>());
  if (iProcesses.back()->start(command, ready, port)) return true;
  return fail(command.front() + " does not start: " + iProcesses.back()->log() + logText());
}

bool S3Server::run(const std::vector<std::string>& command) {
  const pid_t process = spawnLogged(command, iFolder + "/log");
  int status = -1;
  if (process > 0 && waitpid(process, &status, 0) == process && status == 0) return true;
  return fail(command.front() + " failed: " + logText());
}

void S3Server::configure(KCCredentials& credentials) const {
  credentials.setProtocol(kProtocolS3);
  credentials.setAddress("127.0.0.1");
  credentials.setPort(iPort);
  credentials.setUsername(kAccessKey);
  credentials.setPassword(kSecret);
  credentials.setOption("endpoint", endpoint());
  if (!iFingerprint.empty()) credentials.setOption("fingerprint", iFingerprint);
}

S3RverServer::S3RverServer(const TestCertificate* certificate) {
  if (!isRunning()) return;
  const std::string module = testServersFolder() + "/node_modules/@20minutes/s3rver";
  if (access((module + "/package.json").c_str(), R_OK) != 0) {
    (void)fail("no S3 server is installed at " + module + "; run scripts/dependencies test");
    return;
  }
  iPort = ServerProcess::freePort();
  std::string identity;
  if (certificate != nullptr) {
    iFingerprint = certificate->fingerprint;
    std::ofstream(iFolder + "/key.pem") << certificate->key;
    std::ofstream(iFolder + "/certificate.pem") << certificate->pem;
    identity = "key: require('fs').readFileSync('" + iFolder +
               "/key.pem'), cert: require('fs').readFileSync('" + iFolder + "/certificate.pem'), ";
  }
  std::ofstream script(iFolder + "/start.js");
  // It escapes names twice in its answers, which no client would see through: once is enough.
  script << "require('" << testServersFolder() << "/node_modules/he').escape = text => text;\n"
         << "const S3rver = require('" << module << "'), accounts = require('" << module
         << "/lib/models/account');\n"
         << "accounts.DUMMY_ACCOUNT.createKeyPair('" << kAccessKey << "', '" << kSecret << "');\n"
         << "new S3rver({ " << identity << "address: '127.0.0.1', port: " << iPort << ", directory: '"
         << iFolder << "/data', silent: true, vhostBuckets: false, configureBuckets: [{ name: '" << kBucket
         << "' }] }).run().then(() => console.log('up'), e => { console.error(e); process.exit(1); });\n";
  script.close();
  // Its pages of listings are told apart by a cipher that newer libraries have put aside.
  (void)start({"node", "--openssl-legacy-provider", iFolder + "/start.js"}, "up\n", iPort);
}

bool RadosGatewayServer::isWanted() {
  for (const char* name : {"OMBRA_NIGHTLY", "OMBRA_FULL"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && std::strcmp(value, "1") == 0) return true;
  }
  return false;
}

RadosGatewayServer::RadosGatewayServer() {
  if (!isRunning()) return;
  for (const char* program :
       {"/usr/bin/ceph-mon", "/usr/bin/ceph-osd", "/usr/bin/radosgw", "/usr/bin/ceph"}) {
    if (access(program, X_OK) == 0) continue;
    (void)fail(std::string(program) + " is not installed; run OMBRA_FULL=1 scripts/dependencies test");
    return;
  }
  iPort = ServerProcess::freePort();
  iMonitorPort = ServerProcess::freePort();
  writeConfiguration(ServerProcess::freePort());
  if (startCluster()) (void)startGateway();
}

// Nothing is authenticated within the cluster; its data is in memory.
void RadosGatewayServer::writeConfiguration(int oldMonitorPort) {
  const std::string monitor = "[v2:127.0.0.1:" + std::to_string(iMonitorPort) +
                              ",v1:127.0.0.1:" + std::to_string(oldMonitorPort) + "]";
  std::ofstream file(iFolder + "/ceph.conf");
  file << "[global]\nfsid = 6f0b8f9e-9c3a-4d0d-8a57-3a5c6d1b2e4f\nmon host = " << monitor
       << "\nmon initial members = a\npublic addr = 127.0.0.1\ncluster addr = 127.0.0.1\n"
          "auth cluster required = none\nauth service required = none\nauth client required = none\n"
          // The gateway otherwise waits for ever for a secure channel.
          "ms mon client mode = crc\n"
          "osd pool default size = 1\nosd pool default min size = 1\nmon allow pool size one = true\n"
          "osd crush chooseleaf type = 0\nosd pool default pg num = 8\nosd pool default pgp num = 8\n"
          "mon max pg per osd = 1000\nrun dir = "
       << iFolder << "\nadmin socket = " << iFolder << "/$name.asok\nlog file = " << iFolder
       << "/$name.log\nmon cluster log file = " << iFolder << "/cluster.log\n[mon]\nmon data = " << iFolder
       << "/mon\nmon data avail crit = 1\nmon data avail warn = 2\n[osd]\nosd data = " << iFolder
       << "/osd\nosd objectstore = memstore\nmemstore device bytes = 2147483648\n"
          // Without the option each small answer waits for the client's acknowledgement.
          "[client.rgw]\nrgw frontends = beast endpoint=127.0.0.1:"
       << iPort << " tcp_nodelay=1\nrgw dns name = s3.localhost\n";
  file.close();
  fs::create_directories(iFolder + "/mon");
  fs::create_directories(iFolder + "/osd");
  (void)run({"monmaptool", "--create", "--fsid", "6f0b8f9e-9c3a-4d0d-8a57-3a5c6d1b2e4f", "--addv", "a",
             monitor, iFolder + "/monmap"});
}

bool RadosGatewayServer::startCluster() {
  if (!isRunning()) return false;
  const std::string conf = iFolder + "/ceph.conf";
  if (!run({"ceph-mon", "--mkfs", "-i", "a", "--monmap", iFolder + "/monmap", "-c", conf})) return false;
  if (!start({"ceph-mon", "-f", "-i", "a", "-c", conf}, "", iMonitorPort)) return false;
  // Each of these waits for the monitor by itself.
  if (!run({"ceph", "-c", conf, "--connect-timeout", "60", "osd", "create"}) ||
      !run({"ceph-osd", "--mkfs", "-i", "0", "-c", conf}) ||
      !run({"ceph", "-c", conf, "osd", "crush", "add", "osd.0", "1", "root=default", "host=h"}))
    return false;
  return start({"ceph-osd", "-f", "-i", "0", "-c", conf}, "log_to_monitors", 0);
}

bool RadosGatewayServer::startGateway() {
  const std::string conf = iFolder + "/ceph.conf";
  // Waits by itself until the storage can be used; the gateway then starts in a moment.
  if (!run({"radosgw-admin", "-n", "client.rgw", "-c", conf, "--admin-socket", "", "user", "create",
            "--uid=t", "--display-name=t", std::string("--access-key=") + kAccessKey,
            std::string("--secret-key=") + kSecret}))
    return false;
  return start({"radosgw", "-f", "-n", "client.rgw", "-c", conf}, "", iPort);
}

}  // namespace ombra
