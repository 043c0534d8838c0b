// Which process a thread belongs to.
#pragma once

#include <sys/types.h>

namespace ombra {

// The kernel's requests name the asking thread. The number of its process, or the thread's own number when
// the system does not tell (the thread is gone, /proc is not there). Costs one system call for the first
// thread of a process, and reading a file for the others.
pid_t processOfThread(pid_t thread);
// Whether a thread is one of that process; false when it is gone. Costs one system call at most.
bool isThreadOf(pid_t thread, pid_t process);

}  // namespace ombra
