// The known_hosts files of OpenSSH.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "remote/sftp/SSHHostKeys.h"

namespace ombra {

// The host as these files write it: "name", or "[name]:port" for a port other than 22.
std::string knownHostsName(const std::string& host, int port);
// The entries of `name` in one file: plain, with patterns, or hashed. Lines that cannot be read and
// certificate authorities are left out. A missing file has none.
std::vector<SSHKnownHostEntry> knownHostsEntries(const std::string& file, const std::string& name);
// What the entries of a host say about a key that it shows.
SSHHostKeyStatus judgeHostKey(const std::vector<SSHKnownHostEntry>& entries, const SSHHostKey& key,
                              std::optional<SSHKnownHostEntry>* conflict);

}  // namespace ombra
