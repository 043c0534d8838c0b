#include "frontend/CertificateTrust.h"

#include <fmt/format.h>

#include <algorithm>

#include "frontend/Explain.h"

namespace ombra {

namespace {

constexpr std::chrono::seconds kCertificateLimit{15};

std::string nameOfServer(const TLSServerAddress& server) {
  return inQuotes(fmt::format("{}:{}", server.host, server.port));
}

std::string joined(const std::vector<std::string>& texts) {
  std::string result;
  for (const std::string& text : texts) result += (result.empty() ? "" : ", ") + text;
  return result;
}

// What the certificate says of itself, a line each, for a person.
std::string details(const ServerCertificate& certificate) {
  const auto line = [](const char* title, const std::string& text) {
    return fmt::format("  {:<12} {}\n", title, text.empty() ? "(none)" : printable(text));
  };
  return line("Subject:", certificate.subject) + line("For:", joined(certificate.names)) +
         line("Issuer:", certificate.issuer) +
         line("Valid:", certificate.validFrom + " to " + certificate.validUntil) +
         line("Fingerprint:", certificate.fingerprint);
}

std::string trustQuestion(const TLSServerAddress& server, const ServerCertificate& certificate) {
  return fmt::format(
      "No authority of this machine vouches for the certificate of the server {}: {}.\n{}"
      "Compare the fingerprint with what the server's administrator tells you.\n"
      "Trust this certificate and remember it? [yes/no] ",
      nameOfServer(server), printable(certificate.problem), details(certificate));
}

Failure changedCertificate(const TLSServerAddress& server, const ServerCertificate& certificate,
                           const KnownCertificates& known, int line) {
  return {
      kExitHostKey,
      fmt::format("The certificate of the server {} has changed; somebody may be listening in.",
                  nameOfServer(server)),
      fmt::format("It shows {}, issued by {} ({}), but {}, line {} holds another.", certificate.fingerprint,
                  inQuotes(certificate.issuer), certificate.problem, known.file(), line),
      "If the server has a new certificate, ask its administrator for the fingerprint and remove that line."};
}

Failure certificateNotAccepted(const TLSServerAddress& server, const ServerCertificate& certificate,
                               bool asked) {
  return {
      kExitHostKey,
      fmt::format("No authority of this machine vouches for the certificate of the server {}.",
                  nameOfServer(server)),
      fmt::format("{} It is {} by {}, valid from {} to {}; its fingerprint is {}{}.",
                  sentence(certificate.problem), inQuotes(certificate.subject), inQuotes(certificate.issuer),
                  certificate.validFrom, certificate.validUntil, certificate.fingerprint,
                  asked ? ", and you did not accept it" : ", and there is no terminal to ask at"),
      "Compare the fingerprint with the administrator's, then run the command with --accept-new, or at a "
      "terminal."};
}

std::optional<CertificateDecision> acceptCertificate(const TLSServerAddress& server,
                                                     const ServerCertificate& certificate,
                                                     const HostKeyPolicy& policy,
                                                     const CertificateServices& services, Failure* failure) {
  if (!policy.acceptNew) {
    const bool canAsk = static_cast<bool>(policy.ask);
    const auto answer = canAsk ? policy.ask(trustQuestion(server, certificate)) : std::nullopt;
    if (answer != "yes" && answer != "y" && answer != certificate.fingerprint) {
      *failure = certificateNotAccepted(server, certificate, canAsk);
      return std::nullopt;
    }
  }
  CertificateDecision decision{certificate.fingerprint, {}};
  NSErrorRef error;
  if (!services.known.remember(server.host, server.port, certificate.fingerprint, &error)) {
    decision.remark =
        fmt::format("The certificate of {} is trusted this time, but could not be remembered: {}",
                    nameOfServer(server), error ? error->localizedDescription() : services.known.file());
  } else if (policy.acceptNew) {
    decision.remark =
        fmt::format("Remembered the certificate of {}: {}", nameOfServer(server), certificate.fingerprint);
  }
  return decision;
}

std::string fingerprintsOf(const std::vector<KnownCertificate>& entries) {
  std::string result;
  for (const KnownCertificate& entry : entries) result += (result.empty() ? "" : " ") + entry.fingerprint;
  return result;
}

}  // namespace

CertificateServices CertificateServices::real() {
  return {[](const TLSServerAddress& server, NSErrorRef* error) {
            return probeServerCertificate(server, kCertificateLimit, error);
          },
          KnownCertificates::ofThisUser()};
}

std::optional<CertificateDecision> decideCertificateTrust(const TLSServerAddress& server,
                                                          const HostKeyPolicy& policy,
                                                          const CertificateServices& services,
                                                          Failure* failure) {
  const auto entries = services.known.entries(server.host, server.port);
  if (!entries.empty() && !policy.lookAgain) return CertificateDecision{fingerprintsOf(entries), {}};
  NSErrorRef error;
  const auto certificate = services.probe(server, &error);
  if (!certificate) {
    *failure =
        explainError(error, {.address = server.host, .port = server.port, .protocol = server.protocol});
    return std::nullopt;
  }
  if (certificate->problem.empty()) return CertificateDecision{};
  const bool isKnown = std::any_of(entries.begin(), entries.end(), [&](const KnownCertificate& entry) {
    return entry.fingerprint == certificate->fingerprint;
  });
  if (isKnown) return CertificateDecision{certificate->fingerprint, {}};
  if (entries.empty()) return acceptCertificate(server, *certificate, policy, services, failure);
  *failure = changedCertificate(server, *certificate, services.known, entries.front().line);
  return std::nullopt;
}

}  // namespace ombra
