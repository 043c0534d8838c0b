#include "platform/foundation/NSFileHandle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <utility>

namespace ombra {
NSFileHandle::NSFileHandle(int descriptor, Kind kind) : iDescriptor(descriptor), iKind(kind) {
  assert(descriptor >= 0);
}

NSFileHandle::~NSFileHandle() { ::close(iDescriptor); }

void NSFileHandle::synchronizeFile() {
  // Nothing of a scratch file outlives the process, and each flush would cost a turn of the disk.
  if (iKind == Kind::kFile) ::fsync(iDescriptor);
}

uint64_t NSFileHandle::seekToEndOfFile() {
  const off_t end = ::lseek(iDescriptor, 0, SEEK_END);
  return end < 0 ? 0 : static_cast<uint64_t>(end);
}

uint64_t NSFileHandle::fileLength() const {
  struct stat status {};
  if (::fstat(iDescriptor, &status) != 0 || status.st_size < 0) return 0;
  return static_cast<uint64_t>(status.st_size);
}

bool NSFileHandle::writeAll(const void* bytes, size_t length, uint64_t offset) {
  const char* from = static_cast<const char*>(bytes);
  while (length > 0) {
    const ssize_t count = ::pwrite(iDescriptor, from, length, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    if (count == 0) {
      // Never for a regular file; without this a device that takes nothing would be asked for ever.
      errno = EIO;
      return false;
    }
    from += count;
    offset += static_cast<uint64_t>(count);
    length -= static_cast<size_t>(count);
  }
  return true;
}

namespace {
thread_local const NSFileHandle::RecentWrite* tRecentWrite = nullptr;
}  // namespace

NSFileHandle::RecentWrite::RecentWrite(const NSFileHandle& file, const void* bytes, FileExtent extent)
    : iFile(file),
      iBytes(static_cast<const std::byte*>(bytes)),
      iExtent(extent),
      iOuter(std::exchange(tRecentWrite, this)) {}

NSFileHandle::RecentWrite::~RecentWrite() { tRecentWrite = iOuter; }

ssize_t NSFileHandle::readAt(void* bytes, size_t length, uint64_t offset) const {
  if (const RecentWrite* recent = tRecentWrite; recent != nullptr && &recent->iFile == this) {
    const FileExtent& extent = recent->iExtent;
    if (offset >= extent.begin && offset < extent.end && length <= extent.end - offset) {
      std::memcpy(bytes, recent->iBytes + (offset - extent.begin), length);
      return static_cast<ssize_t>(length);
    }
  }
  char* to = static_cast<char*>(bytes);
  size_t done = 0;
  while (done < length) {
    const ssize_t count = ::pread(iDescriptor, to + done, length - done, static_cast<off_t>(offset + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    done += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace ombra
