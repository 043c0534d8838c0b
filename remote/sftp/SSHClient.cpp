#include "remote/sftp/SSHClient.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#if defined(__aarch64__)
#include <asm/hwcap.h>
#include <sys/auxv.h>
#endif

#include "remote/QuarnKitError.h"
#include "remote/net/TCPConnector.h"

namespace ombra {

namespace {

constexpr const char* kSystemConfiguration = "/etc/ssh/ssh_config";
constexpr const char* kCiphersWithAES =
    "aes128-gcm@openssh.com,aes256-gcm@openssh.com,chacha20-poly1305@openssh.com,aes256-ctr,aes192-ctr,"
    "aes128-ctr";
constexpr const char* kCiphersWithoutAES =
    "chacha20-poly1305@openssh.com,aes128-gcm@openssh.com,aes256-gcm@openssh.com,aes256-ctr,aes192-ctr,"
    "aes128-ctr";

bool processorHasAES() {
#if defined(__x86_64__) || defined(__i386__)
  return __builtin_cpu_supports("aes") && __builtin_cpu_supports("pclmul");
#elif defined(__aarch64__)
  return (getauxval(AT_HWCAP) & (HWCAP_AES | HWCAP_PMULL)) == (HWCAP_AES | HWCAP_PMULL);
#else
  return false;
#endif
}

// As the front end's shell sees it; OpenSSH takes the account's, which is the same but for special set-ups.
std::string homeFolder() {
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] == '/') return home;
  const passwd* entry = getpwuid(getuid());
  return entry != nullptr && entry->pw_dir != nullptr ? entry->pw_dir : "/";
}

bool tellsTooMany(std::string_view greeting) {
  for (const std::string_view text : {"MaxStartups", "Not allowed at this time", "oo many"}) {
    if (greeting.find(text) != std::string_view::npos) return true;
  }
  return false;
}

}  // namespace

std::optional<SSHHostKey> describeSSHKey(ssh_key key) {
  SSHHostKey result;
  const char* type = ssh_key_type_to_char(ssh_key_type(key));
  if (type == nullptr) return std::nullopt;
  result.type = type;
  char* base64 = nullptr;
  if (ssh_pki_export_pubkey_base64(key, &base64) != SSH_OK) return std::nullopt;
  result.base64 = base64;
  ssh_string_free_char(base64);

  unsigned char* hash = nullptr;
  size_t length = 0;
  if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &length) != SSH_OK) return std::nullopt;
  char* text = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, length);
  ssh_clean_pubkey_hash(&hash);
  if (text == nullptr) return std::nullopt;
  result.fingerprint = text;
  ssh_string_free_char(text);
  return result;
}

SSHClient::SSHClient() : iSession(ssh_new()) {
  if (iSession == nullptr) throw std::bad_alloc();
}

SSHClient::~SSHClient() {
  // Without a farewell, which could wait for a peer that is gone: the end of the socket says the same.
  ssh_silent_disconnect(iSession);
  ssh_free(iSession);
}

std::string SSHClient::userFolder() { return homeFolder() + "/.ssh"; }

std::string SSHClient::lastWords() const { return ssh_get_error(iSession); }

NSErrorRef SSHClient::lostError() const {
  return QuarnKitError::errorWithCode(kQuarnKitConnectionLost, lastWords());
}

std::string SSHClient::optionText(enum ssh_options_e option) const {
  char* value = nullptr;
  if (ssh_options_get(iSession, option, &value) != SSH_OK || value == nullptr) return {};
  std::string text = value;
  ssh_string_free_char(value);
  return text;
}

bool SSHClient::configure(const SSHServerAddress& server, NSErrorRef* error) {
  const std::string folder = userFolder();
  ssh_options_set(iSession, SSH_OPTIONS_SSH_DIR, folder.c_str());
  bool configured = ssh_options_set(iSession, SSH_OPTIONS_HOST, server.host.c_str()) == SSH_OK;
  // Before the files are read, so that what the user wrote there comes after it and wins.
  setPreferences();
  configured = configured && parseConfiguration();
  // What the caller says explicitly wins over the files.
  if (configured && server.port != 0) {
    configured = ssh_options_set(iSession, SSH_OPTIONS_PORT, &server.port) == SSH_OK;
  }
  if (configured && !server.username.empty()) {
    configured = ssh_options_set(iSession, SSH_OPTIONS_USER, server.username.c_str()) == SSH_OK;
  }
  if (!configured) {
    storeError(error,
               QuarnKitError::errorWithCode(kQuarnKitCouldNotConnect, server.host + ": " + lastWords()));
    return false;
  }
  ssh_set_blocking(iSession, 0);
  iHost = optionText(SSH_OPTIONS_HOST);
  unsigned int port = 22;
  ssh_options_get_port(iSession, &port);
  iPort = static_cast<int>(port);
  const std::string proxy = optionText(SSH_OPTIONS_PROXYCOMMAND);
  iUsesProxy = !proxy.empty() && proxy != "none";
  return true;
}

void SSHClient::setPreferences() {
  const char* ciphers = processorHasAES() ? kCiphersWithAES : kCiphersWithoutAES;
  ssh_options_set(iSession, SSH_OPTIONS_CIPHERS_C_S, ciphers);
  ssh_options_set(iSession, SSH_OPTIONS_CIPHERS_S_C, ciphers);
  // Content is mostly compressed already, and compressing costs more than a fast line takes.
  ssh_options_set(iSession, SSH_OPTIONS_COMPRESSION, "no");
  const int one = 1;
  ssh_options_set(iSession, SSH_OPTIONS_NODELAY, &one);
}

bool SSHClient::parseConfiguration() {
  const std::string folder = userFolder();
  const std::string file = folder + "/config";
  // A file that is missing is no error to libssh, one that cannot be understood is.
  if (access(file.c_str(), R_OK) == 0 && ssh_options_parse_config(iSession, file.c_str()) != SSH_OK)
    return false;
  if (access(kSystemConfiguration, R_OK) == 0) ssh_options_parse_config(iSession, kSystemConfiguration);
  const bool again = false;
  ssh_options_set(iSession, SSH_OPTIONS_PROCESS_CONFIG, &again);

  iKnownHostsFile = optionText(SSH_OPTIONS_KNOWNHOSTS);
  if (iKnownHostsFile.empty() || iKnownHostsFile.find('%') != std::string::npos) {
    iKnownHostsFile = folder + "/known_hosts";
  }
  if (iKnownHostsFile.starts_with("~/")) iKnownHostsFile = homeFolder() + iKnownHostsFile.substr(1);
  ssh_options_set(iSession, SSH_OPTIONS_KNOWNHOSTS, iKnownHostsFile.c_str());
  iGlobalKnownHostsFile = optionText(SSH_OPTIONS_GLOBAL_KNOWNHOSTS);
  if (iGlobalKnownHostsFile.empty()) iGlobalKnownHostsFile = "/etc/ssh/ssh_known_hosts";
  return true;
}

bool SSHClient::connect(Clock::time_point deadline, NSErrorRef* error) {
  if (!iUsesProxy && !openSocket(deadline, error)) return false;
  return exchangeKeys(deadline, error);
}

bool SSHClient::openSocket(Clock::time_point deadline, NSErrorRef* error) {
  socket_t socket = connectTCP(iHost, iPort, deadline, iWakeUp, error);
  if (socket < 0) return false;
  if (!checkGreeting(socket, deadline, error)) {
    close(socket);
    return false;
  }
  // libssh closes it from its first step on.
  ssh_options_set(iSession, SSH_OPTIONS_FD, &socket);
  return true;
}

// Looks at the server's first words without taking them: libssh does not tell what stood there instead of a
// version.
bool SSHClient::checkGreeting(int socket, Clock::time_point deadline, NSErrorRef* error) {
  if (!waitForDescriptor(socket, POLLIN, deadline, iWakeUp)) {
    const QuarnKitErrorCode code = iWakeUp.isRaised() ? kQuarnKitConnectionLost : kQuarnKitCouldNotConnect;
    storeError(error, QuarnKitError::errorWithCode(code, iHost + ": no greeting"));
    return false;
  }
  char greeting[256];
  const ssize_t count = recv(socket, greeting, sizeof(greeting), MSG_PEEK);
  if (count <= 0) {
    // What a server does that drops connections at random while too many others log in.
    storeError(error, QuarnKitError::errorWithCode(
                          kQuarnKitConnectionLost, iHost + ": closed before the greeting",
                          count < 0 ? NSError::errorWithDomain(NSPOSIXErrorDomain, errno) : nullptr));
    return false;
  }
  const std::string_view text(greeting, static_cast<size_t>(count));
  if (text.starts_with("SSH-") || !tellsTooMany(text)) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitTooManyConnections,
                                                 text.substr(0, text.find_first_of("\r\n"))));
  return false;
}

bool SSHClient::exchangeKeys(Clock::time_point deadline, NSErrorRef* error) {
  const auto result = drive(SSH_AGAIN, deadline, error, [this] { return ssh_connect(iSession); });
  if (!result) return false;
  if (*result == SSH_OK) {
    // libssh made it blocking again; its writes follow a poll and take what the kernel has room for.
    const int socket = ssh_get_fd(iSession);
    fcntl(socket, F_SETFL, fcntl(socket, F_GETFL) | O_NONBLOCK);
    return true;
  }
  const std::string words = lastWords();
  const bool isMismatch =
      words.find("kex error") != std::string::npos || words.find("rotocol") != std::string::npos;
  const QuarnKitErrorCode code = isMismatch   ? kQuarnKitProtocolError
                                 : iUsesProxy ? kQuarnKitCouldNotConnect
                                              : kQuarnKitConnectionLost;
  storeError(error, QuarnKitError::errorWithCode(code, words));
  return false;
}

std::optional<SSHHostKey> SSHClient::serverKey() const {
  ssh_key key = nullptr;
  if (ssh_get_server_publickey(iSession, &key) != SSH_OK) return std::nullopt;
  const SSHKeyRef owner(key);
  return describeSSHKey(key);
}

bool SSHClient::waitForTraffic(Clock::time_point deadline, NSErrorRef* error) {
  const int socket = ssh_get_fd(iSession);
  const bool writes = (ssh_get_poll_flags(iSession) & SSH_WRITE_PENDING) != 0;
  const short events = static_cast<short>(POLLIN | (writes ? POLLOUT : 0));
  if (socket >= 0 && waitForDescriptor(socket, events, deadline, iWakeUp)) return true;
  if (iWakeUp.isRaised()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "interrupted"));
  } else if (socket < 0) {
    storeError(error, lostError());
  } else {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitTimedOut, iHost));
  }
  return false;
}

}  // namespace ombra
