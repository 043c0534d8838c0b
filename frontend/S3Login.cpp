// S3: a key and its secret for a server that an endpoint names, or for Amazon's.
#include <fmt/format.h>

#include "frontend/LoginSecrets.h"
#include "frontend/ProtocolLogin.h"
#include "frontend/S3Settings.h"
#include "frontend/ServerReach.h"
#include "remote/KCTypes.h"

namespace ombra {

namespace {

class S3Login final : public ProtocolLogin {
 public:
  explicit S3Login(const LoginTools& tools) : ProtocolLogin(tools) {}

  bool prepare(Failure* failure) override {
    auto settings = settleS3(iTools.url, iTools.options.s3, S3Surroundings::ofThisProcess(), failure);
    if (!settings) return false;
    iSettings = std::move(*settings);
    putIntoCredentials();
    if (!settleTrust(false, failure)) return false;
    if (isAnonymous()) return true;
    if (iSettings.secret) {
      iTools.credentials.setPassword(*iSettings.secret);
      // What the environment and files keep already is not kept a second time.
      if (iTools.url.password) iTools.saved.wasGiven(SavedSecrets::Kind::kPassword);
      return true;
    }
    const auto isWorthAsking = [this](Failure* why) {
      return !iSettings.endpoint || iSettings.isEncrypted ||
             checkServerIsThere(iSettings.address, iSettings.port, kProtocolS3, why);
    };
    if (!gatherPassword(iTools.options.login, iTools.secretSources(), isWorthAsking, &iTools.credentials,
                        failure))
      return false;
    return iTools.credentials.password() || noSecret(failure);
  }

 private:
  bool isAnonymous() const { return iSettings.accessKey.empty(); }

  void putIntoCredentials() {
    KCCredentials& credentials = iTools.credentials;
    const RemoteURL& url = iTools.url;
    credentials.setAddress(iSettings.address);
    credentials.setPort(iSettings.port);
    credentials.setUsername(isAnonymous() ? std::nullopt : std::optional(iSettings.accessKey));
    credentials.setPassword(std::nullopt);
    const std::string below = url.path && *url.path != "/" ? *url.path : "";
    credentials.setInitialPath("/" + url.host + below);
    if (iSettings.region) credentials.setOption("region", *iSettings.region);
    if (iSettings.endpoint) credentials.setOption("endpoint", *iSettings.endpoint);
    if (iSettings.pathStyle) credentials.setOption("pathStyle", *iSettings.pathStyle ? "1" : "0");
    if (iSettings.sessionToken) credentials.setOption("sessionToken", *iSettings.sessionToken);
    if (!iTools.options.volume.name && !url.host.empty()) iTools.options.volume.name = url.host;
  }

  // Amazon's hosts differ from bucket to bucket, and all have certificates that authorities vouch for.
  bool settleTrust(bool lookAgain, Failure* failure) override {
    if (!iSettings.endpoint || !iSettings.isEncrypted) return !lookAgain;
    return settleCertificate({iSettings.address, iSettings.port, kProtocolS3}, trustPolicy(lookAgain), iTools,
                             failure);
  }

  bool noSecret(Failure* failure) const {
    *failure = {kExitLoginRefused,
                fmt::format("The secret of the access key {} is missing.", inQuotes(iSettings.accessKey)), "",
                "Use --password-file, or run the command at a terminal to be asked for it."};
    return false;
  }

  bool askAgain() override {
    return !isAnonymous() && askForPassword(iTools.secretSources(), &iTools.credentials);
  }

  S3Settings iSettings;
};

}  // namespace

std::unique_ptr<ProtocolLogin> makeS3Login(const LoginTools& tools) {
  return std::make_unique<S3Login>(tools);
}

}  // namespace ombra
