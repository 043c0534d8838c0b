#include "remote/PooledConnection.h"

#include "remote/KCCredentials.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/RetryPauses.h"

namespace ombra {
namespace {

// A failure always has a reason.
void storeReason(NSErrorRef* slot, NSErrorRef error) {
  storeError(slot, error != nullptr ? std::move(error) : QuarnKitError::errorWithCode(kQuarnKitRefused));
}

}  // namespace

PooledConnection::~PooledConnection() { release(); }

void PooledConnection::release() {
  iReleased = true;
  dropSession(true);
  iKnownLinks.clear();
  iFolder.reset();
}

void PooledConnection::dropSession(bool reusable) {
  endTransfer();
  if (iSession == nullptr) return;
  sessions().detach(std::move(iSession), reusable);
  iSession.reset();
}

bool PooledConnection::loseSession(const NSErrorRef& error) {
  const bool lost = QuarnKitError::isCode(error, kQuarnKitConnectionLost) ||
                    QuarnKitError::isCode(error, kQuarnKitTimedOut);
  // After nonsense from the server a session is mostly at its end too; the call is not repeated.
  const bool isDead = !lost && iSession != nullptr && QuarnKitError::isCode(error, kQuarnKitProtocolError) &&
                      !iSession->session->isAlive();
  if (lost || isDead) dropSession(false);
  return lost;
}

bool PooledConnection::attachForRequest(NSErrorRef* error) {
  if (iReleased) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitConnectionLost, "the connection was given back"));
    return false;
  }
  if (iSession == nullptr) iSession = sessions().attach(*this, SessionUse::kRequest, error);
  return iSession != nullptr;
}

bool PooledConnection::perform(Repeat repeat, const Work& work, NSErrorRef* error) {
  RetryPauses pauses;
  while (true) {
    NSErrorRef fault;
    bool again = false;
    iHasOneAttempt = repeat == Repeat::kNever;
    const bool isAttached = attachForRequest(&fault);
    iHasOneAttempt = false;
    if (!isAttached) {
      // Nothing was sent, so that even a change may be tried again.
      again = isOutage(fault);
    } else if (work(*iSession->session, &fault)) {
      // Somebody may wait for the end of a hold, and it is unknown when this connection is released.
      sessions().obey(*iSession);
      return true;
    } else {
      again = loseSession(fault) && repeat == Repeat::kSafe;
    }
    const std::optional<double> seconds = again && !iReleased ? pauses.next() : std::nullopt;
    if (!seconds || !sessions().pause(*seconds, *this)) {
      storeReason(error, std::move(fault));
      return false;
    }
  }
}

bool PooledConnection::performChange(std::string_view path, std::string_view otherPath, const Work& work,
                                     NSErrorRef* error) {
  iKnownLinks.clear();
  if (!isAllowed(path, error) || !isAllowed(otherPath, error)) return false;
  if (!makeFilesAtOrBelow(path, error)) return false;
  if (!otherPath.empty() && !makeFilesAtOrBelow(otherPath, error)) return false;
  const Walks::Change change(walks(), absolute(path));
  const Walks::Change other(walks(), absolute(otherPath.empty() ? path : otherPath));
  return perform(Repeat::kNever, work, error);
}

bool PooledConnection::isAllowed(std::string_view path, NSErrorRef* error) const {
  if (path.find('\0') == std::string_view::npos) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNameInvalid, "a name holds a NUL byte"));
  return false;
}

std::string PooledConnection::absolute(std::string_view path) const {
  return absoluteRemotePath(path, iFolder ? *iFolder : loginPath().value_or("/"));
}

bool PooledConnection::connect(NSErrorRef* error) {
  // One attempt, within the connect limit: somebody sits in front of it and waits.
  NSErrorRef fault;
  if (attachForRequest(&fault)) return true;
  storeReason(error, std::move(fault));
  return false;
}

bool PooledConnection::changeDir(std::string_view path, NSErrorRef* error) {
  if (!isAllowed(path, error) || !makeFileToBeLookedAt(path, error)) return false;
  std::optional<std::string> resolved;
  bool isDirectory = false;
  const Work work = [&](Session& session, NSErrorRef* fault) {
    const std::string base = iFolder ? *iFolder : session.loginPath();
    resolved = session.realPath(path, base, &isDirectory, fault);
    return resolved.has_value();
  };
  if (!perform(Repeat::kSafe, work, error)) return false;
  if (!isDirectory) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotAFolder, path));
    return false;
  }
  iFolder = absoluteRemotePath(*resolved, "/");
  return true;
}

std::optional<std::string> PooledConnection::pwd(NSErrorRef* error) {
  if (iFolder) return iFolder;
  if (!loginPath() && !connect(error)) return std::nullopt;
  return absoluteRemotePath(loginPath().value_or("/"), "/");
}

bool PooledConnection::resolvePath(std::string_view path, std::string* resolvedPath, bool* isDirectory,
                                   NSErrorRef* error) {
  if (!isAllowed(path, error) || !makeFileToBeLookedAt(path, error)) return false;
  const std::string whole = absolute(path);
  std::optional<LinkResolution> resolution = iKnownLinks.resolution(whole);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    resolution = session.resolveLink(whole, fault);
    return resolution.has_value();
  };
  if (!resolution && !perform(Repeat::kSafe, work, error)) return false;
  if (!resolution->resolved) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitRefused, "the link leads in a circle"));
    return false;
  }
  if (resolvedPath != nullptr) *resolvedPath = resolution->resolvedPath;
  if (isDirectory != nullptr) *isDirectory = resolution->isDirectory;
  return true;
}

std::optional<NSFileAttributes> PooledConnection::attributesOfItemAtPath(std::string_view path,
                                                                         bool* isDirectory,
                                                                         NSErrorRef* error) {
  if (!isAllowed(path, error) || !makeFileToBeLookedAt(path, error)) return std::nullopt;
  const std::string whole = absolute(path);
  if (const std::optional<KnownLinks::Target> known = iKnownLinks.target(whole)) {
    if (!known->attributes) storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, whole));
    if (isDirectory != nullptr) *isDirectory = known->isDirectory;
    return known->attributes;
  }
  std::optional<NSFileAttributes> attributes;
  bool folder = false;
  const Work work = [&](Session& session, NSErrorRef* fault) {
    attributes = session.attributes(whole, &folder, fault);
    return attributes.has_value();
  };
  const bool isThere = perform(Repeat::kSafe, work, error);
  iCore->filesAhead.lookedAt(whole);
  if (!isThere) return std::nullopt;
  if (isDirectory != nullptr) *isDirectory = folder;
  return attributes;
}

std::optional<NSFileAttributes> PooledConnection::fileSystemAttributesAtPath(std::string_view path,
                                                                             NSErrorRef* error) {
  if (!isAllowed(path, error)) return std::nullopt;
  std::optional<NSFileAttributes> attributes;
  const std::string whole = absolute(path);
  const Work work = [&](Session& session, NSErrorRef* fault) {
    attributes = session.fileSystemAttributes(whole, fault);
    return attributes.has_value();
  };
  if (!perform(Repeat::kSafe, work, error)) return std::nullopt;
  return attributes;
}

void PooledConnection::setShouldCancel(bool shouldCancel) {
  iShouldCancel = shouldCancel;
  if (!shouldCancel) return;
  sessions().wakeWaiters();
  iCore->filesAhead.wake();
}

std::string PooledConnection::displayStringForRemoteString(std::string_view bytes) const {
  return sessions().credentials()->displayStringForRemoteString(bytes);
}

bool PooledConnection::isAwaited() {
  if (iIsCalledOff != nullptr) return false;
  if (iRun == nullptr || iRun->kind != Run::Kind::kDownload || !iRun->reporter.hasMoved()) return true;
  ConnectionDelegate* delegate = iDelegate;
  return delegate == nullptr || delegate->connectionIsAwaited(*this);
}

bool PooledConnection::isWorthyTrust(const std::string& fingerprint) {
  return iCore->trust.isWorthy(fingerprint, *this, iDelegate);
}

}  // namespace ombra
