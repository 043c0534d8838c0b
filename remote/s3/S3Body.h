// Ranges of files as bodies of requests.
#pragma once

#include <cstdint>

#include "platform/foundation/NSError.h"
#include "platform/foundation/NSFileHandle.h"
#include "remote/http/HTTPClient.h"

namespace ombra {

// Gives a range of an open file to a request, straight from the file, as often as the request is sent.
// Outlives the request.
class S3FileBody {
 public:
  // `control` is told how far the content has been handed on, as an offset in the file, never less than
  // before, and asked for cancellation with each piece.
  S3FileBody(const NSFileHandle& file, FileExtent range, TransferControl& control);
  S3FileBody(const S3FileBody&) = delete;
  S3FileBody& operator=(const S3FileBody&) = delete;

  // The body; refers to this object.
  HTTPBody body();
  // Why the file could not be read; null when it could.
  const NSErrorRef& failure() const { return iFailure; }

 private:
  size_t give(std::byte* buffer, size_t capacity);

  const NSFileHandle& iFile;
  const FileExtent iRange;
  TransferControl& iControl;
  uint64_t iAt;
  uint64_t iFurthest;
  NSErrorRef iFailure;
};

}  // namespace ombra
