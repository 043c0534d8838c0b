#include "frontend/ServerReach.h"

#include <cstdlib>

#include "frontend/Explain.h"
#include "frontend/UniqueFd.h"
#include "remote/KCTypes.h"
#include "remote/net/TCPConnector.h"

namespace ombra {

namespace {

constexpr std::chrono::seconds kLimit{15};

// The variables that requests without TLS heed.
bool hasProxy() {
  for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return true;
  }
  return false;
}

bool speaksHTTP(uint32_t protocol) { return protocol == kProtocolWebDAV || protocol == kProtocolS3; }

}  // namespace

bool checkServerIsThere(const std::string& host, int port, uint32_t protocol, Failure* failure) {
  if (speaksHTTP(protocol) && hasProxy()) return true;
  NSErrorRef error;
  const WakeUp never;
  const UniqueFd socket(connectTCP(host, port, std::chrono::steady_clock::now() + kLimit, never, &error));
  if (socket) return true;
  *failure = explainError(error, {.address = host, .port = port, .protocol = protocol});
  return false;
}

}  // namespace ombra
