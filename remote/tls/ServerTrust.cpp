#include "remote/tls/ServerTrust.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <array>
#include <exception>

#include "platform/foundation/Mutex.h"
#include "remote/QuarnKitError.h"
#include "remote/tls/CertificateCheck.h"
#include "remote/tls/DigestText.h"

namespace ombra {

namespace {

std::vector<std::string> splitAtBlanks(std::string_view text) {
  std::vector<std::string> words;
  while (!text.empty()) {
    const size_t end = std::min(text.find(' '), text.size());
    if (end > 0) words.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return words;
}

}  // namespace

std::string fingerprintOfCertificate(const x509_st* certificate) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (certificate == nullptr || X509_digest(certificate, EVP_sha256(), digest.data(), &length) != 1)
    return {};
  const std::string text = base64Text({digest.data(), length});
  return "SHA256:" + text.substr(0, text.find('='));
}

struct ServerTrust::State {
  State(const SessionEnvironment& environment, std::string name)
      : accepted(splitAtBlanks(environment.credentials->option("fingerprint").value_or(""))),
        host(std::move(name)),
        isWorthyTrust(environment.isWorthyTrust) {}

  // Judges the certificate of a handshake. No lock is held while others are asked.
  bool judge(x509_store_ctx_st* context) {
    const std::string fingerprint = fingerprintOfCertificate(X509_STORE_CTX_get0_cert(context));
    const std::string why = fingerprint.empty() ? "there is no certificate" : problem(context, fingerprint);
    NSErrorRef error;
    if (!why.empty()) {
      error = QuarnKitError::errorWithCode(kQuarnKitUntrusted,
                                           fmt::format("{}: certificate {}: {}", host, fingerprint, why));
    }
    MutexLock lock(lastLock);
    refusal = error;
    return error == nullptr;
  }

  // Why the certificate is not trusted; empty when it is.
  std::string problem(x509_store_ctx_st* context, const std::string& fingerprint) {
    if (!accepted.empty()) {
      const bool isAccepted = std::find(accepted.begin(), accepted.end(), fingerprint) != accepted.end();
      X509_STORE_CTX_set_error(context, isAccepted ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
      return isAccepted ? "" : "it is another one than the one that was accepted";
    }
    std::string why = problemOfCertificate(context, host);
    if (why.empty() && !isWorthy(fingerprint)) {
      X509_STORE_CTX_set_error(context, X509_V_ERR_APPLICATION_VERIFICATION);
      why = "it was not accepted";
    }
    return why;
  }

  // Asked once for each certificate: who answers is there for the login alone, and later connections of the
  // same session meet the same one. An exception must not pass through OpenSSL: it counts as a no.
  bool isWorthy(const std::string& fingerprint) {
    {
      MutexLock lock(lastLock);
      if (std::find(worthy.begin(), worthy.end(), fingerprint) != worthy.end()) return true;
    }
    try {
      if (!isWorthyTrust || !isWorthyTrust(fingerprint)) return false;
    } catch (const std::exception&) {
      return false;
    }
    MutexLock lock(lastLock);
    worthy.push_back(fingerprint);
    return true;
  }

  const std::vector<std::string> accepted;
  const std::string host;
  const std::function<bool(const std::string&)> isWorthyTrust;
  mutable Mutex lastLock;
  NSErrorRef refusal GUARDED_BY(lastLock);
  std::vector<std::string> worthy GUARDED_BY(lastLock);
};

namespace {

template <typename State>
int verifyCertificate(X509_STORE_CTX* context, void* argument) {
  return static_cast<State*>(argument)->judge(context) ? 1 : 0;
}

}  // namespace

ServerTrust::ServerTrust(const SessionEnvironment& environment, std::string host)
    : iState(std::make_unique<State>(environment, std::move(host))) {}

ServerTrust::~ServerTrust() = default;

void ServerTrust::installInto(ssl_ctx_st* context) {
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(context, verifyCertificate<State>, iState.get());
  if (iState->accepted.empty()) useSystemAuthorities(context);
}

NSErrorRef ServerTrust::refusal() const {
  MutexLock lock(iState->lastLock);
  return iState->refusal;
}

}  // namespace ombra
