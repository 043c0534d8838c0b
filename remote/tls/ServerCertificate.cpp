#include "remote/tls/ServerCertificate.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <openssl/err.h>
#include <openssl/sslerr.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <memory>

#include "remote/QuarnKitError.h"
#include "remote/tls/CertificateCheck.h"
#include "remote/tls/OpenSSLHandles.h"
#include "remote/tls/ServerTrust.h"

namespace ombra {

namespace {

using SteadyClock = std::chrono::steady_clock;

// A certificate may list names without end; more than these tell a person nothing.
constexpr int kMostNames = 20;

struct NamesDeleter {
  void operator()(GENERAL_NAMES* names) const { GENERAL_NAMES_free(names); }
};

std::string textOf(BIO* stream) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(stream, &bytes);
  return length > 0 ? std::string(bytes, static_cast<size_t>(length)) : std::string();
}

std::string textOfName(const X509_NAME* name) {
  const BIOHandle stream(BIO_new(BIO_s_mem()));
  // As it reads in UTF-8, the most particular part first.
  X509_NAME_print_ex(stream.get(), name, 0,
                     (XN_FLAG_ONELINE | XN_FLAG_DN_REV) & ~ASN1_STRFLGS_ESC_MSB & ~XN_FLAG_SPC_EQ);
  return textOf(stream.get());
}

std::string textOfTime(const ASN1_TIME* time) {
  std::tm parts{};
  if (ASN1_TIME_to_tm(time, &parts) != 1) return "an unreadable date";
  return fmt::format("{:04}-{:02}-{:02} {:02}:{:02} UTC", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min);
}

std::string textOfAddress(const ASN1_OCTET_STRING* address) {
  std::array<char, INET6_ADDRSTRLEN> text{};
  const int length = ASN1_STRING_length(address);
  if (length != 4 && length != 16) return {};
  const int family = length == 4 ? AF_INET : AF_INET6;
  return inet_ntop(family, ASN1_STRING_get0_data(address), text.data(), text.size()) == nullptr ? ""
                                                                                                : text.data();
}

std::string textOfGeneralName(const GENERAL_NAME* name) {
  if (name->type == GEN_IPADD) return textOfAddress(name->d.iPAddress);
  if (name->type != GEN_DNS) return {};
  return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName)),
          static_cast<size_t>(ASN1_STRING_length(name->d.dNSName))};
}

std::vector<std::string> namesIn(const X509* certificate) {
  const std::unique_ptr<GENERAL_NAMES, NamesDeleter> names(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  std::vector<std::string> result;
  const int count = names == nullptr ? 0 : std::min(sk_GENERAL_NAME_num(names.get()), kMostNames);
  for (int i = 0; i < count; ++i) {
    std::string text = textOfGeneralName(sk_GENERAL_NAME_value(names.get(), i));
    if (!text.empty()) result.push_back(std::move(text));
  }
  return result;
}

ServerCertificate describe(const X509* certificate) {
  ServerCertificate result;
  result.fingerprint = fingerprintOfCertificate(certificate);
  result.subject = textOfName(X509_get_subject_name(certificate));
  result.issuer = textOfName(X509_get_issuer_name(certificate));
  result.names = namesIn(certificate);
  result.validFrom = textOfTime(X509_get0_notBefore(certificate));
  result.validUntil = textOfTime(X509_get0_notAfter(certificate));
  return result;
}

// One look at a server: takes what the server shows as it comes and lets every certificate pass.
struct Look {
  const std::string host;
  std::optional<ServerCertificate> seen;

  static int verify(X509_STORE_CTX* context, void* argument) {
    auto& look = *static_cast<Look*>(argument);
    const X509* certificate = X509_STORE_CTX_get0_cert(context);
    if (certificate == nullptr) return 0;
    look.seen = describe(certificate);
    look.seen->problem = problemOfCertificate(context, look.host);
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
  }
};

bool fail(NSErrorRef* error, QuarnKitErrorCode code, const std::string& detail) {
  storeError(error, QuarnKitError::errorWithCode(code, detail));
  return false;
}

bool waitFor(int socket, short events, SteadyClock::time_point deadline) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now());
    pollfd descriptor{socket, events, 0};
    const int ready = poll(&descriptor, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
    if (ready < 0 && errno == EINTR) continue;
    return ready > 0;
  }
}

bool shakeHands(SSL* connection, int socket, SteadyClock::time_point deadline, NSErrorRef* error) {
  while (true) {
    ERR_clear_error();
    const int result = SSL_connect(connection);
    if (result == 1) return true;
    const int reason = SSL_get_error(connection, result);
    if (reason != SSL_ERROR_WANT_READ && reason != SSL_ERROR_WANT_WRITE) {
      const bool hasEnded = ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
      const std::string words = takeOpenSSLError();
      if (words.empty() || hasEnded) return fail(error, kQuarnKitConnectionLost, "during the TLS handshake");
      return fail(error, kQuarnKitProtocolError, "TLS handshake: " + words);
    }
    if (!waitFor(socket, reason == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT, deadline))
      return fail(error, kQuarnKitTimedOut, "during the TLS handshake");
  }
}

SSLContextHandle contextFor(Look* look) {
  SSLContextHandle context(SSL_CTX_new(TLS_client_method()));
  if (!context) return nullptr;
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_cert_verify_callback(context.get(), Look::verify, look);
  useSystemAuthorities(context.get());
  return context;
}

}  // namespace

std::optional<ServerCertificate> readServerCertificate(int socket, const std::string& host,
                                                       SteadyClock::time_point deadline, NSErrorRef* error) {
  Look look{host, std::nullopt};
  const SSLContextHandle context = contextFor(&look);
  const SSLHandle connection(context ? SSL_new(context.get()) : nullptr);
  if (!connection || SSL_set_fd(connection.get(), socket) != 1) {
    fail(error, kQuarnKitProtocolError, takeOpenSSLError());
    return std::nullopt;
  }
  if (!isNetworkAddress(host)) SSL_set_tlsext_host_name(connection.get(), host.c_str());
  // Only the end of the handshake proves that the server has the key to what it showed.
  if (!shakeHands(connection.get(), socket, deadline, error)) return std::nullopt;
  SSL_shutdown(connection.get());
  if (!look.seen) fail(error, kQuarnKitProtocolError, "the server showed no certificate");
  return look.seen;
}

}  // namespace ombra
