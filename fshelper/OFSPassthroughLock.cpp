#include "fshelper/OFSPassthroughLock.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "platform/foundation/ProcessEnd.h"

namespace ombra {
namespace {

constexpr int kAttempts = 3;
constexpr mode_t kLockFileMode = 0700;

// Closes without disturbing the errno of what went before.
void closeKeepingErrno(int descriptor) {
  const int saved = errno;
  ::close(descriptor);
  errno = saved;
}

// Writes our number into the file just made, and closes it. False with errno set.
bool writeOwner(int descriptor) {
  const int32_t owner = static_cast<int32_t>(getpid());
  const char* bytes = reinterpret_cast<const char*>(&owner);
  size_t written = 0;
  while (written < sizeof owner) {
    const ssize_t count = ::write(descriptor, bytes + written, sizeof owner - written);
    if (count < 0 && errno != EINTR) break;
    if (count > 0) written += static_cast<size_t>(count);
  }
  closeKeepingErrno(descriptor);
  return written == sizeof owner;
}

// Opens the file that is there. -1 with errno set when it cannot be opened, and for what nobody who takes a
// lock leaves there: a link, and a pipe or a device, which could wait, or answer, for ever.
int openFound(const char* path) {
  const int found = ::open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  struct stat status {};
  if (found < 0 || ::fstat(found, &status) != 0 || S_ISREG(status.st_mode) || S_ISDIR(status.st_mode))
    return found;
  ::close(found);
  errno = EINVAL;
  return -1;
}

// Reads the owner's number, and closes the file. End of file is no end: whoever made the file is about to
// write its number into it. False when it cannot be read.
bool readOwner(int descriptor, int32_t* owner) {
  char* bytes = reinterpret_cast<char*>(owner);
  size_t got = 0;
  while (got < sizeof *owner) {
    const ssize_t count = ::read(descriptor, bytes + got, sizeof *owner - got);
    if (count < 0 && errno != EINTR) break;
    if (count > 0) got += static_cast<size_t>(count);
  }
  closeKeepingErrno(descriptor);
  return got == sizeof *owner;
}

}  // namespace

int spc_lock_file(const char* path, unsigned (*pause)(unsigned seconds)) {
  int attempt = 0;
  while (attempt < kAttempts) {
    const int made = ::open(path, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kLockFileMode);
    if (made >= 0) {
      if (!writeOwner(made)) return -1;
      continue;  // the next look finds our own number
    }
    if (errno != EEXIST) return -1;
    const int found = openFound(path);
    if (found < 0) return -1;
    int32_t owner = 0;
    if (readOwner(found, &owner)) {
      if (owner == static_cast<int32_t>(getpid())) return 1;
      const bool isThere = ::kill(owner, 0) == 0;
      if (!isThere && errno != ESRCH) return -1;
      if (!isThere || processHasEnded(owner)) {
        ::unlink(path);  // stale; whoever wins the exclusive create above is the new owner
        continue;
      }
    }
    pause(1);
    ++attempt;
  }
  return 0;
}

int spc_lock_file(const char* path) { return spc_lock_file(path, &::sleep); }

}  // namespace ombra
