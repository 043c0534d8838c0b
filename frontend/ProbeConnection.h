// Plain text over a connection that TLS is to take over.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "platform/foundation/NSError.h"
#include "remote/QuarnKitError.h"

namespace ombra {

// A connected, non-blocking socket, which stays the caller's. Each call blocks until the deadline at most;
// where it fails, the error is filled: kQuarnKitConnectionLost or kQuarnKitTimedOut.
class ProbeConnection {
 public:
  // `peer` names the other end in errors: "the FTP server".
  ProbeConnection(int socket, std::string peer, std::chrono::steady_clock::time_point deadline,
                  NSErrorRef* error)
      : iSocket(socket), iPeer(std::move(peer)), iDeadline(deadline), iError(error) {}

  // Byte by byte: what follows the last line belongs to TLS. `line`: what came before it, for the error.
  std::optional<char> readByte(const std::string& line);
  [[nodiscard]] bool send(std::string_view text);

 private:
  // After a call that gave nothing: waits until it is worth another try. Looks at errno.
  bool mayGoOn(short events);
  bool fail(QuarnKitErrorCode code, const std::string& detail);

  const int iSocket;
  const std::string iPeer;
  const std::chrono::steady_clock::time_point iDeadline;
  NSErrorRef* const iError;
};

}  // namespace ombra
