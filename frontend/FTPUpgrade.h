// The few lines of FTP before TLS begins on a control connection.
#pragma once

#include <chrono>

#include "platform/foundation/NSError.h"

namespace ombra {

// Waits for the greeting of the server at the other end of a connected, non-blocking socket and asks for TLS.
// True when the next bytes in both directions are those of a TLS handshake. Else the error is filled:
// kQuarnKitNotSupported when the server has no TLS, kQuarnKitTooManyConnections when it is full, or what
// befell the connection; with the server's words.
[[nodiscard]] bool upgradeFTP(int socket, std::chrono::steady_clock::time_point deadline, NSErrorRef* error);

}  // namespace ombra
