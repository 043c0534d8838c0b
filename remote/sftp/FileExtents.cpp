#include "remote/sftp/FileExtents.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ombra {

std::vector<FileExtent> dataExtents(const NSFileHandle& file, uint64_t from, uint64_t to) {
  std::vector<FileExtent> extents;
  if (from >= to) return extents;
  // The position is shared with the program, which measures and restores it: here it is put back as well.
  const off_t position = lseek(file.fileDescriptor(), 0, SEEK_CUR);
  while (from < to) {
    const off_t data = lseek(file.fileDescriptor(), static_cast<off_t>(from), SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // a hole up to the end
    if (data < 0) {
      extents.push_back({from, to});
      break;
    }
    const uint64_t begin = std::max(from, static_cast<uint64_t>(data));
    if (begin >= to) break;
    const off_t hole = lseek(file.fileDescriptor(), data, SEEK_HOLE);
    const uint64_t end = hole < 0 ? to : std::min(to, static_cast<uint64_t>(hole));
    if (end <= begin) break;
    extents.push_back({begin, end});
    from = end;
  }
  if (position >= 0) lseek(file.fileDescriptor(), position, SEEK_SET);
  return extents;
}

}  // namespace ombra
