// Who has a pass-through identifier.
#pragma once

#include <sys/types.h>

#include <string>

namespace ombra {

// The process that this user's lock file of the identifier names; 0 when there is no such file or no such
// process. Does not wait, whatever lies there.
pid_t ownerOfPassthrough(const std::string& identifier);

}  // namespace ombra
