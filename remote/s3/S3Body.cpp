#include "remote/s3/S3Body.h"

#include <algorithm>
#include <cerrno>

#include "remote/QuarnKitError.h"

namespace ombra {

S3FileBody::S3FileBody(const NSFileHandle& file, FileExtent range, TransferControl& control)
    : iFile(file), iRange(range), iControl(control), iAt(range.begin), iFurthest(range.begin) {}

HTTPBody S3FileBody::body() {
  HTTPBody body;
  body.length = iRange.end - iRange.begin;
  body.source = [this](std::byte* buffer, size_t capacity) { return give(buffer, capacity); };
  body.rewind = [this] {
    iAt = iRange.begin;
    return true;
  };
  return body;
}

size_t S3FileBody::give(std::byte* buffer, size_t capacity) {
  // Who asks for more has sent what was given before.
  if (iAt > iFurthest) iControl.progress(iFurthest = iAt);
  if (iControl.shouldCancel()) return kHTTPSourceFailed;
  const auto wanted = static_cast<size_t>(std::min<uint64_t>(iRange.end - iAt, capacity));
  if (wanted == 0) return 0;
  const ssize_t count = iFile.readAt(buffer, wanted, iAt);
  if (count <= 0) {
    const NSErrorRef cause = count < 0 ? NSError::errorWithDomain(NSPOSIXErrorDomain, errno) : nullptr;
    iFailure =
        QuarnKitError::errorWithCode(kQuarnKitLocalFailure, count < 0 ? "" : "it became shorter", cause);
    return kHTTPSourceFailed;
  }
  iAt += static_cast<uint64_t>(count);
  return static_cast<size_t>(count);
}

}  // namespace ombra
