// Making, moving and removing names, and paths in normal form.
#include "remote/RemotePaths.h"
#include "remote/sftp/SFTPSession.h"

namespace ombra {

std::optional<std::string> SFTPSession::realPath(std::string_view path, std::string_view base,
                                                 bool* isDirectory, NSErrorRef* error) {
  std::optional<std::string> absolute;
  if (path.starts_with('~')) {
    absolute = expandTilde(path, error);
    if (!absolute) return std::nullopt;
  } else if (path.starts_with('/')) {
    absolute = path;
  } else {
    // Not tidied up: to a server, a "/" at the end may say that a link is to be followed.
    absolute = remotePathInFolder(base.empty() ? std::string_view(iLoginPath) : base, path);
  }
  if (!isUsablePath(*absolute, error)) return std::nullopt;

  const uint32_t nameID = iRequests.realpath(*absolute);
  // Resolving tolerates a missing last component on most servers; looking at the item does not.
  const uint32_t statID = iRequests.stat(*absolute);
  const auto name = waitName(nameID, *absolute, error);
  if (!name) {
    iChannel.abandon(statID);
    return std::nullopt;
  }
  const auto attributes = waitAttributes(statID, SFTPOperation::kOther, *absolute, error);
  if (!attributes) return std::nullopt;
  if (isDirectory != nullptr) *isDirectory = attributes->isDirectory();
  return normalRemotePath(*name);
}

std::optional<std::string> SFTPSession::expandTilde(std::string_view path, NSErrorRef* error) {
  if (!iChannel.hasExtension("expand-path@openssh.com", "1")) return homeWithoutExpansion(path, error);
  if (!isUsablePath(path, error)) return std::nullopt;
  return waitName(iRequests.expandPath(path), path, error);
}

// The folder that a login lands in is the home folder, unless the server was set up otherwise; other users'
// homes cannot be asked for.
std::optional<std::string> SFTPSession::homeWithoutExpansion(std::string_view path, NSErrorRef* error) {
  if (path == "~" || path.starts_with("~/")) return iLoginPath + std::string(path.substr(1));
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, path));
  return std::nullopt;
}

bool SFTPSession::createFolder(std::string_view path, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const Walks::Change change(*iWalks, path);
  NSErrorRef reason;
  const uint32_t id = iRequests.mkdir(path);
  // Whoever makes a folder looks at it next, on the same connection: asked for in the same round trip.
  const uint32_t statID = iRequests.stat(path);
  if (waitStatus(id, SFTPOperation::kChangeName, path, &reason)) {
    const auto made = waitAttributes(statID, SFTPOperation::kOther, path, nullptr);
    if (made && made->isDirectory()) iMadeFolder.emplace(path, *made);
    return true;
  }
  iChannel.abandon(statID);
  storeError(error, explainCreation(reason, path));
  return false;
}

bool SFTPSession::createSymbolicLink(std::string_view path, std::string_view target, NSErrorRef* error) {
  if (!isUsablePath(path, error) || !isUsablePath(target, error)) return false;
  const Walks::Change change(*iWalks, path);
  NSErrorRef reason;
  if (waitStatus(iRequests.symlink(target, path), SFTPOperation::kChangeName, path, &reason)) return true;
  storeError(error, explainCreation(reason, path));
  return false;
}

// The protocol has no status for "exists": what is there tells.
NSErrorRef SFTPSession::explainCreation(NSErrorRef refused, std::string_view path) {
  if (!QuarnKitError::isCode(refused, kQuarnKitRefused) || !lookAt(path)) return refused;
  return QuarnKitError::errorWithCode(kQuarnKitItemExists, path, refused);
}

bool SFTPSession::move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) {
  if (!isUsablePath(from, error) || !isUsablePath(to, error)) return false;
  const Walks::Change leaving(*iWalks, from);
  const Walks::Change arriving(*iWalks, to);
  closeUploadHandleBelow(from);
  closeUploadHandleBelow(to);
  iAhead.closeBelow(from);
  iAhead.closeBelow(to);
  const bool replaces = iChannel.hasExtension("posix-rename@openssh.com", "1");
  const uint32_t id = replaces ? iRequests.posixRename(from, to) : iRequests.rename(from, to);
  NSErrorRef reason;
  if (waitStatusPatiently(id, SFTPOperation::kChangeName, from, &reason)) return true;
  if (!replaces) {
    reason = explainCreation(reason, to);
  } else if (isDirectory && QuarnKitError::isCode(reason, kQuarnKitRefused) && lookAt(to) &&
             !isEmptyFolder(to)) {
    reason = QuarnKitError::errorWithCode(kQuarnKitFolderNotEmpty, to, reason);
  }
  storeError(error, reason);
  return false;
}

bool SFTPSession::remove(std::string_view path, bool isDirectory, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  const Walks::Change change(*iWalks, path);
  closeUploadHandleBelow(path);
  iAhead.closeBelow(path);
  const uint32_t id = isDirectory ? iRequests.rmdir(path) : iRequests.remove(path);
  NSErrorRef reason;
  if (waitStatus(id, SFTPOperation::kOther, path, &reason)) return true;
  if (isDirectory && QuarnKitError::isCode(reason, kQuarnKitRefused) && !isEmptyFolder(path)) {
    reason = QuarnKitError::errorWithCode(kQuarnKitFolderNotEmpty, path, reason);
  }
  storeError(error, reason);
  return false;
}

// True also for what cannot be listed: then there is nothing to say about its contents.
bool SFTPSession::isEmptyFolder(std::string_view path) {
  std::vector<RemoteEntry> entries;
  if (!list(path, &entries, nullptr)) return true;
  for (const RemoteEntry& entry : entries) {
    if (entry.name != "." && entry.name != "..") return false;
  }
  return true;
}

}  // namespace ombra
