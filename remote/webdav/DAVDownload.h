// One file's content on its way from the server into a local file.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/foundation/NSFileHandle.h"
#include "remote/Session.h"
#include "remote/http/HTTPClient.h"

namespace ombra {

// Makes the headers of the request, judges the answer's head, and writes the body in order. One use.
class DAVDownload {
 public:
  // `version` (may be null): as of Session::download.
  DAVDownload(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
              TransferControl& control);
  DAVDownload(const DAVDownload&) = delete;
  DAVDownload& operator=(const DAVDownload&) = delete;

  void prepare(HTTPRequest* request);
  // For HTTPRequest::take. False with `failure` set.
  bool take(const HTTPResponse& head, std::span<const std::byte> piece);
  // After the answer has come to its end: whether the file is here now, to its end.
  bool finish(const HTTPResponse& response, NSErrorRef* error);
  const NSErrorRef& failure() const { return iFailure; }
  // The length of the local file so far.
  uint64_t reached() const { return iReached; }

 private:
  bool begin(const HTTPResponse& head);
  bool beginRange(const HTTPResponse& head);
  bool finishBeyondEnd(const HTTPResponse& response, NSErrorRef* error);
  bool noteVersion(const HTTPResponse& head);
  bool fail(NSErrorRef reason);

  const std::string iPath;
  NSFileHandle& iTo;
  const uint64_t iOffset;
  std::string* const iVersion;
  TransferControl& iControl;
  uint64_t iReached;     // where the next byte goes
  uint64_t iToSkip = 0;  // of an answer that begins at the file's beginning nevertheless
  bool iHasBegun = false;
  NSErrorRef iFailure;
};

}  // namespace ombra
