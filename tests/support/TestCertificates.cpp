#include "tests/support/TestCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <memory>
#include <stdexcept>

namespace ombra {

namespace {

struct CertificatePartDeleter {
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(BIO* stream) const { BIO_free(stream); }
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
template <typename T>
using CertificatePart = std::unique_ptr<T, CertificatePartDeleter>;

void demand(bool done, const char* what) {
  if (!done) throw std::runtime_error(std::string("The test's certificate: ") + what);
}

std::string textOf(BIO* stream) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(stream, &bytes);
  return {bytes, static_cast<size_t>(length)};
}

CertificatePart<X509> parsedCertificate(const std::string& pem) {
  const CertificatePart<BIO> stream(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return CertificatePart<X509>(PEM_read_bio_X509(stream.get(), nullptr, nullptr, nullptr));
}

CertificatePart<EVP_PKEY> parsedKey(const std::string& pem) {
  const CertificatePart<BIO> stream(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  return CertificatePart<EVP_PKEY>(PEM_read_bio_PrivateKey(stream.get(), nullptr, nullptr, nullptr));
}

void addExtension(X509* certificate, X509* issuer, int kind, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const CertificatePart<X509_EXTENSION> extension(
      X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  demand(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1, value.c_str());
}

void fill(X509* certificate, const CertificateWish& wish, EVP_PKEY* key) {
  static std::atomic<long> sSerial{1};
  constexpr long kDay = 24 * 60 * 60;
  X509_set_version(certificate, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), sSerial++);
  X509_gmtime_adj(X509_getm_notBefore(certificate), wish.firstDay * kDay);
  X509_gmtime_adj(X509_getm_notAfter(certificate), wish.lastDay * kDay);
  demand(X509_set_pubkey(certificate, key) == 1, "public key");
  demand(X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(wish.commonName.c_str()), -1, -1,
                                    0) == 1,
         "name");
}

void addExtensions(X509* certificate, X509* issuer, const CertificateWish& wish) {
  addExtension(certificate, issuer, NID_basic_constraints,
               wish.isAuthority ? "critical,CA:TRUE" : "CA:FALSE");
  std::string names;
  for (const std::string& name : wish.names) names += (names.empty() ? "" : ",") + name;
  if (!names.empty()) addExtension(certificate, issuer, NID_subject_alt_name, names);
}

std::string fingerprintOf(X509* certificate) {
  unsigned char* der = nullptr;
  const int length = i2d_X509(certificate, &der);
  demand(length > 0, "encoding");
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(der, static_cast<size_t>(length), digest);
  OPENSSL_free(der);
  char text[4 * ((SHA256_DIGEST_LENGTH + 2) / 3) + 1];
  EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text), digest, SHA256_DIGEST_LENGTH);
  std::string result = std::string("SHA256:") + text;
  while (result.back() == '=') result.pop_back();
  return result;
}

}  // namespace

TestCertificate makeTestCertificate(const CertificateWish& wish, const TestCertificate* issuer) {
  const CertificatePart<EVP_PKEY> key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
  const CertificatePart<X509> certificate(X509_new());
  demand(key != nullptr && certificate != nullptr, "key");
  fill(certificate.get(), wish, key.get());
  const CertificatePart<X509> authority = issuer == nullptr ? nullptr : parsedCertificate(issuer->pem);
  const CertificatePart<EVP_PKEY> authorityKey = issuer == nullptr ? nullptr : parsedKey(issuer->key);
  X509* const signer = authority ? authority.get() : certificate.get();
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(signer));
  addExtensions(certificate.get(), signer, wish);
  demand(X509_sign(certificate.get(), authorityKey ? authorityKey.get() : key.get(), EVP_sha256()) > 0,
         "signature");
  const CertificatePart<BIO> pem(BIO_new(BIO_s_mem()));
  const CertificatePart<BIO> keyPEM(BIO_new(BIO_s_mem()));
  demand(PEM_write_bio_X509(pem.get(), certificate.get()) == 1, "writing");
  demand(PEM_write_bio_PrivateKey(keyPEM.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1,
         "writing");
  return {textOf(pem.get()), textOf(keyPEM.get()), fingerprintOf(certificate.get())};
}

TestCertificate makeLocalhostCertificate(const TestCertificate* issuer) {
  return makeTestCertificate({.commonName = "localhost",
                              .names = {"DNS:localhost", "IP:127.0.0.1", "IP:::1"},
                              .firstDay = -1,
                              .lastDay = 30,
                              .isAuthority = false},
                             issuer);
}

}  // namespace ombra
