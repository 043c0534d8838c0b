#include "frontend/CertificateProbe.h"

#include "frontend/FTPUpgrade.h"
#include "frontend/HTTPSProxy.h"
#include "frontend/UniqueFd.h"
#include "remote/KCTypes.h"
#include "remote/net/TCPConnector.h"

namespace ombra {

namespace {

bool speaksHTTPS(uint32_t protocol) { return protocol == kProtocolWebDAVTLS || protocol == kProtocolS3; }

}  // namespace

std::optional<ServerCertificate> probeServerCertificate(const TLSServerAddress& server,
                                                        std::chrono::milliseconds limit, NSErrorRef* error) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  const WakeUp never;
  const UniqueFd socket = speaksHTTPS(server.protocol)
                              ? connectForHTTPS(server.host, server.port, deadline, error)
                              : UniqueFd(connectTCP(server.host, server.port, deadline, never, error));
  if (!socket) return std::nullopt;
  if (server.protocol == kProtocolFTPExplicitTLS && !upgradeFTP(socket.get(), deadline, error))
    return std::nullopt;
  return readServerCertificate(socket.get(), server.host, deadline, error);
}

}  // namespace ombra
