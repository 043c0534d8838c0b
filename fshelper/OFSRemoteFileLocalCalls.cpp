#include "fshelper/OFSRemoteFileLocalCalls.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <new>

#include "platform/foundation/NSThread.h"

namespace ombra {
namespace {

OFSRemoteFileLocalCalls gSystemCalls;
std::atomic<OFSRemoteFileLocalCalls*> gCurrentCalls{&gSystemCalls};

// Whether an error of copy_file_range(2) means that these two files need plain reads and writes.
bool needsPlainCopy(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

// Copies [begin, end) through a small buffer.
bool copyThroughBuffer(int from, int to, off_t begin, off_t end) {
  std::array<char, 65536> buffer;
  auto& calls = OFSRemoteFileLocalCalls::current();
  while (begin < end) {
    const size_t wanted = std::min<size_t>(buffer.size(), static_cast<size_t>(end - begin));
    const ssize_t count = calls.pread(from, buffer.data(), wanted, begin);
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) errno = EIO;  // the source has become shorter
    if (count <= 0) return false;
    for (ssize_t done = 0; done < count;) {
      const ssize_t written =
          calls.pwrite(to, buffer.data() + done, static_cast<size_t>(count - done), begin + done);
      if (written < 0 && errno == EINTR) continue;
      if (written == 0) errno = EIO;
      if (written <= 0) return false;
      done += written;
    }
    begin += count;
  }
  return true;
}

bool copyRange(int from, int to, off_t begin, off_t end) {
  off_t source = begin;
  off_t target = begin;
  while (source < end) {
    const ssize_t count = OFSRemoteFileLocalCalls::current().copyRange(from, &source, to, &target,
                                                                       static_cast<size_t>(end - source));
    if (count > 0) continue;
    if (count < 0 && errno == EINTR) continue;
    // 0 where the kernel thinks the file ends: some file systems answer so for files of no length (procfs).
    if (count == 0 || needsPlainCopy(errno)) return copyThroughBuffer(from, to, source, end);
    return false;
  }
  return true;
}

}  // namespace

int OFSRemoteFileLocalCalls::open(const char* path, int flags, mode_t mode) {
  return ::open(path, flags, mode);
}

std::shared_ptr<NSFileHandle> OFSRemoteFileLocalCalls::scratchHandle(int descriptor) {
  try {
    return std::make_shared<NSFileHandle>(descriptor, NSFileHandle::Kind::kScratch);
  } catch (const std::bad_alloc&) {
    ::close(descriptor);
    return nullptr;
  }
}

ssize_t OFSRemoteFileLocalCalls::pread(int descriptor, void* buffer, size_t size, off_t offset) {
  return ::pread(descriptor, buffer, size, offset);
}

ssize_t OFSRemoteFileLocalCalls::pwrite(int descriptor, const void* buffer, size_t size, off_t offset) {
  return ::pwrite(descriptor, buffer, size, offset);
}

int OFSRemoteFileLocalCalls::ftruncate(int descriptor, off_t length) {
  return ::ftruncate(descriptor, length);
}

int OFSRemoteFileLocalCalls::fstat(int descriptor, struct stat* status) {
  return ::fstat(descriptor, status);
}

int OFSRemoteFileLocalCalls::fchmod(int descriptor, mode_t mode) { return ::fchmod(descriptor, mode); }

int OFSRemoteFileLocalCalls::futimes(int descriptor, const timeval times[2]) {
  return ::futimes(descriptor, times);
}

ssize_t OFSRemoteFileLocalCalls::copyRange(int from, off_t* fromOffset, int to, off_t* toOffset,
                                           size_t length) {
  return ::copy_file_range(from, fromOffset, to, toOffset, length, 0);
}

bool OFSRemoteFileLocalCalls::detachNewThread(std::function<void()> body) {
  return NSThread::detachNewThread(std::move(body));
}

OFSRemoteFileLocalCalls& OFSRemoteFileLocalCalls::current() {
  return *gCurrentCalls.load(std::memory_order_acquire);
}

void OFSRemoteFileLocalCalls::setCurrent(OFSRemoteFileLocalCalls* calls) {
  gCurrentCalls.store(calls != nullptr ? calls : &gSystemCalls, std::memory_order_release);
}

bool ofs_copyFile(int from, int to, uint64_t length) {
  const off_t end = static_cast<off_t>(length);
  if (OFSRemoteFileLocalCalls::current().ftruncate(to, end) != 0) return false;
  off_t position = 0;
  while (position < end) {
    // Moves the descriptor's position, which nothing goes by: all data access names its offset.
    const off_t data = ::lseek(from, position, SEEK_DATA);
    if (data < 0 && errno == ENXIO) return true;  // only a hole is left
    if (data < 0) return copyRange(from, to, position, end);
    const off_t hole = ::lseek(from, data, SEEK_HOLE);
    const off_t stop = hole < 0 ? end : std::min(hole, end);
    if (data < stop && !copyRange(from, to, data, stop)) return false;
    position = std::max(stop, data);
  }
  return true;
}

}  // namespace ombra
