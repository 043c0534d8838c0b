// A TLS handshake between both ends within one thread.
#pragma once

#include <string>

#include "remote/tls/ServerTrust.h"
#include "tests/support/TestCertificates.h"

namespace ombra {

struct HandshakeResult {
  bool done = false;        // both ends finished
  std::string serverError;  // what the server's end says went wrong
  std::string version;      // "TLSv1.3", …; of the client's end
};

struct HandshakeServer {
  TestCertificate certificate;
  int newestVersion = 0;  // TLS1_2_VERSION, …; 0 = whatever the library offers
};

// A client whose context `trust` was installed into, against a server with that certificate.
HandshakeResult shakeHands(ServerTrust& trust, const HandshakeServer& server);

}  // namespace ombra
