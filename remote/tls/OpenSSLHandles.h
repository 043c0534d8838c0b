// Owners of OpenSSL's objects, and its texts.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <memory>
#include <string>

namespace ombra {

struct OpenSSLDeleter {
  void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  void operator()(SSL* connection) const { SSL_free(connection); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(BIO* stream) const { BIO_free_all(stream); }
};

using SSLContextHandle = std::unique_ptr<SSL_CTX, OpenSSLDeleter>;
using SSLHandle = std::unique_ptr<SSL, OpenSSLDeleter>;
using CertificateHandle = std::unique_ptr<X509, OpenSSLDeleter>;
using BIOHandle = std::unique_ptr<BIO, OpenSSLDeleter>;

// What the library's queue of errors on this thread says first, in words; the queue is empty afterwards.
std::string takeOpenSSLError();

}  // namespace ombra
