#include "platform/foundation/NSFileHandle.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

namespace ombra {
namespace {

// The first extent that ends after `offset`.
std::vector<FileExtent>::iterator firstEndingAfter(std::vector<FileExtent>& extents, uint64_t offset) {
  return std::partition_point(extents.begin(), extents.end(),
                              [offset](const FileExtent& extent) { return extent.end <= offset; });
}

}  // namespace

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

ssize_t NSFileHandle::readAt(void* bytes, size_t length, uint64_t offset) const {
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

void NSFileHandle::noteWritten(FileExtent extent) {
  if (!isScratch() || extent.begin >= extent.end) return;
  MutexLock lock(iExtentLock);
  // Swallow every extent that overlaps or touches the new one.
  auto first = std::partition_point(iUnconfirmed.begin(), iUnconfirmed.end(),
                                    [&extent](const FileExtent& other) { return other.end < extent.begin; });
  auto last = first;
  for (; last != iUnconfirmed.end() && last->begin <= extent.end; ++last) {
    extent.begin = std::min(extent.begin, last->begin);
    extent.end = std::max(extent.end, last->end);
  }
  iUnconfirmed.insert(iUnconfirmed.erase(first, last), extent);
}

void NSFileHandle::noteTruncated(uint64_t length) {
  MutexLock lock(iExtentLock);
  auto first = firstEndingAfter(iUnconfirmed, length);
  if (first != iUnconfirmed.end() && first->begin < length) {
    first->end = length;
    ++first;
  }
  iUnconfirmed.erase(first, iUnconfirmed.end());
}

std::vector<FileExtent> NSFileHandle::unconfirmedExtents(uint64_t from) const {
  MutexLock lock(iExtentLock);
  std::vector<FileExtent> result;
  for (const FileExtent& extent : iUnconfirmed) {
    if (extent.end > from) result.push_back({std::max(extent.begin, from), extent.end});
  }
  return result;
}

void NSFileHandle::noteConfirmed(FileExtent extent) {
  if (extent.begin >= extent.end) return;
  MutexLock lock(iExtentLock);
  auto first = firstEndingAfter(iUnconfirmed, extent.begin);
  auto last = first;
  std::vector<FileExtent> rest;
  for (; last != iUnconfirmed.end() && last->begin < extent.end; ++last) {
    if (last->begin < extent.begin) rest.push_back({last->begin, extent.begin});
    if (last->end > extent.end) rest.push_back({extent.end, last->end});
  }
  const auto at = iUnconfirmed.erase(first, last);
  iUnconfirmed.insert(at, rest.begin(), rest.end());
}

}  // namespace ombra
