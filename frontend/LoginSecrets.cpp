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
bool useIdentity(const std::string& path, const SecretSources& sources, KCCredentials* credentials,
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
    sources.saved.wasGiven(SavedSecrets::Kind::kPassphrase);
    return true;
  }
  if (sources.saved.use(SavedSecrets::Kind::kPassphrase, credentials) || sources.prompt == nullptr)
    return true;
  if (askForPassphrase(sources, credentials)) return true;
  *failure = {kExitLoginRefused, "No passphrase was given.", "", "Try again."};
  return false;
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

bool askWhereNeeded(const LoginOptions& options, bool needed, const SecretSources& sources,
                    KCCredentials* credentials, Failure* failure) {
  if (options.askPassword && sources.prompt == nullptr) {
    *failure = {kExitUsage, "There is no terminal to ask for the password at.", "", "Use --password-file."};
    return false;
  }
  if (sources.prompt == nullptr || !(options.askPassword || needed)) return true;
  if (askForPassword(sources, credentials)) return true;
  *failure = {kExitLoginRefused, "No password was given.", "", "Try again, or use --password-file."};
  return false;
}

// The password that is there already, else the keyring's, unless another one is wanted. True when there is
// one.
bool hasPassword(const LoginOptions& options, const SecretSources& sources, KCCredentials* credentials) {
  if (credentials->password()) {
    sources.saved.wasGiven(SavedSecrets::Kind::kPassword);
    return true;
  }
  return !options.askPassword && sources.saved.use(SavedSecrets::Kind::kPassword, credentials);
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
                        const SecretSources& sources, KCCredentials* credentials, Failure* failure) {
  if (options.passwordFile && !usePasswordFile(*options.passwordFile, sources.output, credentials, failure))
    return false;
  if (options.identity) {
    const std::string path =
        absolutePath(expandedHome(*options.identity, surroundings.homeFolder), currentFolder());
    return useIdentity(path, sources, credentials, failure) &&
           askWhereNeeded(options, false, sources, credentials, failure);
  }
  const bool needed = !hasPassword(options, sources, credentials) && !hasKeys(surroundings);
  return askWhereNeeded(options, needed, sources, credentials, failure);
}

bool gatherPassword(const LoginOptions& options, const SecretSources& sources,
                    const std::function<bool(Failure*)>& isWorthAsking, KCCredentials* credentials,
                    Failure* failure) {
  if (options.passwordFile && !usePasswordFile(*options.passwordFile, sources.output, credentials, failure))
    return false;
  const bool needed = !hasPassword(options, sources, credentials);
  const bool willAsk = sources.prompt != nullptr && (needed || options.askPassword);
  if (willAsk && !isWorthAsking(failure)) return false;
  return askWhereNeeded(options, needed, sources, credentials, failure);
}

bool askForPassword(const SecretSources& sources, KCCredentials* credentials) {
  if (sources.prompt == nullptr) return false;
  const std::string who = credentials->username() ? *credentials->username() + "@" + credentials->address()
                                                  : credentials->address();
  auto password = sources.prompt->secret(fmt::format("Password of {}: ", inQuotes(who)));
  if (!password) return false;
  credentials->setPassword(*password);
  wipe(*password);
  sources.saved.wasGiven(SavedSecrets::Kind::kPassword);
  return true;
}

bool askForPassphrase(const SecretSources& sources, KCCredentials* credentials) {
  if (sources.prompt == nullptr) return false;
  const std::string file = credentials->option("identityFile").value_or("");
  auto passphrase = sources.prompt->secret(fmt::format("Passphrase of {}: ", inQuotes(file)));
  if (!passphrase) return false;
  if (!passphrase->empty()) {
    credentials->setOption("passphrase", *passphrase);
    sources.saved.wasGiven(SavedSecrets::Kind::kPassphrase);
  }
  wipe(*passphrase);
  return true;
}

}  // namespace ombra
