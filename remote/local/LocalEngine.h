// A folder of this machine as the "server".
#pragma once

#include "remote/Session.h"

namespace ombra {

// Makes the protocol 'FILE' known. The credentials' options "inPlace" and "streaming" ("0" or "1", default 1
// and 1) select what the engine claims to support.
void registerLocalEngine();

}  // namespace ombra
