// Whether another process has ended.
#pragma once

#include <sys/types.h>

namespace ombra {

// True when there is no such process, or it has ended and was not collected yet, for which the first process
// of a container may take its time. A thread of another process that has got the number since does not count.
// False where it cannot be told, and for numbers that no process has (0 and below).
bool processHasEnded(pid_t process);

}  // namespace ombra
