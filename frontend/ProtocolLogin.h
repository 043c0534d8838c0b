// What each protocol needs before the helper starts, and after a failed attempt.
#pragma once

#include <memory>

#include "frontend/CertificateTrust.h"
#include "frontend/Commands.h"
#include "frontend/LoginSecrets.h"
#include "frontend/MountVolume.h"
#include "frontend/Output.h"
#include "frontend/RemoteURL.h"
#include "frontend/TerminalPrompt.h"
#include "remote/KCCredentials.h"

namespace ombra {

// What a login works with; all of it outlives the login.
struct LoginTools {
  const RemoteURL& url;
  MountOptions& options;  // a volume's name may be put in
  const Output& output;
  TerminalPrompt* prompt;  // null when nobody can be asked
  KCCredentials& credentials;
  SavedSecrets& saved;

  SecretSources secretSources() const { return {prompt, output, saved}; }
};

class ProtocolLogin {
 public:
  static std::unique_ptr<ProtocolLogin> forURL(const LoginTools& tools);
  virtual ~ProtocolLogin() = default;

  // Completes the credentials. Trust comes first: nothing secret is asked for, let alone sent, before the
  // server is known. False with the failure filled.
  [[nodiscard]] virtual bool prepare(Failure* failure) = 0;
  // After a failed attempt: true for another one, with other credentials; false with the failure to tell in
  // the result. Once each: a server whose key or certificate is not the known one is looked at to tell what
  // is wrong with it, and a refused login is tried again with a password where somebody can be asked. A
  // secret from the keyring that was refused does not count as asked.
  bool retry(MountResult* result);

 protected:
  explicit ProtocolLogin(const LoginTools& tools) : iTools(tools) {}
  // Decides about the server, with `lookAgain` by its own showing.
  virtual bool settleTrust(bool /*lookAgain*/, Failure* /*failure*/) { return false; }
  // Puts another login into the credentials by asking; only called when there is a prompt.
  virtual bool askAgain() { return false; }
  // The same when what the keyring had was refused.
  virtual bool askInsteadOfSaved(SavedSecrets::Kind /*refused*/) { return askAgain(); }
  // How unknown servers are dealt with.
  HostKeyPolicy trustPolicy(bool lookAgain) const;

  const LoginTools iTools;

 private:
  bool retryRefused(MountResult* result);

  bool iLookedAgain = false;
  bool iAskedAgain = false;
};

// The makers, a file each.
std::unique_ptr<ProtocolLogin> makeFileLogin(const LoginTools& tools);
std::unique_ptr<ProtocolLogin> makeSFTPLogin(const LoginTools& tools);
std::unique_ptr<ProtocolLogin> makeServerLogin(const LoginTools& tools);  // FTP and WebDAV
std::unique_ptr<ProtocolLogin> makeS3Login(const LoginTools& tools);

// Refuses options that have no meaning for that URL.
bool checkOptionsForURL(const MountOptions& options, const RemoteURL& url, Failure* failure);

// Decides about a TLS server and puts the fingerprints that it must show into the credentials.
bool settleCertificate(const TLSServerAddress& server, const HostKeyPolicy& policy, const LoginTools& tools,
                       Failure* failure);

}  // namespace ombra
