// The FTP engine.
#pragma once

#include "remote/Session.h"

namespace ombra {

// Makes the protocols 'FTP ', 'FTPE' (TLS agreed on the control connection, RFC 4217) and 'FTPS' (TLS from
// the first byte) known. The control connection is this engine's own, over sockets and OpenSSL.
void registerFTPEngine();

}  // namespace ombra
