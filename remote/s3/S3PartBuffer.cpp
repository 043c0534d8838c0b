#include "remote/s3/S3PartBuffer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/foundation/NSFileHandle.h"
#include "platform/foundation/NSFileManager.h"
#include "remote/QuarnKitError.h"

namespace ombra {
namespace {

// Most files are small.
constexpr size_t kPieceInMemory = 64 * 1024;
// What goes to a file is taken in larger pieces: each wakes up whoever writes.
constexpr size_t kPieceOfFile = 256 * 1024;

bool failLocally(NSErrorRef* error, int number) {
  storeError(error,
             QuarnKitError::errorWithCode(kQuarnKitLocalFailure, "a part of the upload could not be kept",
                                          NSError::errorWithDomain(NSPOSIXErrorDomain, number)));
  return false;
}

}  // namespace

S3PartBuffer::S3PartBuffer(Hashing hashing, uint64_t memory) : iMostMemory(memory) {
  if (hashing == Hashing::kWanted) iDigest.emplace();
}

void S3PartBuffer::clear() {
  iLength = 0;
  iGiven = 0;
  iIsLast = false;
  iHash.clear();
  if (iDigest) iDigest.emplace();
}

// What is in memory goes to a file, and so does all that follows.
bool S3PartBuffer::moveToFile(NSErrorRef* error) {
  const std::string folder = NSFileManager::kc_confstr(kDarwinUserTempDir);
  const int descriptor = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (descriptor < 0) return failLocally(error, errno);
  iFile = std::make_unique<NSFileHandle>(descriptor);
  if (iLength > 0 && !iFile->writeAll(iMemory.data(), iLength, 0)) return failLocally(error, errno);
  iMemory.resize(kPieceOfFile);
  iMemory.shrink_to_fit();
  return true;
}

bool S3PartBuffer::fill(const Next& next, uint64_t size, const std::function<bool()>& mayGoOn,
                        NSErrorRef* error) {
  while (iLength < size && !iIsLast && mayGoOn()) {
    if (!take(next, size - iLength, error)) return false;
  }
  return true;
}

const std::string& S3PartBuffer::hash() {
  if (iDigest && iHash.empty()) iHash = iDigest->finish();
  return iHash;
}

// The next piece, of up to `most` bytes. Read once more for its hash, a part would cost a copy more.
bool S3PartBuffer::take(const Next& next, uint64_t most, NSErrorRef* error) {
  const size_t piece = iFile != nullptr ? kPieceOfFile : kPieceInMemory;
  const auto wanted = static_cast<size_t>(std::min<uint64_t>(most, piece));
  if (iFile == nullptr && iLength + wanted > iMostMemory && !moveToFile(error)) return false;
  const size_t at = iFile != nullptr ? 0 : static_cast<size_t>(iLength);
  if (iMemory.size() < at + wanted) iMemory.resize(at + wanted);
  const size_t count = std::min(next(iMemory.data() + at, wanted), wanted);
  iIsLast = count == 0;
  if (iDigest) iDigest->add({iMemory.data() + at, count});
  if (iFile != nullptr && !iFile->writeAll(iMemory.data(), count, iLength)) return failLocally(error, errno);
  iLength += count;
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
    std::memcpy(buffer, iMemory.data() + iGiven, count);
  }
  iGiven += count;
  return count;
}

}  // namespace ombra
