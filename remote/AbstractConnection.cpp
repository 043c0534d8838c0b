#include "remote/AbstractConnection.h"

#include "remote/KCTypes.h"

namespace ombra {

bool AbstractConnection::isS3(uint32_t protocol) { return protocol == kProtocolS3; }

}  // namespace ombra
