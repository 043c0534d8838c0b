// Whether the authorities of this machine vouch for a certificate.
#pragma once

#include <string>

struct ssl_ctx_st;
struct x509_store_ctx_st;

namespace ombra {

// Gives a context the authorities of this machine (those of OpenSSL; the environment's SSL_CERT_FILE and
// SSL_CERT_DIR replace them). They are read when a certificate is checked, one by one.
void useSystemAuthorities(ssl_ctx_st* context);

// True for an IPv4 or IPv6 address, with or without a zone: no server name that a handshake could ask for.
bool isNetworkAddress(const std::string& host);

// Within a certificate-verify callback: checks the chain that the server sent, its dates, and that it is
// meant for `host` (a name, or an address without brackets). Empty when all is well, else why not in a few
// words.
std::string problemOfCertificate(x509_store_ctx_st* context, const std::string& host);

}  // namespace ombra
