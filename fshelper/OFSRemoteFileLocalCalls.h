// What an open file asks of this machine: system calls on its cache file, and threads.
#pragma once

#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>

#include <functional>
#include <memory>

#include "platform/foundation/NSFileHandle.h"

namespace ombra {

// The system's own calls, with their own results and errno. Virtual, so that a test can break one on demand.
// Thread-safe.
class OFSRemoteFileLocalCalls {
 public:
  virtual ~OFSRemoteFileLocalCalls() = default;

  virtual int open(const char* path, int flags, mode_t mode);
  // A scratch handle that owns `descriptor`. Null, with the descriptor closed, when none can be made.
  virtual std::shared_ptr<NSFileHandle> scratchHandle(int descriptor);
  virtual ssize_t pread(int descriptor, void* buffer, size_t size, off_t offset);
  virtual ssize_t pwrite(int descriptor, const void* buffer, size_t size, off_t offset);
  virtual int ftruncate(int descriptor, off_t length);
  virtual int fstat(int descriptor, struct stat* status);
  virtual int fchmod(int descriptor, mode_t mode);
  virtual int futimes(int descriptor, const timeval times[2]);
  // copy_file_range(2) of one piece.
  virtual ssize_t copyRange(int from, off_t* fromOffset, int to, off_t* toOffset, size_t length);
  // As NSThread::detachNewThread.
  [[nodiscard]] virtual bool detachNewThread(std::function<void()> body);

  // The calls in force: the system's, unless a test has set others.
  static OFSRemoteFileLocalCalls& current();
  // nullptr: the system's again. No open file may be in use.
  static void setCurrent(OFSRemoteFileLocalCalls* calls);
};

// Copies [0, length) of an open file to an empty one, holes as holes, sharing blocks where the file system
// can. False with errno set; the copy is then incomplete.
[[nodiscard]] bool ofs_copyFile(int from, int to, uint64_t length);

}  // namespace ombra
