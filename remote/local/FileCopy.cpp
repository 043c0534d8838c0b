#include "remote/local/FileCopy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "remote/local/LocalErrors.h"

namespace ombra {
namespace {

constexpr size_t kPieceSize = 256 * 1024;

bool writeFully(int descriptor, const char* bytes, size_t length, uint64_t offset) {
  while (length > 0) {
    const ssize_t count = pwrite(descriptor, bytes, length, static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes += count;
    offset += static_cast<uint64_t>(count);
    length -= static_cast<size_t>(count);
  }
  return true;
}

}  // namespace

NSErrorRef FileCopy::sourceError(int errorNumber) const {
  return toIsServer ? localFileError(errorNumber) : localServerError(errorNumber, path);
}

NSErrorRef FileCopy::destinationError(int errorNumber) const {
  return toIsServer ? localServerError(errorNumber, path) : localFileError(errorNumber);
}

bool FileCopy::mayGoOn(NSErrorRef* error) const {
  if (interrupted->load()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, path));
    return false;
  }
  if (!control->shouldCancel()) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitCancelled, path));
  return false;
}

bool FileCopy::copyRange(FileExtent range, uint64_t* reached, NSErrorRef* error) const {
  // Looking for holes moves the position, which whoever opened the file may be using.
  const off_t position = lseek(from, 0, SEEK_CUR);
  const bool copied = copyDataAndHoles(range, reached, error);
  if (position >= 0) lseek(from, position, SEEK_SET);
  return copied;
}

bool FileCopy::copyDataAndHoles(FileExtent range, uint64_t* reached, NSErrorRef* error) const {
  uint64_t at = range.begin;
  *reached = at;
  while (at < range.end) {
    const off_t found = lseek(from, static_cast<off_t>(at), SEEK_DATA);
    // ENXIO: a hole up to the end of the file. Other failures: the file system knows no holes, all is data.
    if (found < 0 && errno != ENXIO) return copyData(at, range.end, reached, error);
    uint64_t dataBegin = range.end;
    if (found >= 0) {
      dataBegin = std::min(static_cast<uint64_t>(found), range.end);
    } else {
      const off_t end = lseek(from, 0, SEEK_END);
      dataBegin = std::clamp(end < 0 ? at : static_cast<uint64_t>(end), at, range.end);
      range.end = dataBegin;
    }
    if (dataBegin > at) {
      if (!mayGoOn(error) || !writeZeros(at, dataBegin, error)) return false;
      *reached = dataBegin;
      control->progress(dataBegin);
      at = dataBegin;
      continue;
    }
    const off_t hole = lseek(from, static_cast<off_t>(at), SEEK_HOLE);
    const uint64_t dataEnd = hole > found ? std::min(static_cast<uint64_t>(hole), range.end) : range.end;
    if (!copyData(at, dataEnd, reached, error)) return false;
    if (*reached < dataEnd) return true;
    at = dataEnd;
  }
  return true;
}

bool FileCopy::copyData(uint64_t begin, uint64_t end, uint64_t* reached, NSErrorRef* error) const {
  std::vector<char> buffer(static_cast<size_t>(std::min<uint64_t>(end - begin, kPieceSize)));
  uint64_t at = begin;
  while (at < end) {
    if (!mayGoOn(error)) return false;
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(end - at, buffer.size()));
    const ssize_t count = pread(from, buffer.data(), wanted, static_cast<off_t>(at));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      storeError(error, sourceError(errno));
      return false;
    }
    if (count == 0) break;
    if (!writeFully(to, buffer.data(), static_cast<size_t>(count), at)) {
      storeError(error, destinationError(errno));
      return false;
    }
    at += static_cast<uint64_t>(count);
    *reached = at;
    control->progress(at);
  }
  return true;
}

bool FileCopy::writeZeros(uint64_t begin, uint64_t end, NSErrorRef* error) const {
  const uint64_t occupied = std::min(end, toLength);
  if (begin < occupied) {
    const auto length = static_cast<off_t>(occupied - begin);
    if (fallocate(to, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(begin), length) != 0) {
      const std::vector<char> zeros(static_cast<size_t>(std::min<uint64_t>(occupied - begin, kPieceSize)));
      for (uint64_t at = begin; at < occupied;) {
        const auto count = static_cast<size_t>(std::min<uint64_t>(occupied - at, zeros.size()));
        if (!writeFully(to, zeros.data(), count, at)) {
          storeError(error, destinationError(errno));
          return false;
        }
        at += count;
      }
    }
  }
  // Beyond the end a longer file is all that a hole needs.
  if (end > toLength) {
    const off_t length = lseek(to, 0, SEEK_END);
    if (length >= 0 && static_cast<uint64_t>(length) < end && ftruncate(to, static_cast<off_t>(end)) != 0) {
      storeError(error, destinationError(errno));
      return false;
    }
  }
  return true;
}

}  // namespace ombra
