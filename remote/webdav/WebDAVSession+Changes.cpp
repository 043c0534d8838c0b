// New folders, moves and removals.
#include "remote/QuarnKitError.h"
#include "remote/webdav/WebDAVSession.h"

namespace ombra {

namespace {

// A server moves or removes a large folder item by item, and says nothing meanwhile.
constexpr std::chrono::minutes kLongPatience{10};

}  // namespace

bool WebDAVSession::createFolder(std::string_view path, NSErrorRef* error) {
  HTTPRequest request;
  request.method = "MKCOL";
  // nginx makes no folder whose name does not end in a slash.
  request.url = urlOf(path, true);
  return succeeded(DAVRequestKind::kCreateFolder, send(std::move(request), error), path, error);
}

bool WebDAVSession::createSymbolicLink(std::string_view path, std::string_view /*target*/,
                                       NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
  return false;
}

bool WebDAVSession::changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                                     NSErrorRef* error) {
  if (attributes.count() == 0) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path));
  return false;
}

std::optional<HTTPResponse> WebDAVSession::sendMove(std::string_view from, bool isDirectory,
                                                    std::string_view to, Overwrite overwrite,
                                                    NSErrorRef* error) {
  HTTPRequest request;
  request.method = "MOVE";
  request.url = urlOf(from, isDirectory);
  request.headers = {{"Destination", urlOf(to, isDirectory)},
                     {"Overwrite", overwrite == Overwrite::kYes ? "T" : "F"}};
  request.patience = kLongPatience;
  return send(std::move(request), error);
}

std::optional<HTTPResponse> WebDAVSession::moveFile(std::string_view from, std::string_view to, bool isThere,
                                                    NSErrorRef* error) {
  // A move with leave to overwrite would take away a whole folder at its end without a word.
  if (!isThere) {
    std::optional<HTTPResponse> response = sendMove(from, false, to, Overwrite::kNo, error);
    if (!response || response->status != 412) return response;
  }
  bool isDirectory = false;
  NSErrorRef reason;
  const bool exists = attributes(to, &isDirectory, &reason).has_value();
  if (exists && isDirectory) reason = QuarnKitError::errorWithCode(kQuarnKitItemExists, to);
  if (exists && !isDirectory) return sendMove(from, false, to, Overwrite::kYes, error);
  // What was there has gone meanwhile.
  if (QuarnKitError::isCode(reason, kQuarnKitNoSuchItem))
    return sendMove(from, false, to, Overwrite::kNo, error);
  storeError(error, reason);
  return std::nullopt;
}

bool WebDAVSession::move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) {
  const std::optional<HTTPResponse> response =
      isDirectory ? sendMove(from, true, to, Overwrite::kNo, error) : moveFile(from, to, false, error);
  return succeeded(DAVRequestKind::kMove, response, from, error);
}

bool WebDAVSession::remove(std::string_view path, bool isDirectory, NSErrorRef* error) {
  if (!isDirectory) return removeFile(path, kLongPatience, error);
  const std::optional<DAVListing> found = folderListing(DAVRequestKind::kRemove, path, error);
  if (!found) return false;
  if (found->holdsItems) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitFolderNotEmpty, path));
    return false;
  }
  HTTPRequest request;
  request.method = "DELETE";
  request.url = urlOf(path, true);
  request.patience = kLongPatience;
  return succeeded(DAVRequestKind::kRemove, send(std::move(request), error), path, error);
}

bool WebDAVSession::removeFile(std::string_view path, std::chrono::milliseconds patience, NSErrorRef* error) {
  HTTPRequest request;
  request.method = "DELETE";
  request.url = urlOf(path, false);
  request.patience = patience;
  // Refused, where servers look at it, for a folder that has taken the file's place.
  request.headers = {{"Depth", "0"}};
  return succeeded(DAVRequestKind::kRemove, send(std::move(request), error), path, error);
}

}  // namespace ombra
