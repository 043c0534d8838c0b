// What the configuration files of SSH say about a login.
#pragma once

#include <string>

#include "remote/sftp/SSHHostKeys.h"

namespace ombra {

struct SSHConfiguration {
  std::string username;      // empty when neither the address nor the files name one
  std::string identityFile;  // the first key file that the files name; empty when they name none
};

// Reads ~/.ssh/config and the system's file for this server; no traffic. Files that cannot be read or
// understood count as empty.
SSHConfiguration readSSHConfiguration(const SSHServerAddress& server);

}  // namespace ombra
