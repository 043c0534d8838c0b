#include "tests/support/Loopback.h"

#include <sys/socket.h>
#include <unistd.h>

namespace ombra {

sockaddr_in loopbackAddress(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int listenOnLoopback(int* port) {
  constexpr int kMostWaiting = 64;
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = loopbackAddress(0);
  socklen_t length = sizeof address;
  auto* plain = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket, plain, length) == 0 && listen(socket, kMostWaiting) == 0 &&
      getsockname(socket, plain, &length) == 0) {
    *port = ntohs(address.sin_port);
    return socket;
  }
  close(socket);
  return -1;
}

}  // namespace ombra
