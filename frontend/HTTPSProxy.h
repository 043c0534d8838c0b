// The way to HTTPS servers through a proxy that the environment names.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "frontend/UniqueFd.h"
#include "platform/foundation/NSError.h"

namespace ombra {

// A proxy for HTTP, which opens tunnels (RFC 9110, section 9.3.6).
struct HTTPSProxy {
  std::string host;  // no brackets
  int port = 0;
  std::string authorization;  // the value of "Proxy-Authorization"; empty when the proxy asks for nothing

  // The one for requests to that host over TLS, as libcurl finds it: in "https_proxy" or "all_proxy", in
  // lower or upper case, unless "no_proxy" has the host. Absent when there is none, or one of another kind
  // (SOCKS).
  static std::optional<HTTPSProxy> forHost(const std::string& host);
};

// A connected, non-blocking socket to a server for HTTPS, through the proxy for it where there is one: the
// next bytes in both directions are those of TLS. Blocks until the deadline at most. Empty with the error
// filled: could not resolve, could not connect (with the proxy's words), connection lost, timed out.
UniqueFd connectForHTTPS(const std::string& host, int port, std::chrono::steady_clock::time_point deadline,
                         NSErrorRef* error);

}  // namespace ombra
