// Whether anything listens where a server is said to be.
#pragma once

#include <cstdint>
#include <string>

#include "frontend/Failure.h"

namespace ombra {

// Connects and hangs up again. True also where only a proxy knows the way to the server. False with the
// failure filled. For servers that are not looked at for a key or a certificate anyway: nobody should have to
// type a password for a host that was misspelt.
bool checkServerIsThere(const std::string& host, int port, uint32_t protocol, Failure* failure);

}  // namespace ombra
