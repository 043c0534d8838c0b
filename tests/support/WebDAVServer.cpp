#include "tests/support/WebDAVServer.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>

#include "tests/support/TestCertificates.h"

namespace ombra {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRealm = "dav";
constexpr const char* kApacheModules = "/usr/lib/apache2/modules";
constexpr const char* kNginxModule = "/usr/lib/nginx/modules/ngx_http_dav_ext_module.so";
constexpr const char* kLighttpdModule = "/usr/lib/lighttpd/mod_webdav.so";

std::string hashOf(const EVP_MD* hash, const std::string& text, std::string* raw = nullptr) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  EVP_Digest(text.data(), text.size(), digest.data(), &length, hash, nullptr);
  std::string hex;
  for (unsigned int i = 0; i < length; ++i) hex += fmt::format("{:02x}", digest[i]);
  if (raw != nullptr) raw->assign(reinterpret_cast<const char*>(digest.data()), length);
  return hex;
}

// A line of a password file: servers read "{SHA}" and the base64 form of the hash.
std::string passwordLine() {
  std::string raw;
  hashOf(EVP_sha1(), WebDAVServer::kPassword, &raw);
  std::array<unsigned char, 64> text{};
  EVP_EncodeBlock(text.data(), reinterpret_cast<const unsigned char*>(raw.data()),
                  static_cast<int>(raw.size()));
  return fmt::format("{}:{{SHA}}{}\n", WebDAVServer::kUser, reinterpret_cast<const char*>(text.data()));
}

std::string digestLine() {
  const std::string secret = fmt::format("{}:{}:{}", WebDAVServer::kUser, kRealm, WebDAVServer::kPassword);
  return fmt::format("{}:{}:{}\n", WebDAVServer::kUser, kRealm, hashOf(EVP_md5(), secret));
}

}  // namespace

WebDAVServer::WebDAVServer(WebDAVServerKind kind) : iKind(kind) {
  open(folder(), 0755);
  fs::create_directory(folder() + "/dav");
  open(folder() + "/dav", 0777);
  iConfiguration = folder() + "/server";
  fs::create_directories(iConfiguration + "/state");
  open(iConfiguration + "/state", 0777);
  iPort = ServerProcess::freePort();
  if (!prepare() || iProcess.start(iCommand, iReady, iPort)) return;
  fail("the server does not start: " + iProcess.log());
}

WebDAVServer::~WebDAVServer() { iProcess.stop(); }

bool WebDAVServer::restart() { return iProcess.start(iCommand, iReady, iPort); }

bool WebDAVServer::fail(const std::string& reason) {
  iWhyNot = reason;
  return false;
}

std::string WebDAVServer::write(const std::string& name, const std::string& content) const {
  const std::string path = iConfiguration + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

bool WebDAVServer::prepare() {
  switch (iKind) {
    case WebDAVServerKind::kApacheBasic:
      return prepareApache(false, false);
    case WebDAVServerKind::kApacheDigest:
      return prepareApache(true, false);
    case WebDAVServerKind::kApacheTLS:
      return prepareApache(false, true);
    case WebDAVServerKind::kNginx:
      return prepareNginx();
    case WebDAVServerKind::kLighttpd:
      return prepareLighttpd();
  }
  return false;
}

bool WebDAVServer::prepareApache(bool isDigest, bool isTLS) {
  const std::string program = ServerProcess::findProgram("apache2");
  if (program.empty()) return fail("Apache is not installed: install the package apache2");
  const std::string users = write("users", isDigest ? digestLine() : passwordLine());
  std::string text = fmt::format(
      "ServerRoot {0}\nServerName localhost\nPidFile {0}/apache.pid\nListen 127.0.0.1:{1}\n"
      "ErrorLog /dev/stderr\nLogLevel notice\nMutex file:{0}/state default\n",
      iConfiguration, iPort);
  for (const char* module : {"mpm_event", "authn_core", "authn_file", "authz_core", "authz_user",
                             "auth_basic", "auth_digest", "alias", "dav", "dav_fs", "socache_shmcb", "ssl"}) {
    text += fmt::format("LoadModule {0}_module {1}/mod_{0}.so\n", module, kApacheModules);
  }
  // Only the superuser may say who serves; the account comes with the package.
  if (geteuid() == 0) text += "User www-data\nGroup www-data\n";
  text += fmt::format(
      "StartServers 1\nServerLimit 2\nThreadsPerChild 32\nMaxRequestWorkers 64\nKeepAlive On\n"
      "MaxKeepAliveRequests 0\nKeepAliveTimeout 60\nLimitXMLRequestBody 0\nDavLockDB {0}/state/locks\n"
      "Redirect permanent /formerly /dav\nAlias /dav {1}/dav\n<Directory {1}/dav>\nDav On\nOptions "
      "None\nAllowOverride None\nAuthType {2}\n"
      "AuthName {3}\nAuth{2}Provider file\nAuthUserFile {4}\nRequire valid-user\n</Directory>\n",
      iConfiguration, folder(), isDigest ? "Digest" : "Basic", kRealm, users);
  if (isTLS) {
    const TestCertificate certificate = makeLocalhostCertificate();
    iFingerprint = certificate.fingerprint;
    text += fmt::format("SSLEngine on\nSSLCertificateFile {}\nSSLCertificateKeyFile {}\n",
                        write("certificate.pem", certificate.pem), write("key.pem", certificate.key));
  }
  iCommand = {program, "-f", write("apache.conf", text), "-DFOREGROUND"};
  iReady = "resuming normal operations";
  return true;
}

bool WebDAVServer::prepareNginx() {
  const std::string program = ServerProcess::findProgram("nginx");
  if (program.empty() || access(kNginxModule, R_OK) != 0) {
    return fail(
        "nginx with its WebDAV module is not installed: install the packages nginx-light and "
        "libnginx-mod-http-dav-ext");
  }
  const std::string users = write("users", passwordLine());
  std::string text =
      fmt::format("load_module {};\nerror_log stderr notice;\npid {}/nginx.pid;\ndaemon off;\n", kNginxModule,
                  iConfiguration);
  if (geteuid() == 0) text += "user root;\n";
  text += fmt::format(
      "worker_processes 1;\nevents {{ worker_connections 256; }}\nhttp {{\naccess_log off;\nsendfile on;\n"
      "client_max_body_size 0;\nclient_body_temp_path {0}/state/body;\nproxy_temp_path {0}/state/proxy;\n"
      "fastcgi_temp_path {0}/state/fastcgi;\nuwsgi_temp_path {0}/state/uwsgi;\nscgi_temp_path "
      "{0}/state/scgi;\n"
      "dav_ext_lock_zone zone=locks:1m;\nserver {{\nlisten 127.0.0.1:{1};\nroot {2};\n"
      "keepalive_requests 1000000;\nlocation /dav {{\nauth_basic {3};\nauth_basic_user_file {4};\n"
      "dav_methods PUT DELETE MKCOL COPY MOVE;\ndav_ext_methods PROPFIND OPTIONS LOCK UNLOCK;\n"
      "dav_ext_lock zone=locks;\ncreate_full_put_path off;\ndav_access user:rw group:r all:r;\n}}\n}}\n}}\n",
      iConfiguration, iPort, folder(), kRealm, users);
  iCommand = {program, "-c", write("nginx.conf", text), "-p", iConfiguration, "-e", "stderr"};
  iReady = "start worker process ";
  return true;
}

bool WebDAVServer::prepareLighttpd() {
  const std::string program = ServerProcess::findProgram("lighttpd");
  if (program.empty() || access(kLighttpdModule, R_OK) != 0) {
    return fail(
        "lighttpd with its WebDAV module is not installed: install the packages lighttpd and "
        "lighttpd-mod-webdav");
  }
  const std::string users = write("users", passwordLine());
  const std::string text = fmt::format(
      "server.modules = (\"mod_auth\", \"mod_authn_file\", \"mod_webdav\")\nserver.bind = \"127.0.0.1\"\n"
      "server.port = {1}\nserver.document-root = \"{2}\"\nserver.upload-dirs = (\"{0}/state\")\n"
      "server.max-keep-alive-requests = 65535\nserver.stat-cache-engine = \"disable\"\n"
      "server.stream-request-body = "
      "1\nwebdav.activate = \"enable\"\n"
      "webdav.is-readonly = \"disable\"\nwebdav.sqlite-db-name = \"{0}/state/dav.db\"\n"
      "auth.backend = \"htpasswd\"\nauth.backend.htpasswd.userfile = \"{4}\"\n"
      "auth.require = (\"/dav\" => (\"method\" => \"basic\", \"realm\" => \"{3}\", "
      "\"require\" => \"valid-user\"))\n",
      iConfiguration, iPort, folder(), kRealm, users);
  iCommand = {program, "-D", "-f", write("lighttpd.conf", text)};
  iReady = "server started";
  return true;
}

std::shared_ptr<KCCredentials> WebDAVServer::credentials() {
  auto credentials = std::make_shared<KCCredentials>();
  const bool isTLS = iKind == WebDAVServerKind::kApacheTLS;
  credentials->setProtocol(isTLS ? kProtocolWebDAVTLS : kProtocolWebDAV);
  credentials->setAddress("127.0.0.1");
  credentials->setPort(iPort);
  credentials->setUsername(kUser);
  credentials->setPassword(kPassword);
  credentials->setInitialPath("/dav");
  if (isTLS) credentials->setOption("fingerprint", iFingerprint);
  return credentials;
}

bool WebDAVServer::handlesName(const std::string& name) const {
  if (iKind == WebDAVServerKind::kNginx) return !name.starts_with('.');
  return iKind != WebDAVServerKind::kLighttpd || name.find('\t') == std::string::npos;
}

void WebDAVServer::open(const std::string& localPath, int mode) const {
  chmod(localPath.c_str(), static_cast<mode_t>(mode));
}

std::string WebDAVServer::localPath(const std::string& serverPath) const { return folder() + serverPath; }

std::string WebDAVServer::serverPath(const std::string& localPath) const {
  return localPath.substr(folder().size());
}

std::string WebDAVServer::makeTestFolder() {
  const std::string made = localPath(FolderBackedServer::makeTestFolder());
  // Below the part that is served.
  const std::string path = folder() + "/dav" + made.substr(folder().size());
  fs::rename(made, path);
  open(path, 0777);
  return serverPath(path);
}

void WebDAVServer::putFile(const std::string& path, const std::string& content) {
  FolderBackedServer::putFile(path, content);
  open(localPath(path), 0666);
}

void WebDAVServer::makeFolder(const std::string& path) {
  FolderBackedServer::makeFolder(path);
  open(localPath(path), 0777);
}

}  // namespace ombra
