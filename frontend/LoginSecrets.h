// What a login needs beyond a name, gathered before the helper starts: the helper cannot ask.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "frontend/Failure.h"
#include "frontend/Output.h"
#include "frontend/SavedSecrets.h"
#include "frontend/TerminalPrompt.h"
#include "remote/KCCredentials.h"

namespace ombra {

struct LoginOptions {
  std::optional<std::string> identity;  // a private key's file
  std::optional<std::string> passwordFile;
  bool askPassword = false;
  bool save = false;  // keep in the keyring what was given
};

// What else this user could log in with.
struct LoginSurroundings {
  std::string homeFolder;
  std::string agentSocket;         // empty = none
  std::string configuredIdentity;  // a key file that the configuration names; empty = none

  static LoginSurroundings ofThisProcess();
};

// Where secrets come from that the options do not name.
struct SecretSources {
  TerminalPrompt* prompt;  // null when nobody can be asked
  const Output& output;
  SavedSecrets& saved;
};

// Adds password, key and passphrase to the credentials of an SFTP login. A password is asked for only when
// the options say so, or when there is no key, no agent with keys and no password, neither here nor in the
// keyring. False with the failure filled.
bool gatherLoginSecrets(const LoginOptions& options, const LoginSurroundings& surroundings,
                        const SecretSources& sources, KCCredentials* credentials, Failure* failure);

// Adds the password of a login that knows nothing else: the file's, else the one that is there, else the
// keyring's, else one that is asked for where somebody can be, and where `isWorthAsking` says so, which fills
// the failure else. Without any, the login is tried without. False with the failure filled.
bool gatherPassword(const LoginOptions& options, const SecretSources& sources,
                    const std::function<bool(Failure*)>& isWorthAsking, KCCredentials* credentials,
                    Failure* failure);

// Asks for the password of these credentials; false when no answer came, or nobody can be asked.
bool askForPassword(const SecretSources& sources, KCCredentials* credentials);
// The same for the passphrase of the key that they name. An empty answer is none: the agent may hold the key.
bool askForPassphrase(const SecretSources& sources, KCCredentials* credentials);

}  // namespace ombra
