// What is at a path, and in a folder.
#include "remote/QuarnKitError.h"
#include "remote/webdav/DAVPropertyNames.h"
#include "remote/webdav/WebDAVSession.h"

namespace ombra {

std::optional<DAVListing> WebDAVSession::properties(DAVRequestKind kind, std::string_view path, bool isFolder,
                                                    int depth, NSErrorRef* error) {
  HTTPRequest request;
  request.method = "PROPFIND";
  request.url = urlOf(path, isFolder);
  request.headers = {{"Depth", depth == 0 ? "0" : "1"}, {"Content-Type", "application/xml; charset=utf-8"}};
  request.body = HTTPBody{std::string(davPropertyRequest(kind)), {}, {}, {}};
  if (kind == DAVRequestKind::kLogin) request.patience = iEnvironment.connectLimit;
  DAVListingReader reader(path);
  bool isTooLong = false;
  request.take = [&reader, &isTooLong](const HTTPResponse&, std::span<const std::byte> piece) {
    isTooLong = !reader.add({reinterpret_cast<const char*>(piece.data()), piece.size()});
    return !isTooLong;
  };
  NSErrorRef failure;
  const std::optional<HTTPResponse> response = send(std::move(request), &failure);
  if (!response && !isTooLong) {
    storeError(error, failure);
    return std::nullopt;
  }
  if (response && response->status != 207) {
    // A success of another kind comes from a server that does not know the question.
    const bool isSuccess = response->status / 100 == 2;
    storeError(error, isSuccess ? davNonsense(path, "there is no WebDAV at this address")
                                : davError(kind, *response, path));
    return std::nullopt;
  }
  std::string reason;
  std::optional<DAVListing> listing = reader.finish(&reason);
  if (!listing) {
    storeError(error, davNonsense(path, reason));
    return std::nullopt;
  }
  const bool isRefused = listing->hasSelf && listing->self.status / 100 > 2;
  if (listing->hasSelf && !isRefused) return listing;
  storeError(error, isRefused
                        ? davError(kind, listing->self.status, path)
                        : davNonsense(path, "the answer does not tell about the item that was asked for"));
  return std::nullopt;
}

std::optional<DAVListing> WebDAVSession::folderListing(DAVRequestKind kind, std::string_view path,
                                                       NSErrorRef* error) {
  NSErrorRef reason;
  std::optional<DAVListing> found = properties(kind, path, true, 1, &reason);
  if (found && found->self.properties.isCollection) return found;
  if (found) {
    reason = QuarnKitError::errorWithCode(kQuarnKitNotAFolder, path);
  } else if (QuarnKitError::isCode(reason, kQuarnKitRefused) ||
             QuarnKitError::isCode(reason, kQuarnKitListingNotPermitted) ||
             QuarnKitError::isCode(reason, kQuarnKitPermissionDenied)) {
    // Servers refuse a file's name with a slash behind it in various ways.
    bool isDirectory = true;
    if (attributes(path, &isDirectory, nullptr) && !isDirectory)
      reason = QuarnKitError::errorWithCode(kQuarnKitNotAFolder, path);
  }
  storeError(error, reason);
  return std::nullopt;
}

bool WebDAVSession::list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  std::optional<DAVListing> found = folderListing(DAVRequestKind::kList, path, error);
  if (!found) return false;
  *entries = std::move(found->children);
  return true;
}

}  // namespace ombra
