#include "frontend/ProbeConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ombra {

bool ProbeConnection::fail(QuarnKitErrorCode code, const std::string& detail) {
  storeError(iError, QuarnKitError::errorWithCode(code, detail));
  return false;
}

std::optional<char> ProbeConnection::readByte(const std::string& line) {
  while (true) {
    char byte = 0;
    const ssize_t count = recv(iSocket, &byte, 1, 0);
    if (count > 0) return byte;
    if (count == 0) fail(kQuarnKitConnectionLost, line);
    if (count == 0 || !mayGoOn(POLLIN)) return std::nullopt;
  }
}

bool ProbeConnection::send(std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = ::send(iSocket, text.data(), text.size(), MSG_NOSIGNAL);
    if (count >= 0) {
      text.remove_prefix(static_cast<size_t>(count));
    } else if (!mayGoOn(POLLOUT)) {
      return false;
    }
  }
  return true;
}

bool ProbeConnection::mayGoOn(short events) {
  if (errno == EINTR) return true;
  if (errno != EAGAIN && errno != EWOULDBLOCK) return fail(kQuarnKitConnectionLost, std::strerror(errno));
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(iDeadline - std::chrono::steady_clock::now());
  pollfd descriptor{iSocket, events, 0};
  const int ready = poll(&descriptor, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
  if (ready > 0 || (ready < 0 && errno == EINTR)) return true;
  return fail(kQuarnKitTimedOut, iPeer + " did not answer");
}

}  // namespace ombra
