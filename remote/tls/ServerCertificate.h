// The certificate of a TLS server, for whoever decides about trust before a session is made.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "platform/foundation/NSError.h"

namespace ombra {

// What a server showed. All but the fingerprint and the problem is the server's own text: fit it for a
// terminal before it is shown.
struct ServerCertificate {
  std::string fingerprint;         // as fingerprintOfCertificate
  std::string subject;             // "CN=files.example, O=Example"
  std::string issuer;              // the same; equal to the subject when it signed itself
  std::vector<std::string> names;  // the host names and addresses it is meant for
  std::string validFrom;           // "2024-05-14 09:30 UTC"
  std::string validUntil;
  std::string problem;  // why this machine's authorities do not vouch for it; empty when they do
};

// Shakes hands as a client over a connected, non-blocking socket and says goodbye: nothing else is sent. The
// socket stays the caller's, good for nothing but closing. Absent, with the error filled (connection lost,
// timed out, protocol), when the handshake does not come to its end.
std::optional<ServerCertificate> readServerCertificate(int socket, const std::string& host,
                                                       std::chrono::steady_clock::time_point deadline,
                                                       NSErrorRef* error);

}  // namespace ombra
