#include "platform/foundation/ProcessEnd.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace ombra {

// Not by a signal: that also reaches a process that was not collected yet.
bool processHasEnded(pid_t process) {
  if (process <= 0) return false;
  const int descriptor = static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
  if (descriptor < 0) return errno == ESRCH || errno == EINVAL || errno == ENOENT;
  pollfd end{descriptor, POLLIN, 0};
  const bool hasEnded = ::poll(&end, 1, 0) == 1;
  ::close(descriptor);
  return hasEnded;
}

}  // namespace ombra
