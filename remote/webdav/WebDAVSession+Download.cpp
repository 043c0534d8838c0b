// Downloads.
#include "remote/QuarnKitError.h"
#include "remote/webdav/DAVDownload.h"
#include "remote/webdav/WebDAVSession.h"

namespace ombra {

namespace {

// Whether the answer told in advance where it ends: else a lost connection looks like the end.
bool toldItsEnd(const HTTPResponse& response) {
  return response.status / 100 != 2 || response.header("Content-Length") != nullptr ||
         response.header("Transfer-Encoding") != nullptr || response.header("Content-Range") != nullptr;
}

}  // namespace

bool WebDAVSession::download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                             TransferControl& control, NSErrorRef* error) {
  iFoundStart.reset();
  DAVDownload download(path, to, offset, version, control);
  HTTPRequest request;
  request.method = "GET";
  request.url = urlOf(path, false);
  download.prepare(&request);
  // Not on to another place: what lies there, for a folder, is a page about it.
  NSErrorRef reason;
  const std::optional<HTTPResponse> response = iClient.perform(request, &reason);
  if (response && download.finish(*response, error))
    return toldItsEnd(*response) || hasLength(path, download.reached(), error);
  if (response) return false;
  // The transfer was ended from here: then the reason is here too.
  storeError(error, download.failure() != nullptr ? download.failure() : reason);
  return false;
}

bool WebDAVSession::hasLength(std::string_view path, uint64_t length, NSErrorRef* error) {
  const std::optional<NSFileAttributes> told = attributes(path, nullptr, error);
  if (!told) return false;
  if (told->fileSize == length) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "not all of the file has arrived"));
  return false;
}

}  // namespace ombra
