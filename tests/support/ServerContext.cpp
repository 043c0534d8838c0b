#include "tests/support/ServerContext.h"

#include <openssl/pem.h>

namespace ombra {

SSLContextHandle serverContextWith(const TestCertificate& certificate) {
  SSLContextHandle context(SSL_CTX_new(TLS_server_method()));
  const BIOHandle pem(BIO_new_mem_buf(certificate.pem.data(), static_cast<int>(certificate.pem.size())));
  const BIOHandle keyPEM(BIO_new_mem_buf(certificate.key.data(), static_cast<int>(certificate.key.size())));
  const CertificateHandle shown(PEM_read_bio_X509(pem.get(), nullptr, nullptr, nullptr));
  EVP_PKEY* key = PEM_read_bio_PrivateKey(keyPEM.get(), nullptr, nullptr, nullptr);
  SSL_CTX_use_certificate(context.get(), shown.get());
  SSL_CTX_use_PrivateKey(context.get(), key);
  EVP_PKEY_free(key);
  return context;
}

}  // namespace ombra
