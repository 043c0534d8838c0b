#include "remote/ftp/FTPEncryption.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "remote/tls/CertificateCheck.h"

namespace ombra {

namespace {

// What is written may lie elsewhere when it is tried again, and parts of it may go ahead.
constexpr long kWriteMode = SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER;

}  // namespace

FTPEncryption::FTPEncryption(const SessionEnvironment& environment, std::string host)
    : iHost(std::move(host)),
      iTrust(environment, iHost),
      iControlContext(SSL_CTX_new(TLS_client_method())),
      iDataContext(SSL_CTX_new(TLS_client_method())) {
  if (iControlContext == nullptr || iDataContext == nullptr) return;
  iTrust.installInto(iControlContext.get());
  SSL_CTX_set_min_proto_version(iDataContext.get(), TLS1_2_VERSION);
  SSL_CTX_set_verify(iDataContext.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(iDataContext.get(), checkDataCertificate, this);
  for (SSL_CTX* context : {iControlContext.get(), iDataContext.get()}) SSL_CTX_set_mode(context, kWriteMode);
  SSL_CTX_set_session_cache_mode(iControlContext.get(), SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
  SSL_CTX_sess_set_new_cb(iControlContext.get(), takeSession);
}

// With TLS 1.3 sessions come after the handshake. Those of data connections are left alone: some servers take
// none but the control connection's.
int FTPEncryption::takeSession(SSL* tls, SSL_SESSION* session) {
  auto* self = static_cast<FTPEncryption*>(SSL_get_app_data(tls));
  if (self == nullptr) return 0;
  self->iSession.reset(session);
  return 1;
}

int FTPEncryption::checkDataCertificate(X509_STORE_CTX* context, void* argument) {
  const auto* self = static_cast<FTPEncryption*>(argument);
  const std::string seen = fingerprintOfCertificate(X509_STORE_CTX_get0_cert(context));
  const bool isSame = !seen.empty() && seen == self->iFingerprint;
  X509_STORE_CTX_set_error(context, isSame ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
  return isSame ? 1 : 0;
}

SSLHandle FTPEncryption::make(SSL_CTX* context, int socket) const {
  SSLHandle tls(context != nullptr ? SSL_new(context) : nullptr);
  if (tls == nullptr || SSL_set_fd(tls.get(), socket) != 1) return nullptr;
  SSL_set_app_data(tls.get(), const_cast<FTPEncryption*>(this));
  if (!isNetworkAddress(iHost)) SSL_set_tlsext_host_name(tls.get(), iHost.c_str());
  SSL_set_connect_state(tls.get());
  return tls;
}

SSLHandle FTPEncryption::forControl(int socket) { return make(iControlContext.get(), socket); }

SSLHandle FTPEncryption::forData(int socket) {
  SSLHandle tls = make(iDataContext.get(), socket);
  if (tls != nullptr && iSession != nullptr) SSL_set_session(tls.get(), iSession.get());
  return tls;
}

void FTPEncryption::noteControl(SSL* tls) {
  iFingerprint = fingerprintOfCertificate(SSL_get0_peer_certificate(tls));
}

bool FTPEncryption::isStale() const {
  constexpr int64_t kMargin = 30;  // seconds
  if (iSession == nullptr) return false;
  int64_t lifetime = static_cast<int64_t>(SSL_SESSION_get_timeout(iSession.get()));
  if (SSL_SESSION_has_ticket(iSession.get()) == 1) {
    const auto hint = static_cast<int64_t>(SSL_SESSION_get_ticket_lifetime_hint(iSession.get()));
    if (hint > 0) lifetime = std::min(lifetime, hint);
  }
  const auto age =
      static_cast<int64_t>(std::time(nullptr)) - static_cast<int64_t>(SSL_SESSION_get_time(iSession.get()));
  return age > lifetime - std::min(kMargin, lifetime / 2);
}

}  // namespace ombra
