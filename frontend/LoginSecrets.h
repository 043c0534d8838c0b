// What a login needs beyond a name, gathered before the helper starts: the helper cannot ask.
#pragma once

#include <optional>
#include <string>

#include "frontend/Failure.h"
#include "frontend/Output.h"
#include "frontend/TerminalPrompt.h"
#include "remote/KCCredentials.h"

namespace ombra {

struct LoginOptions {
  std::optional<std::string> identity;  // a private key's file
  std::optional<std::string> passwordFile;
  bool askPassword = false;
};

// What else this user could log in with.
struct LoginSurroundings {
  std::string homeFolder;
  std::string agentSocket;         // empty = none
  std::string configuredIdentity;  // a key file that the configuration names; empty = none

  static LoginSurroundings ofThisProcess();
};

// Adds password, key and passphrase to the credentials of an SFTP login. A password is asked for only when
// the options say so, or when there is no key, no agent with keys and no password. `prompt` may be null: then
// nobody is asked. False with the failure filled.
bool gatherLoginSecrets(const LoginOptions& options, const LoginSurroundings& surroundings,
                        TerminalPrompt* prompt, const Output& output, KCCredentials* credentials,
                        Failure* failure);

// Adds the password of a login that knows nothing else: the file's, else the one that is there, else one that
// is asked for where somebody can be. Without any, the login is tried without. False with the failure filled.
bool gatherPassword(const LoginOptions& options, TerminalPrompt* prompt, const Output& output,
                    KCCredentials* credentials, Failure* failure);

// Asks for the password of these credentials; false when no answer came.
bool askForPassword(TerminalPrompt& prompt, KCCredentials* credentials);

}  // namespace ombra
