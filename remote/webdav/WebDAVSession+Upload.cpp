// Whole files.
#include <algorithm>
#include <cerrno>

#include "remote/ConfirmedUpload.h"
#include "remote/QuarnKitError.h"
#include "remote/RetryPauses.h"
#include "remote/TemporaryNames.h"
#include "remote/webdav/WebDAVSession.h"

namespace ombra {

namespace {

// Storing what has arrived may take a server long.
constexpr std::chrono::minutes kStoringPatience{2};

bool isSuccess(const std::optional<HTTPResponse>& response) {
  return response && response->status / 100 == 2;
}

// What would be no different at another place, or says that there is no such place, or comes from a server
// in trouble: what it has of the file is not put at risk then.
bool isFinalRefusal(int status) {
  switch (status) {
    case 401:
    case 404:
    case 409:
    case 413:
    case 429:
    case 503:
    case 504:
    case 507:
      return true;
    default:
      return false;
  }
}

// Of a MOVE these two say that the server cannot do it; it has just stored the temporary file.
bool isFinalForTemporary(int status) { return status == 500 || status == 502 || isFinalRefusal(status); }

}  // namespace

class WebDAVSession::Upload {
 public:
  Upload(WebDAVSession& session, NSFileHandle& from, std::string_view path, TransferControl& control)
      : iSession(session), iFrom(from), iPath(path), iControl(control), iLength(from.fileLength()) {}

  bool run(NSErrorRef* error) {
    if (iLength == 0) return inPlace(error);
    if (iLength > kSmallUpload) return beside(false, error);
    const std::optional<HTTPResponse> response = put(iPath, {{"If-None-Match", "*"}}, error);
    if (response && response->status == 412) return beside(true, error);
    return concluded(response, error);
  }

 private:
  bool concluded(const std::optional<HTTPResponse>& response, NSErrorRef* error) {
    if (!iSession.succeeded(DAVRequestKind::kUpload, response, iPath, error)) return false;
    report(iLength);
    return true;
  }

  bool inPlace(NSErrorRef* error) { return concluded(put(iPath, {}, error), error); }

  bool beside(bool isThere, NSErrorRef* error) {
    iTemporary = temporaryPathBeside(iPath);
    const std::optional<HTTPResponse> response = put(iTemporary, {}, error);
    if (!response) {
      removeTemporary();
      return false;
    }
    if (isSuccess(response)) return replace(isThere, error);
    removeTemporary();
    return isFinalForTemporary(response->status) ? concluded(response, error) : inPlace(error);
  }

  // Moves what has arrived over what is there.
  bool replace(bool isThere, NSErrorRef* error) {
    NSErrorRef reason;
    const std::optional<HTTPResponse> response = iSession.moveFile(iTemporary, iPath, isThere, &reason);
    if (iSession.succeeded(DAVRequestKind::kUpload, response, iPath, &reason)) {
      report(iLength);
      return true;
    }
    storeError(error, reason);
    // It may still be at it, and what it moves is the only whole content that it has.
    if (response ? response->status == 504 : isOutage(reason)) return false;
    removeTemporary();
    if (!response || isFinalRefusal(response->status)) return false;
    return inPlace(error);
  }

  // The session may be at its end, or the server in trouble: then the next session removes it. It is not
  // listed meanwhile.
  void removeTemporary() {
    NSErrorRef reason;
    const bool isRemoved = iSession.isAlive() && iSession.remove(iTemporary, false, &reason);
    if (isRemoved || QuarnKitError::isCode(reason, kQuarnKitNoSuchItem)) return;
    iSession.iFacts->leftovers.add(iTemporary);
  }

  std::optional<HTTPResponse> put(const std::string& path, std::vector<HTTPHeader> headers,
                                  NSErrorRef* error) {
    iOffset = 0;
    HTTPRequest request;
    request.method = "PUT";
    request.url = iSession.urlOf(path, false);
    request.headers = std::move(headers);
    request.patience = std::max<std::chrono::milliseconds>(kStoringPatience, iSession.iEnvironment.idleLimit);
    request.control = &iControl;
    HTTPBody body;
    if (iLength <= kSmallUpload) {
      if (!readAll(&body.bytes, error)) return std::nullopt;
    } else {
      body.length = iLength;
      body.source = [this](std::byte* buffer, size_t capacity) { return next(buffer, capacity); };
      body.rewind = [this] {
        iOffset = 0;
        return true;
      };
    }
    request.body = std::move(body);
    NSErrorRef reason;
    std::optional<HTTPResponse> response = iSession.send(std::move(request), &reason);
    if (!response) storeError(error, iFailure != nullptr ? iFailure : reason);
    return response;
  }

  bool readAll(std::string* bytes, NSErrorRef* error) {
    bytes->resize(static_cast<size_t>(iLength));
    if (iFrom.readAt(bytes->data(), bytes->size(), 0) == static_cast<ssize_t>(iLength)) return true;
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitLocalFailure, iPath));
    return false;
  }

  size_t next(std::byte* buffer, size_t capacity) {
    const auto wanted = static_cast<size_t>(std::min<uint64_t>(capacity, iLength - iOffset));
    const ssize_t count = iFrom.readAt(buffer, wanted, iOffset);
    if (count < 0 || (count == 0 && wanted > 0)) {
      // Somebody made the file shorter, or the disk failed.
      const NSErrorRef cause = count < 0 ? NSError::errorWithDomain(NSPOSIXErrorDomain, errno) : nullptr;
      iFailure = QuarnKitError::errorWithCode(kQuarnKitLocalFailure, iPath, cause);
      return kHTTPSourceFailed;
    }
    iOffset += static_cast<uint64_t>(count);
    report(iOffset);
    return iControl.shouldCancel() ? kHTTPSourceFailed : static_cast<size_t>(count);
  }

  // What is sent a second time is not told a second time.
  void report(uint64_t reached) {
    if (reached <= iReported && reached != iLength) return;
    iReported = std::max(iReported, reached);
    iControl.progress(iReported);
  }

  WebDAVSession& iSession;
  NSFileHandle& iFrom;
  const std::string iPath;
  TransferControl& iControl;
  const uint64_t iLength;
  std::string iTemporary;
  uint64_t iOffset = 0;
  uint64_t iReported = 0;
  NSErrorRef iFailure;
};

bool WebDAVSession::upload(NSFileHandle& from, std::string_view path, uint64_t offset,
                           TransferControl& control, NSErrorRef* error) {
  if (offset > 0) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, "writing into an existing file"));
    return false;
  }
  ConfirmedUpload confirmed(from, from.fileLength());
  return confirmed.stored(Upload(*this, from, path, control).run(error));
}

}  // namespace ombra
