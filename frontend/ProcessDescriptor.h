// Processes held by descriptor, so that a number that was given to another one is never hit.
#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include "frontend/UniqueFd.h"

namespace ombra {

// By the numbers of the calls: the C library's header lacks C linkage in the version that Debian 12 has.

// Readable once the process has ended; empty when there is no such process.
inline UniqueFd openProcess(pid_t pid) {
  return UniqueFd(pid > 0 ? static_cast<int>(syscall(SYS_pidfd_open, pid, 0)) : -1);
}

inline void signalProcess(const UniqueFd& process, int number) {
  if (process) syscall(SYS_pidfd_send_signal, process.get(), number, nullptr, 0);
}

}  // namespace ombra
