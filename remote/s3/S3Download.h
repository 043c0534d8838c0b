// The content of an object on its way into a file.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/foundation/NSFileHandle.h"
#include "remote/http/HTTPClient.h"

namespace ombra {

// Asks for an object from an offset on, checks that the answer is what was asked for, of the version that was
// begun, and writes it.
class S3Download {
 public:
  // `version` as for Session::download: "TAG SIZE", empty at first; may be null.
  S3Download(std::string path, NSFileHandle& to, uint64_t offset, std::string* version,
             TransferControl& control);
  S3Download(const S3Download&) = delete;
  S3Download& operator=(const S3Download&) = delete;

  std::vector<HTTPHeader> headers() const;
  // A piece of the content; false when there is a failure.
  bool take(const HTTPResponse& head, std::span<const std::byte> piece);
  // After the last one. False with the error when it was not all.
  [[nodiscard]] bool finish(const HTTPResponse& head, NSErrorRef* error);
  const NSErrorRef& failure() const { return iFailure; }

  // For an offset behind which there is nothing, by what the server says of the object: true when it ends
  // right there and is the version that was begun.
  static bool settleEnd(const HTTPResponse& head, const std::string& path, uint64_t offset,
                        std::string* version, NSErrorRef* error);

 private:
  bool begin(const HTTPResponse& head);
  bool fail(QuarnKitErrorCode code, const std::string& why);

  const std::string iPath;
  NSFileHandle& iTo;
  const uint64_t iOffset;
  std::string* const iVersion;
  TransferControl& iControl;
  bool iHasBegun = false;
  uint64_t iAt;
  uint64_t iEnd = 0;  // the object's length
  NSErrorRef iFailure;
};

}  // namespace ombra
