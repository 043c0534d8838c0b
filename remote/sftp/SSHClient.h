// One SSH connection up to the key exchange, made with libssh.
#pragma once

#include <libssh/libssh.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "remote/net/WakeUp.h"
#include "remote/sftp/SSHHostKeys.h"

namespace ombra {

struct SSHKeyDeleter {
  void operator()(ssh_key key) const { ssh_key_free(key); }
};
using SSHKeyRef = std::unique_ptr<std::remove_pointer_t<ssh_key>, SSHKeyDeleter>;

// The type, fingerprint and text of a public key; absent when libssh cannot tell them.
std::optional<SSHHostKey> describeSSHKey(ssh_key key);

// Owns a libssh session in non-blocking mode. One thread at a time, except `wakeUp().raise()`.
class SSHClient {
 public:
  using Clock = std::chrono::steady_clock;

  SSHClient();
  ~SSHClient();
  SSHClient(const SSHClient&) = delete;
  SSHClient& operator=(const SSHClient&) = delete;

  // Takes the address and what the configuration files say about it; no traffic.
  [[nodiscard]] bool configure(const SSHServerAddress& server, NSErrorRef* error);
  // After `configure`: where the connection goes to.
  const std::string& host() const { return iHost; }
  int port() const { return iPort; }
  // The user's known_hosts file.
  const std::string& knownHostsFile() const { return iKnownHostsFile; }
  const std::string& globalKnownHostsFile() const { return iGlobalKnownHostsFile; }
  // The folder of the user's SSH files.
  static std::string userFolder();

  // Connects, through the configured proxy where there is one, and exchanges keys.
  [[nodiscard]] bool connect(Clock::time_point deadline, NSErrorRef* error);
  // The key that the server has proved to own. After `connect`.
  std::optional<SSHHostKey> serverKey() const;

  // Calls `call` until it answers something else than `again`, waiting for the network in between. The last
  // answer; absent, with the error filled, at the deadline or when woken.
  template <typename Call>
  std::optional<int> drive(int again, Clock::time_point deadline, NSErrorRef* error, Call call) {
    while (true) {
      const int result = call();
      if (result != again) return result;
      if (!waitForTraffic(deadline, error)) return std::nullopt;
    }
  }

  ssh_session session() const { return iSession; }
  WakeUp& wakeUp() { return iWakeUp; }
  // What libssh says of the last failure.
  std::string lastWords() const;
  // The error of a connection that ended, with libssh's words.
  NSErrorRef lostError() const;

 private:
  bool parseConfiguration();
  void setPreferences();
  std::string optionText(enum ssh_options_e option) const;
  bool openSocket(Clock::time_point deadline, NSErrorRef* error);
  bool checkGreeting(int socket, Clock::time_point deadline, NSErrorRef* error);
  bool exchangeKeys(Clock::time_point deadline, NSErrorRef* error);
  bool waitForTraffic(Clock::time_point deadline, NSErrorRef* error);

  const ssh_session iSession;
  WakeUp iWakeUp;
  std::string iHost;
  int iPort = 22;
  bool iUsesProxy = false;
  std::string iKnownHostsFile;
  std::string iGlobalKnownHostsFile;
};

}  // namespace ombra
