// Streams: content whose length nobody knows yet.
#include <chrono>

#include "remote/QuarnKitError.h"
#include "remote/webdav/WebDAVSession.h"

namespace ombra {

namespace {

// Storing what has arrived may take a server long.
constexpr std::chrono::minutes kStreamPatience{2};

// The server wants a length, or does not know bodies in chunks.
bool refusesChunks(int status) { return status == 411 || status == 501; }

}  // namespace

bool WebDAVSession::stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
                           TransferControl& control, NSErrorRef* error) {
  const NSErrorRef refusal = QuarnKitError::errorWithCode(
      kQuarnKitNotSupported, "the server takes only files whose length it is told in advance");
  if (iFacts->refusesStreams.load()) {
    storeError(error, refusal);
    return false;
  }
  uint64_t sent = 0;
  HTTPBody body;
  body.source = [&](std::byte* buffer, size_t capacity) {
    if (control.shouldCancel()) return kHTTPSourceFailed;
    const size_t count = next(buffer, capacity);
    // An end that comes with the cancel mark is none: the server must not take what it has for the whole.
    if (control.shouldCancel()) return kHTTPSourceFailed;
    sent += count;
    if (count > 0) control.progress(sent);
    return count;
  };
  HTTPRequest request;
  request.method = "PUT";
  request.url = urlOf(path, false);
  request.body = std::move(body);
  request.patience = std::max<std::chrono::milliseconds>(kStreamPatience, iEnvironment.idleLimit);
  request.control = &control;
  // What a server refuses at once has not been taken from the writer then, who can send it as a whole.
  request.asksLeave = !iFacts->storesStreams.load();
  const std::optional<HTTPResponse> response = send(std::move(request), error);
  if (response && refusesChunks(response->status)) {
    iFacts->refusesStreams.store(true);
    storeError(error, refusal);
    return false;
  }
  if (!succeeded(DAVRequestKind::kUpload, response, path, error)) return false;
  return sent == 0 || iFacts->storesStreams.load() || streamArrived(path, sent, error);
}

bool WebDAVSession::streamArrived(std::string_view path, uint64_t length, NSErrorRef* error) {
  const std::optional<NSFileAttributes> told = attributes(path, nullptr, error);
  if (!told) return false;
  if (told->fileSize == length) {
    iFacts->storesStreams.store(true);
    return true;
  }
  if (told->fileSize == 0) iFacts->refusesStreams.store(true);
  storeError(error, QuarnKitError::errorWithCode(
                        kQuarnKitNotSupported, "the server did not store what it was sent without a length"));
  return false;
}

}  // namespace ombra
