// TLS of one session: its control connection and the data connections that belong to it.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "remote/Session.h"
#include "remote/tls/OpenSSLHandles.h"
#include "remote/tls/ServerTrust.h"

namespace ombra {

// The certificate of the control connection is judged by ServerTrust. A data connection resumes the TLS
// session of the control connection, as many servers demand; where it does not come to that, it must show the
// same certificate. Of one thread.
class FTPEncryption {
 public:
  FTPEncryption(const SessionEnvironment& environment, std::string host);
  FTPEncryption(const FTPEncryption&) = delete;
  FTPEncryption& operator=(const FTPEncryption&) = delete;

  // A client's end over that socket, the handshake not yet begun. Null when the library fails.
  SSLHandle forControl(int socket);
  SSLHandle forData(int socket);
  // The handshake of the control connection is done.
  void noteControl(SSL* tls);
  // Why the control connection's certificate was refused; null when it was not.
  NSErrorRef refusal() const { return iTrust.refusal(); }
  // What there is to resume is about to expire: a new session is better.
  bool isStale() const;

 private:
  struct SessionDeleter {
    void operator()(SSL_SESSION* session) const { SSL_SESSION_free(session); }
  };
  static int takeSession(SSL* tls, SSL_SESSION* session);
  static int checkDataCertificate(X509_STORE_CTX* context, void* argument);
  SSLHandle make(SSL_CTX* context, int socket) const;

  const std::string iHost;
  ServerTrust iTrust;  // outlives the contexts
  SSLContextHandle iControlContext;
  SSLContextHandle iDataContext;
  std::string iFingerprint;  // of the control connection's certificate
  std::unique_ptr<SSL_SESSION, SessionDeleter> iSession;
};

}  // namespace ombra
