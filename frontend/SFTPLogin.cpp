// SFTP: host keys and all the ways to log in that SSH has.
#include "frontend/HostKeyTrust.h"
#include "frontend/LoginSecrets.h"
#include "frontend/MountCommon.h"
#include "frontend/ProtocolLogin.h"
#include "remote/sftp/SSHConfiguration.h"

namespace ombra {

namespace {

class SFTPLogin final : public ProtocolLogin {
 public:
  explicit SFTPLogin(const LoginTools& tools) : ProtocolLogin(tools) {}

  bool prepare(Failure* failure) override {
    KCCredentials& credentials = iTools.credentials;
    const SSHConfiguration configuration = readSSHConfiguration(server());
    if (!credentials.username()) {
      credentials.setUsername(configuration.username.empty() ? currentUserName() : configuration.username);
    }
    LoginSurroundings surroundings = LoginSurroundings::ofThisProcess();
    surroundings.configuredIdentity = configuration.identityFile;
    return settleTrust(false, failure) && gatherLoginSecrets(iTools.options.login, surroundings,
                                                             iTools.secretSources(), &credentials, failure);
  }

 private:
  SSHServerAddress server() const {
    const KCCredentials& credentials = iTools.credentials;
    return {credentials.address(), credentials.port(), credentials.username().value_or("")};
  }

  bool settleTrust(bool lookAgain, Failure* failure) override {
    const auto decision =
        decideHostKeyTrust(server(), trustPolicy(lookAgain), HostKeyServices::real(), failure);
    if (!decision) return false;
    if (!decision->remark.empty()) iTools.output.warning(decision->remark);
    iTools.credentials.setOption("fingerprint", decision->fingerprints);
    return true;
  }

  bool askAgain() override { return askForPassword(iTools.secretSources(), &iTools.credentials); }

  bool askInsteadOfSaved(SavedSecrets::Kind refused) override {
    return refused == SavedSecrets::Kind::kPassword
               ? askAgain()
               : askForPassphrase(iTools.secretSources(), &iTools.credentials);
  }
};

}  // namespace

std::unique_ptr<ProtocolLogin> makeSFTPLogin(const LoginTools& tools) {
  return std::make_unique<SFTPLogin>(tools);
}

}  // namespace ombra
