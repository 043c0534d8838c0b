// Host keys of SSH servers, for whoever decides about trust before a session is made.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

namespace ombra {

// A server as the user names it. `host` may be an alias of ~/.ssh/config, whose HostName, Port, User,
// ProxyJump, ProxyCommand, UserKnownHostsFile and HostKeyAlias are honoured. What is given here wins over the
// file.
struct SSHServerAddress {
  std::string host;
  int port = 0;          // 0 = the file's, else 22
  std::string username;  // empty = the file's, else the user of this process; only proxies care
};

// A public host key.
struct SSHHostKey {
  std::string type;         // "ssh-ed25519", "ecdsa-sha2-nistp256", "ssh-rsa", …
  std::string fingerprint;  // "SHA256:…" without padding, as ssh-keygen -lf prints it
  std::string base64;       // the key itself, as it stands in a known_hosts file
  bool operator==(const SSHHostKey&) const = default;
};

// A line of a known_hosts file that names a host.
struct SSHKnownHostEntry {
  SSHHostKey key;
  std::string file;
  int line = 0;          // counted from 1
  bool revoked = false;  // marked @revoked: a server with this key must be refused
};

enum class SSHHostKeyStatus {
  kKnown,    // a known_hosts entry of this host holds exactly this key
  kUnknown,  // no known_hosts file has a key of this type for this host
  kChanged,  // entries of this host hold another key of this type: `conflict` says where
  kRevoked,  // this very key is marked as revoked: `conflict` says where
};

// What a server showed, and what the known_hosts files say about it.
struct SSHHostKeyProbe {
  SSHHostKeyStatus status = SSHHostKeyStatus::kUnknown;
  SSHHostKey key;
  std::optional<SSHKnownHostEntry> conflict;  // for kChanged and kRevoked
  std::vector<SSHKnownHostEntry> known;       // all entries of this host
  std::string knownHostsName;  // the host as known_hosts files write it: "name" or "[name]:port"
};

// Connects, takes the server's key from the key exchange and disconnects before any login. Blocks for at most
// `limit`. Absent, with the error filled (could not resolve, could not connect, protocol), when no key was
// seen.
std::optional<SSHHostKeyProbe> probeSSHHostKey(const SSHServerAddress& server,
                                               std::chrono::milliseconds limit, NSErrorRef* error);

// The entries of this host in the user's and the global known_hosts files, hashed ones included; no traffic.
// Revoked ones are among them; certificate authorities are not. Unreadable files count as empty.
std::vector<SSHKnownHostEntry> knownSSHHostKeys(const SSHServerAddress& server);

// The fingerprints of all entries that may be trusted, separated by blanks: the form of the credentials'
// option "fingerprint". Empty when the host is unknown.
std::string knownSSHFingerprints(const SSHServerAddress& server);

// Appends an accepted key to the user's known_hosts file (made with its folder, modes 0600 and 0700, when it
// is missing). A key that stands there already is not added again. False, with the error filled, when it
// cannot be written.
[[nodiscard]] bool rememberSSHHostKey(const SSHServerAddress& server, const SSHHostKey& key,
                                      NSErrorRef* error);

}  // namespace ombra
