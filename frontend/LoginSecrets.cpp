#include "frontend/LoginSecrets.h"

#include <fmt/format.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "frontend/PasswordFile.h"
#include "frontend/PrivateKeys.h"
#include "frontend/Volumes.h"
#include "platform/foundation/NSUnarchiver.h"

namespace ombra {

namespace {

constexpr std::chrono::seconds kAgentLimit{2};

std::string expandedHome(const std::string& path, const std::string& home) {
  return path.starts_with("~/") ? home + path.substr(1) : path;
}

// The key's file and, when it is locked, its passphrase. With no answer the key is still named: the agent may
// hold it.
bool useIdentity(const std::string& path, TerminalPrompt* prompt, KCCredentials* credentials,
                 Failure* failure) {
  const PrivateKeyKind kind = kindOfPrivateKey(path);
  if (kind == PrivateKeyKind::kUnreadable || kind == PrivateKeyKind::kNotAKey) {
    *failure = {kExitUsage, fmt::format("The key file {} cannot be used.", inQuotes(path)),
                kind == PrivateKeyKind::kUnreadable ? "It is missing or may not be read."
                                                    : "It holds no private key.",
                "Name the private key, not the one that ends in .pub."};
    return false;
  }
  credentials->setOption("identityFile", path);
  if (kind == PrivateKeyKind::kPlain) return true;
  // With a key that is locked, the secret in the password file is what opens it.
  if (credentials->password()) {
    credentials->setOption("passphrase", *credentials->password());
    return true;
  }
  if (prompt == nullptr) return true;
  auto passphrase = prompt->secret(fmt::format("Passphrase of {}: ", inQuotes(path)));
  if (!passphrase) {
    *failure = {kExitLoginRefused, "No passphrase was given.", "", "Try again."};
    return false;
  }
  if (!passphrase->empty()) credentials->setOption("passphrase", *passphrase);
  wipe(*passphrase);
  return true;
}

bool usePasswordFile(const std::string& path, const Output& output, KCCredentials* credentials,
                     Failure* failure) {
  std::string warning;
  auto password = readPasswordFile(path, &warning, failure);
  if (!warning.empty()) output.warning(warning);
  if (!password) return false;
  credentials->setPassword(*password);
  wipe(*password);
  return true;
}

bool hasKeys(const LoginSurroundings& surroundings) {
  const PrivateKeyKind configured = kindOfPrivateKey(surroundings.configuredIdentity);
  return configured == PrivateKeyKind::kPlain || agentHasKeys(surroundings.agentSocket, kAgentLimit) ||
         !defaultPrivateKeys(surroundings.homeFolder).empty();
}

bool askWhereNeeded(const LoginOptions& options, bool needed, TerminalPrompt* prompt,
                    KCCredentials* credentials, Failure* failure) {
  if (options.askPassword && prompt == nullptr) {
    *failure = {kExitUsage, "There is no terminal to ask for the password at.", "", "Use --password-file."};
    return false;
  }
  if (prompt == nullptr || !(options.askPassword || needed)) return true;
  if (askForPassword(*prompt, credentials)) return true;
  *failure = {kExitLoginRefused, "No password was given.", "", "Try again, or use --password-file."};
  return false;
}

}  // namespace

LoginSurroundings LoginSurroundings::ofThisProcess() {
  const char* home = std::getenv("HOME");
  const char* agent = std::getenv("SSH_AUTH_SOCK");
  LoginSurroundings result{home == nullptr ? "" : home, agent == nullptr ? "" : agent, ""};
  if (result.homeFolder.empty()) {
    const passwd* user = getpwuid(geteuid());
    if (user != nullptr) result.homeFolder = user->pw_dir;
  }
  return result;
}

bool gatherLoginSecrets(const LoginOptions& options, const LoginSurroundings& surroundings,
                        TerminalPrompt* prompt, const Output& output, KCCredentials* credentials,
                        Failure* failure) {
  if (options.passwordFile && !usePasswordFile(*options.passwordFile, output, credentials, failure))
    return false;
  if (options.identity) {
    const std::string path =
        absolutePath(expandedHome(*options.identity, surroundings.homeFolder), currentFolder());
    if (!useIdentity(path, prompt, credentials, failure)) return false;
  }
  const bool needed = !credentials->password() && !options.identity && !hasKeys(surroundings);
  return askWhereNeeded(options, needed, prompt, credentials, failure);
}

bool gatherPassword(const LoginOptions& options, TerminalPrompt* prompt, const Output& output,
                    KCCredentials* credentials, Failure* failure) {
  if (options.passwordFile && !usePasswordFile(*options.passwordFile, output, credentials, failure))
    return false;
  return askWhereNeeded(options, !credentials->password(), prompt, credentials, failure);
}

bool askForPassword(TerminalPrompt& prompt, KCCredentials* credentials) {
  const std::string who = credentials->username() ? *credentials->username() + "@" + credentials->address()
                                                  : credentials->address();
  auto password = prompt.secret(fmt::format("Password of {}: ", inQuotes(who)));
  if (!password) return false;
  credentials->setPassword(*password);
  wipe(*password);
  return true;
}

}  // namespace ombra
