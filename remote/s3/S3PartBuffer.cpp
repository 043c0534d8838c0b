#include "remote/s3/S3PartBuffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/foundation/NSFileHandle.h"
#include "platform/foundation/NSFileManager.h"
#include "remote/QuarnKitError.h"
#include "remote/s3/S3Digest.h"

namespace ombra {
namespace {

constexpr size_t kPiece = 256 * 1024;

bool failLocally(NSErrorRef* error, int number) {
  storeError(error,
             QuarnKitError::errorWithCode(kQuarnKitLocalFailure, "a part of the upload could not be kept",
                                          NSError::errorWithDomain(NSPOSIXErrorDomain, number)));
  return false;
}

}  // namespace

bool S3PartBuffer::prepare(uint64_t size, NSErrorRef* error) {
  iLength = 0;
  iGiven = 0;
  iIsLast = false;
  if (size <= iMostMemory) {
    if (iCapacity < size) iMemory = std::make_unique_for_overwrite<std::byte[]>(size);
    iCapacity = std::max(iCapacity, size);
    return true;
  }
  iMemory.reset();
  iCapacity = 0;
  if (iFile != nullptr) return true;
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  const int descriptor = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (descriptor < 0) return failLocally(error, errno);
  iFile = std::make_unique<NSFileHandle>(descriptor);
  return true;
}

bool S3PartBuffer::keep(std::byte* piece, size_t count, NSErrorRef* error) {
  if (iFile != nullptr && !iFile->writeAll(piece, count, iLength)) return failLocally(error, errno);
  iLength += count;
  return true;
}

bool S3PartBuffer::fill(const Next& next, uint64_t size, const std::function<bool()>& mayGoOn,
                        NSErrorRef* error) {
  if (!prepare(size, error)) return false;
  std::vector<std::byte> piece(iFile != nullptr ? kPiece : 0);
  while (iLength < size && mayGoOn()) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(size - iLength, kPiece));
    std::byte* target = iFile != nullptr ? piece.data() : iMemory.get() + iLength;
    const size_t count = next(target, wanted);
    iIsLast = count == 0;
    if (iIsLast) break;
    if (!keep(target, std::min(count, wanted), error)) return false;
  }
  return true;
}

HTTPBody S3PartBuffer::body() {
  HTTPBody body;
  body.length = iLength;
  body.source = [this](std::byte* buffer, size_t capacity) { return give(buffer, capacity); };
  body.rewind = [this] {
    iGiven = 0;
    return true;
  };
  iGiven = 0;
  return body;
}

size_t S3PartBuffer::give(std::byte* buffer, size_t capacity) {
  auto count = static_cast<size_t>(std::min<uint64_t>(iLength - iGiven, capacity));
  if (iFile != nullptr && count > 0) {
    const ssize_t got = iFile->readAt(buffer, count, iGiven);
    if (got <= 0) return kHTTPSourceFailed;
    count = static_cast<size_t>(got);
  } else if (count > 0) {
    std::memcpy(buffer, iMemory.get() + iGiven, count);
  }
  iGiven += count;
  return count;
}

std::string S3PartBuffer::hash() const {
  if (iFile != nullptr) return s3SHA256OfFile(*iFile, {0, iLength}).value_or("");
  return s3SHA256({reinterpret_cast<const char*>(iMemory.get()), static_cast<size_t>(iLength)});
}

}  // namespace ombra
