// Which process a thread belongs to.
#pragma once

#include <sys/types.h>

namespace ombra {

// The kernel's requests name the asking thread. The number of its process, or the thread's own number when
// the system does not tell (the thread is gone, /proc is not there).
pid_t processOfThread(pid_t thread);
// False when there is no such process any more.
bool processLives(pid_t process);

}  // namespace ombra
