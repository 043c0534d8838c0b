// Logging in to an SSH server.
#pragma once

#include "remote/KCCredentials.h"
#include "remote/sftp/SSHClient.h"

namespace ombra {

// Tries what the credentials hold, strongest hint of the user's intent first: the named key file, the
// password (as such or as the answer to the server's questions), then the agent and the user's own key files.
// A server may ask for several in turn. True when logged in; else kQuarnKitLoginFailed with what the server
// offers and why each way failed, or the error of a lost connection. Secrets are neither copied for long nor
// named anywhere.
[[nodiscard]] bool authenticateSSH(SSHClient& client, const KCCredentials& credentials,
                                   SSHClient::Clock::time_point deadline, NSErrorRef* error);

}  // namespace ombra
