// A look at a server's certificate, as a client that is about to log in would get it.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/foundation/NSError.h"
#include "remote/tls/ServerCertificate.h"

namespace ombra {

struct TLSServerAddress {
  std::string host;  // name or address, no brackets
  int port = 0;
  uint32_t protocol = 0;  // FTP with explicit TLS is asked for TLS first; all others speak it from the start
};

// Connects, where the environment names a proxy for HTTPS through that, has the server show its certificate
// and disconnects: no name, no password, no request. Blocks for at most `limit`. Absent, with the error
// filled, when none was seen; kQuarnKitNotSupported when an FTP server has no TLS.
std::optional<ServerCertificate> probeServerCertificate(const TLSServerAddress& server,
                                                        std::chrono::milliseconds limit, NSErrorRef* error);

}  // namespace ombra
