// Whether a server may be trusted, decided before it is given any credentials.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "frontend/Failure.h"
#include "remote/sftp/SSHHostKeys.h"

namespace ombra {

// Where knowledge of host keys comes from; the real one unless a test gives its own.
struct HostKeyServices {
  std::function<std::string(const SSHServerAddress&)> knownFingerprints;
  std::function<std::optional<SSHHostKeyProbe>(const SSHServerAddress&, NSErrorRef*)> probe;
  std::function<bool(const SSHServerAddress&, const SSHHostKey&, NSErrorRef*)> remember;

  static HostKeyServices real();
};

struct HostKeyPolicy {
  bool acceptNew = false;  // an unknown key is accepted without asking
  // Looks at the server even when it is known: after it was refused for showing another key than it should.
  bool lookAgain = false;
  // Puts a question to the person at the terminal; absent answer = none was given. Empty = nobody can be
  // asked.
  std::function<std::optional<std::string>(const std::string& question)> ask;
};

struct HostKeyDecision {
  std::string fingerprints;  // what the server must show, separated by blanks
  std::string remark;        // something the user should know; empty when there is nothing
};

// The decision for a server. A host in known_hosts costs no connection. Absent, with the failure filled, when
// it may not be trusted, was not accepted, or could not be reached.
std::optional<HostKeyDecision> decideHostKeyTrust(const SSHServerAddress& server, const HostKeyPolicy& policy,
                                                  const HostKeyServices& services, Failure* failure);

}  // namespace ombra
