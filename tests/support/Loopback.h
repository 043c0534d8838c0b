// Sockets of this machine alone.
#pragma once

#include <netinet/in.h>

namespace ombra {

sockaddr_in loopbackAddress(int port);
// A socket that listens on a free port; -1 when that fails.
int listenOnLoopback(int* port);

}  // namespace ombra
