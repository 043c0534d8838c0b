// Which ways to log in without a password this user has.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace ombra {

enum class PrivateKeyKind {
  kUnreadable,  // missing, not a file, or not readable
  kNotAKey,     // a file that holds no private key (a public key, for example)
  kPlain,
  kEncrypted,  // needs a passphrase
};

// Looks at the first 16 KiB of a key file in one of the PEM forms that ssh-keygen writes.
PrivateKeyKind kindOfPrivateKey(const std::string& path);

// The files ~/.ssh/id_… that SSH tries by itself, as far as they can be read.
std::vector<std::string> defaultPrivateKeys(const std::string& homeFolder);

// True when an SSH agent at that socket holds at least one key. Waits at most `limit`. False for an empty
// path.
bool agentHasKeys(const std::string& socketPath, std::chrono::milliseconds limit);

}  // namespace ombra
