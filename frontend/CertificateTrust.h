// Whether a TLS server may be trusted, decided before it is given any credentials.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "frontend/CertificateProbe.h"
#include "frontend/Failure.h"
#include "frontend/HostKeyTrust.h"
#include "frontend/KnownCertificates.h"

namespace ombra {

// Where knowledge of certificates comes from; the real one unless a test gives its own.
struct CertificateServices {
  std::function<std::optional<ServerCertificate>(const TLSServerAddress&, NSErrorRef*)> probe;
  KnownCertificates known;

  static CertificateServices real();
};

struct CertificateDecision {
  // What the server must show, separated by blanks. Empty: whatever this machine's authorities vouch for.
  std::string fingerprints;
  std::string remark;  // something the user should know; empty when there is nothing
};

// The decision for a server. One whose certificate was accepted before costs no connection, unless the policy
// says to look again. What the authorities vouch for is trusted, whatever was accepted before; a certificate
// that they do not vouch for is asked about, or refused when another one was accepted before. Absent, with
// the failure filled, when the server may not be trusted, was not accepted, or could not be reached.
std::optional<CertificateDecision> decideCertificateTrust(const TLSServerAddress& server,
                                                          const HostKeyPolicy& policy,
                                                          const CertificateServices& services,
                                                          Failure* failure);

}  // namespace ombra
