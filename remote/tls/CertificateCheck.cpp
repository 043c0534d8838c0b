#include "remote/tls/CertificateCheck.h"

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <array>

namespace ombra {

namespace {

// As a certificate writes it: no zone behind an address, no dot behind a name.
std::string nameInCertificate(const std::string& host) {
  std::string name = host.substr(0, host.find('%'));
  if (name.size() > 1 && name.back() == '.') name.pop_back();
  return name;
}

bool expectHost(X509_VERIFY_PARAM* parameters, const std::string& host) {
  const std::string name = nameInCertificate(host);
  // No name is no restriction to OpenSSL.
  if (name.empty()) return false;
  if (isNetworkAddress(name)) return X509_VERIFY_PARAM_set1_ip_asc(parameters, name.c_str()) == 1;
  X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
  return X509_VERIFY_PARAM_set1_host(parameters, name.data(), name.size()) == 1;
}

}  // namespace

bool isNetworkAddress(const std::string& host) {
  const std::string name = nameInCertificate(host);
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return inet_pton(AF_INET, name.c_str(), address.data()) == 1 ||
         inet_pton(AF_INET6, name.c_str(), address.data()) == 1;
}

void useSystemAuthorities(ssl_ctx_st* context) {
  // Without a single authority every certificate is unknown: nothing to report here.
  SSL_CTX_set_default_verify_paths(context);
}

std::string problemOfCertificate(x509_store_ctx_st* context, const std::string& host) {
  if (!expectHost(X509_STORE_CTX_get0_param(context), host)) {
    X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
    return "the server has no name that a certificate could be checked for";
  }
  const int result = X509_verify_cert(context);
  if (result == 1) return {};
  const int number = X509_STORE_CTX_get_error(context);
  // The check itself may fail before it finds anything: then nothing vouches for the certificate either.
  if (number != X509_V_OK) return X509_verify_cert_error_string(number);
  X509_STORE_CTX_set_error(context, X509_V_ERR_UNSPECIFIED);
  return "it could not be checked";
}

}  // namespace ombra
