// Whether a server's certificate may be trusted.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/NSError.h"
#include "remote/Session.h"

struct ssl_ctx_st;
struct x509_st;

namespace ombra {

// "SHA256:" and the base64 form, without padding, of the digest over the certificate's DER bytes: written as
// SSH writes fingerprints of host keys.
std::string fingerprintOfCertificate(const x509_st* certificate);

// The check of one server's certificate during a TLS handshake. With the credentials' option "fingerprint"
// the certificate must be one of those and nothing else is looked at. Without it, the certificate must be
// good in the eyes of this machine's authorities for the host that was asked for, and the environment's
// isWorthyTrust must agree. Outlives the context that it was installed into.
class ServerTrust {
 public:
  // `host`: name or address as the user wrote it, without brackets.
  ServerTrust(const SessionEnvironment& environment, std::string host);
  ~ServerTrust();
  ServerTrust(const ServerTrust&) = delete;
  ServerTrust& operator=(const ServerTrust&) = delete;

  // Makes handshakes of this context fail unless the certificate is trusted: replaces the context's own
  // verification, loads the authorities where they are needed, asks for TLS 1.2 or later.
  void installInto(ssl_ctx_st* context);
  // Why the last handshake was refused, in words and with the fingerprint seen; null when it was not for
  // this.
  NSErrorRef refusal() const;

 private:
  struct State;
  std::unique_ptr<State> iState;
};

}  // namespace ombra
