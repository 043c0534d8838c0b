#include "tests/support/FTPServerFixture.h"

#include <crypt.h>
#include <fmt/format.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/support/TestCertificates.h"

namespace ombra {
namespace {

namespace fs = std::filesystem;

constexpr const char* kProftpdUser = "frieda";

// Where scripts/dependencies unpacks servers that cannot be installed side by side.
std::string unpackedServers() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  const std::string base =
      cache != nullptr && *cache != 0 ? cache : std::string(home != nullptr ? home : "") + "/.cache";
  return base + "/ombra-test-servers";
}

// A hash that costs the server next to nothing.
std::string hashed(const std::string& password) {
  crypt_data data{};
  const char* hash = crypt_r(password.c_str(), "$5$rounds=1000$ombratests", &data);
  return hash != nullptr ? hash : "";
}

void endChildren(pid_t process) {
  std::ifstream file(fmt::format("/proc/{0}/task/{0}/children", process));
  pid_t child = 0;
  while (file >> child) {
    endChildren(child);
    kill(child, SIGKILL);
  }
}

}  // namespace

FTPServerFixture::FTPServerFixture(FTPServerKind kind, const std::vector<std::string>& extra)
    : iKind(kind), iOwner(geteuid()), iGroup(getegid()) {
  // A peer that goes away while TLS is written to it must not end the tests.
  signal(SIGPIPE, SIG_IGN);
  chmod(folder().c_str(), 0755);
  iConfiguration = folder() + "/server";
  fs::create_directory(iConfiguration);
  iPort = ServerProcess::freePort();
  if (isVsftpd() ? !prepareVsftpd(extra) : !prepareProftpd(extra)) return;
  if (!iProcess.start(iCommand, {}, iPort)) fail("the server does not start: " + iProcess.log());
}

FTPServerFixture::~FTPServerFixture() { stop(); }

void FTPServerFixture::stop() {
  if (iProcess.isRunning()) endChildren(iProcess.process());
  iProcess.stop();
}

bool FTPServerFixture::fail(const std::string& reason) {
  iWhyNot = reason;
  return false;
}

std::string FTPServerFixture::write(const std::string& name, const std::string& content, int mode) const {
  const std::string path = iConfiguration + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  chmod(path.c_str(), static_cast<mode_t>(mode));
  return path;
}

bool FTPServerFixture::prepareVsftpd(const std::vector<std::string>& extra) {
  const std::string program = ServerProcess::findProgram("vsftpd");
  if (program.empty()) return fail("vsftpd is not installed: run scripts/dependencies test");
  // It knows the accounts of the machine alone, and asks PAM about them.
  if (geteuid() != 0) return fail("vsftpd needs root to log anybody in");
  iAccount = std::make_unique<TemporaryUser>();
  if (!iAccount->problem().empty()) return fail(iAccount->problem());
  const passwd* entry = getpwnam(iAccount->name().c_str());
  if (entry == nullptr) return fail("the account that was made is not there");
  iOwner = entry->pw_uid;
  iGroup = entry->pw_gid;
  iUser = iAccount->name();
  iPassword = iAccount->password();
  const std::string empty = iConfiguration + "/empty";
  fs::create_directory(empty);
  std::string text = fmt::format(
      "listen=YES\nbackground=NO\nlisten_address=127.0.0.1\nlisten_port={}\nanonymous_enable=NO\n"
      "local_enable=YES\nwrite_enable=YES\nlocal_umask=022\nlocal_root={}\npam_service_name=vsftpd\n"
      "secure_chroot_dir={}\nseccomp_sandbox=NO\nxferlog_enable=NO\nutf8_filesystem=YES\nmdtm_write=YES\n"
      "delay_failed_login=0\n",
      iPort, folder(), empty);
  if (isEncrypted()) {
    const TestCertificate certificate = makeLocalhostCertificate();
    iFingerprint = certificate.fingerprint;
    text += fmt::format(
        "ssl_enable=YES\nrsa_cert_file={}\nrsa_private_key_file={}\nforce_local_logins_ssl=YES\n"
        "force_local_data_ssl=YES\nrequire_ssl_reuse=YES\nssl_ciphers=HIGH\n",
        write("certificate.pem", certificate.pem), write("key.pem", certificate.key));
    if (isImplicit()) text += "implicit_ssl=YES\n";
  }
  for (const std::string& line : extra) text += line + "\n";
  iCommand = {program, write("vsftpd.conf", text)};
  return true;
}

bool FTPServerFixture::prepareProftpd(const std::vector<std::string>& extra) {
  std::string program = unpackedServers() + "/proftpd/usr/sbin/proftpd";
  std::string modules = unpackedServers() + "/proftpd/usr/lib/proftpd";
  if (access(program.c_str(), X_OK) != 0) {
    program = ServerProcess::findProgram("proftpd");
    modules = "/usr/lib/proftpd";
  }
  if (program.empty()) return fail("proftpd is not there: run scripts/dependencies test");
  iUser = kProftpdUser;
  iPassword = "p:ss w\xC3\xB6rd-" + std::to_string(getpid());
  const std::string users = write(
      "users", fmt::format("{}:{}:{}:{}::{}:/bin/sh\n", iUser, hashed(iPassword), iOwner, iGroup, folder()));
  std::string text = fmt::format(
      "ModulePath {0}\nLoadModule mod_tls.c\nServerName tests\nServerType standalone\nPort {1}\n"
      "SocketBindTight on\nDefaultAddress 127.0.0.1\nUseIPv6 off\nAuthUserFile {2}\nAuthOrder "
      "mod_auth_file.c\nRequireValidShell off\nRootLogin on\nUmask 022\nPidFile {3}/pid\nScoreboardFile "
      "{3}/scoreboard\nSystemLog {3}/log\nTransferLog none\nWtmpLog off\nUseReverseDNS off\nAllowOverwrite "
      "on\n"
      "AllowStoreRestart on\nAllowRetrieveRestart on\nUseEncoding on\nMaxInstances 100\n",
      modules, iPort, users, iConfiguration);
  if (geteuid() == 0) text += "User root\nGroup root\n";
  if (isEncrypted()) {
    const TestCertificate certificate = makeLocalhostCertificate();
    iFingerprint = certificate.fingerprint;
    text += fmt::format(
        "TLSEngine on\nTLSProtocol TLSv1.2 TLSv1.3\nTLSECCertificateFile {}\nTLSECCertificateKeyFile {}\n"
        "TLSRequired on\nTLSVerifyClient off\n",
        write("certificate.pem", certificate.pem), write("key.pem", certificate.key));
    if (isImplicit()) text += "TLSOptions UseImplicitSSL\n";
  }
  for (const std::string& line : extra) text += line + "\n";
  iCommand = {program, "-n", "-q", "-c", write("proftpd.conf", text)};
  return true;
}

std::shared_ptr<KCCredentials> FTPServerFixture::credentials() {
  auto credentials = std::make_shared<KCCredentials>();
  credentials->setProtocol(!isEncrypted() ? kProtocolFTP
                           : isImplicit() ? kProtocolFTPImplicitTLS
                                          : kProtocolFTPExplicitTLS);
  credentials->setAddress("127.0.0.1");
  credentials->setPort(iPort);
  credentials->setUsername(iUser);
  credentials->setPassword(iPassword);
  if (isEncrypted()) credentials->setOption("fingerprint", iFingerprint);
  return credentials;
}

void FTPServerFixture::giveAway(const std::string& path) const {
  if (iOwner != geteuid()) (void)!lchown(path.c_str(), iOwner, iGroup);
}

std::string FTPServerFixture::makeTestFolder() {
  const std::string path = FolderBackedServer::makeTestFolder();
  giveAway(localPath(path));
  return path;
}

void FTPServerFixture::putFile(const std::string& path, const std::string& content) {
  FolderBackedServer::putFile(path, content);
  giveAway(localPath(path));
}

void FTPServerFixture::makeFolder(const std::string& path) {
  FolderBackedServer::makeFolder(path);
  giveAway(localPath(path));
}

}  // namespace ombra
