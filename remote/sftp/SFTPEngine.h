// The SFTP engine.
#pragma once

#include "remote/Session.h"

namespace ombra {

// Makes the protocol 'SFTP' known: libssh for the transport, the file protocol (version 3 with OpenSSH's
// extensions) of this engine's own. With the credentials' option "sftpServer" it speaks over the pipe of that
// local program instead, without a login.
void registerSFTPEngine();

}  // namespace ombra
