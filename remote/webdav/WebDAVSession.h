// A session with a WebDAV server (RFC 4918).
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "remote/Session.h"
#include "remote/http/HTTPClient.h"
#include "remote/http/HTTPURL.h"
#include "remote/webdav/DAVErrors.h"
#include "remote/webdav/DAVListing.h"
#include "remote/webdav/WebDAVFacts.h"

namespace ombra {

// Round trips: one for the login, another one where the server wants a password, and none to look at the
// start folder after it. Then one for a listing, attributes, a quota, a new folder, a download, a stream, the
// removal of a file, a move to where nothing is, a new file of up to kSmallUpload bytes and the emptying of a
// file; two for the removal of a folder (the server would take away a full one) and for a new large file;
// four to replace a file. A stream to a server that is not known to take streams waits for its leave, and is
// followed by a look at what has arrived.
//
// A whole file that replaces another is sent under a temporary name beside it, which is never listed, and
// then moved over it: what was there stays until the new content has arrived. Where the server refuses the
// name or the move, and not because it is in trouble, the file is written in place: then an upload that
// breaks off may leave the server's own mixture. A small file is first sent straight to its place, on the
// condition that there is none; a server that does not know the condition replaces an existing one at once.
//
// The server is never asked to do more than is meant: a file's removal and move say that they are about a
// file, so that a folder which took its place meanwhile is not taken away with all that is in it. Links do
// not exist, and modes and dates cannot be set. Locks are not taken.
class WebDAVSession final : public Session {
 public:
  static constexpr uint64_t kSmallUpload = 256 * 1024;

  WebDAVSession(const SessionEnvironment& environment, std::shared_ptr<WebDAVFacts> facts);

  bool logIn(NSErrorRef* error) override;
  std::string loginPath() const override { return "/"; }
  bool isAlive() override { return iClient.isAlive(); }
  void interrupt() override { iClient.interrupt(); }

  std::optional<std::string> realPath(std::string_view path, std::string_view base, bool* isDirectory,
                                      NSErrorRef* error) override;
  std::optional<LinkResolution> resolveLink(std::string_view path, NSErrorRef* error) override;
  std::optional<NSFileAttributes> attributes(std::string_view path, bool* isDirectory,
                                             NSErrorRef* error) override;
  std::optional<NSFileAttributes> fileSystemAttributes(std::string_view path, NSErrorRef* error) override;
  bool list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) override;

  bool createFolder(std::string_view path, NSErrorRef* error) override;
  bool createSymbolicLink(std::string_view path, std::string_view target, NSErrorRef* error) override;
  bool move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) override;
  bool remove(std::string_view path, bool isDirectory, NSErrorRef* error) override;
  bool changeAttributes(const NSFileAttributes& attributes, std::string_view path,
                        NSErrorRef* error) override;

  bool download(std::string_view path, NSFileHandle& to, uint64_t offset, std::string* version,
                TransferControl& control, NSErrorRef* error) override;
  bool upload(NSFileHandle& from, std::string_view path, uint64_t offset, TransferControl& control,
              NSErrorRef* error) override;
  bool stream(const std::function<size_t(std::byte*, size_t)>& next, std::string_view path,
              TransferControl& control, NSErrorRef* error) override;

 private:
  class Upload;  // of one whole file
  enum class Overwrite : uint8_t { kNo, kYes };

  // Whether the server lets us in where the volume is to begin.
  bool findStart(NSErrorRef* error);
  // Removes what sessions that were lost have left behind. False when this one is lost over it.
  bool clearLeftovers(NSErrorRef* error);
  // The URL of a path; `isFolder` writes the slash that servers want at a folder's end.
  std::string urlOf(std::string_view path, bool isFolder) const;
  // Sends the request, on to where the server says, as long as that is the same item on the same server: the
  // path with the slash that was missing, or for requests that change nothing any other path. A server that
  // has too much to do is asked again, a few times, after the pause that it wants.
  std::optional<HTTPResponse> send(HTTPRequest request, NSErrorRef* error);
  std::optional<HTTPResponse> sendPatiently(const HTTPRequest& request, NSErrorRef* error);
  // PROPFIND for a path; Depth 0 or 1.
  std::optional<DAVListing> properties(DAVRequestKind kind, std::string_view path, bool isFolder, int depth,
                                       NSErrorRef* error);
  // What lies in a folder; kQuarnKitNotAFolder for a file.
  std::optional<DAVListing> folderListing(DAVRequestKind kind, std::string_view path, NSErrorRef* error);
  // An answer that must be a success as a whole: also what lies inside of an answer 207.
  bool succeeded(DAVRequestKind kind, const std::optional<HTTPResponse>& response, std::string_view path,
                 NSErrorRef* error);
  // One MOVE, answered as it is.
  std::optional<HTTPResponse> sendMove(std::string_view from, bool isDirectory, std::string_view to,
                                       Overwrite overwrite, NSErrorRef* error);
  // Removes a file; the server may take so long.
  bool removeFile(std::string_view path, std::chrono::milliseconds patience, NSErrorRef* error);
  // Moves a file to where nothing is, or over a file, never over a folder. `isThere`: something is known to
  // be at the end, so that it is looked at first.
  std::optional<HTTPResponse> moveFile(std::string_view from, std::string_view to, bool isThere,
                                       NSErrorRef* error);
  // Whether the server says that its file is so long; else the error is that of a lost connection.
  bool hasLength(std::string_view path, uint64_t length, NSErrorRef* error);
  // Whether what was sent without a length is there.
  bool streamArrived(std::string_view path, uint64_t length, NSErrorRef* error);

  const SessionEnvironment iEnvironment;
  const std::shared_ptr<WebDAVFacts> iFacts;
  const HTTPURL iServer;  // without a path
  HTTPClient iClient;
  bool iLogsIn = false;
  // The folder that the login has just found, for whoever asks about it next. Gone with the next request.
  std::optional<std::string> iFoundStart;
};

}  // namespace ombra
