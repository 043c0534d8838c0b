// FTP and WebDAV: a certificate where TLS is spoken, then a name and a password, or neither.
#include <fmt/format.h>

#include "frontend/LoginSecrets.h"
#include "frontend/MountCommon.h"
#include "frontend/ProtocolLogin.h"
#include "frontend/ServerReach.h"
#include "platform/foundation/ASCII.h"
#include "platform/foundation/NSUnarchiver.h"
#include "remote/KCTypes.h"
#include "remote/net/LoopbackName.h"

namespace ombra {

namespace {

// What FTP servers expect of those who have no account.
constexpr const char* kAnonymous = "anonymous";
constexpr const char* kAnonymousPassword = "anonymous@";

bool speaksTLS(uint32_t protocol) {
  return protocol == kProtocolFTPImplicitTLS || protocol == kProtocolFTPExplicitTLS ||
         protocol == kProtocolWebDAVTLS;
}

bool isFTP(uint32_t protocol) {
  return protocol == kProtocolFTP || protocol == kProtocolFTPImplicitTLS ||
         protocol == kProtocolFTPExplicitTLS;
}

class ServerLogin final : public ProtocolLogin {
 public:
  explicit ServerLogin(const LoginTools& tools) : ProtocolLogin(tools) {}

  bool prepare(Failure* failure) override {
    if (speaksTLS(protocol()) && !settleTrust(false, failure)) return false;
    const bool isAnonymous = !iTools.credentials.username() && !wantsPassword();
    if (isAnonymous) {
      if (isFTP(protocol())) logInAnonymously();
      return true;
    }
    if (!iTools.credentials.username()) iTools.credentials.setUsername(currentUserName());
    warnOfReadableSecrets();
    // Where TLS is spoken, the look at the certificate has shown that the server is there.
    const auto isWorthAsking = [this](Failure* why) {
      return speaksTLS(protocol()) || checkServerIsThere(iTools.url.host, port(), protocol(), why);
    };
    return gatherPassword(iTools.options.login, iTools.secretSources(), isWorthAsking, &iTools.credentials,
                          failure);
  }

 private:
  uint32_t protocol() const { return iTools.url.protocol; }
  int port() const { return iTools.url.port != 0 ? iTools.url.port : defaultPortOfProtocol(protocol()); }

  bool wantsPassword() const {
    return iTools.options.login.askPassword || iTools.options.login.passwordFile.has_value();
  }

  void logInAnonymously() {
    iTools.credentials.setUsername(kAnonymous);
    iTools.credentials.setPassword(kAnonymousPassword);
    iIsAnonymous = true;
  }

  void warnOfReadableSecrets() const {
    if (speaksTLS(protocol()) || isLoopbackName(lowercasedASCII(iTools.url.host))) return;
    iTools.output.warning(fmt::format(
        "With {}:// the password and all files can be read on their way; use {}:// where the server "
        "offers it.",
        iTools.url.scheme, isFTP(protocol()) ? "ftpes" : "davs"));
  }

  bool settleTrust(bool lookAgain, Failure* failure) override {
    return settleCertificate({iTools.url.host, port(), protocol()}, trustPolicy(lookAgain), iTools, failure);
  }

  bool askAgain() override {
    if (iIsAnonymous || !iTools.credentials.username()) {
      auto name = iTools.prompt->line(fmt::format("User name at {}: ", inQuotes(iTools.url.host)));
      if (!name || name->empty()) return false;
      iTools.credentials.setUsername(std::move(*name));
      warnOfReadableSecrets();
    }
    return askForPassword(iTools.secretSources(), &iTools.credentials);
  }

  bool iIsAnonymous = false;
};

}  // namespace

std::unique_ptr<ProtocolLogin> makeServerLogin(const LoginTools& tools) {
  return std::make_unique<ServerLogin>(tools);
}

}  // namespace ombra
