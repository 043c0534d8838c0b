#include "remote/webdav/WebDAVSession.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <utility>

#include "platform/foundation/ASCII.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/RetryPauses.h"
#include "remote/URLEncoding.h"
#include "remote/net/HostOfAddress.h"

namespace ombra {

namespace {

constexpr int kMostRedirects = 5;
constexpr int kMostPauses = 3;
constexpr std::chrono::milliseconds kPause{1000};
constexpr std::chrono::milliseconds kLongestPause{5000};

HTTPURL serverOf(const KCCredentials& credentials) {
  HTTPURL url;
  url.scheme = credentials.protocol() == kProtocolWebDAVTLS ? "https" : "http";
  // As answers name it, to which it is compared.
  url.host = lowercasedASCII(hostOfAddress(credentials.address()));
  url.port = credentials.port() != 0 ? credentials.port() : (url.scheme == "https" ? 443 : 80);
  return url;
}

// There are no links here, so that ".." is the folder above by name.
std::string normalPath(std::string_view path, std::string_view base) {
  if (!path.starts_with('~')) return normalRemotePath(absoluteRemotePath(path, base));
  // There are no homes either: everybody's is where the server begins.
  path.remove_prefix(std::min(path.find('/'), path.size()));
  return normalRemotePath(path);
}

// Refused before it was looked at, because there is too much to do.
bool isBusy(int status) { return status == 429 || status == 503; }

std::chrono::milliseconds pauseWanted(const HTTPResponse& response) {
  const std::string* text = response.header("Retry-After");
  int seconds = 0;
  if (text == nullptr ||
      std::from_chars(text->data(), text->data() + text->size(), seconds).ec != std::errc())
    return kPause;
  return std::clamp<std::chrono::milliseconds>(std::chrono::seconds(seconds), std::chrono::milliseconds(0),
                                               kLongestPause);
}

bool isRedirect(int status) { return status == 301 || status == 302 || status == 307 || status == 308; }

bool changesNothing(std::string_view method) { return method == "PROPFIND" || method == "OPTIONS"; }

bool isFolderRequest(const HTTPRequest& request) {
  return request.url.ends_with('/') || request.method == "MKCOL";
}

}  // namespace

WebDAVSession::WebDAVSession(const SessionEnvironment& environment, std::shared_ptr<WebDAVFacts> facts)
    : iEnvironment(environment),
      iFacts(std::move(facts)),
      iServer(serverOf(*environment.credentials)),
      iClient(environment, HTTPAuthentication::basicOrDigest,
              std::shared_ptr<HTTPLoginFacts>(iFacts, &iFacts->login)) {}

std::string WebDAVSession::urlOf(std::string_view path, bool isFolder) const {
  std::string url = iServer.origin() + percentEncodedPath(path);
  if (isFolder && !url.ends_with('/')) url += '/';
  return url;
}

std::optional<HTTPResponse> WebDAVSession::sendPatiently(const HTTPRequest& request, NSErrorRef* error) {
  iFoundStart.reset();
  for (int pauses = 0;; ++pauses) {
    std::optional<HTTPResponse> response = iClient.perform(request, error);
    // During a login it is the pool that waits, and asks for fewer sessions.
    const bool mayWait = pauses < kMostPauses && !iLogsIn;
    if (!response || !isBusy(response->status) || !mayWait) return response;
    const bool hasSource = request.body && request.body->source;
    if (hasSource && (!request.body->rewind || !request.body->rewind())) return response;
    if (!iClient.pause(pauseWanted(*response), request.control, error)) return std::nullopt;
  }
}

std::optional<HTTPResponse> WebDAVSession::send(HTTPRequest request, NSErrorRef* error) {
  for (int redirects = 0;; ++redirects) {
    std::optional<HTTPResponse> response = sendPatiently(request, error);
    if (!response || !isRedirect(response->status) || redirects == kMostRedirects) return response;
    const std::string* location = response->header("Location");
    const std::optional<HTTPURL> from = HTTPURL::parse(request.url);
    const std::optional<HTTPURL> to = location != nullptr && from ? from->resolve(*location) : std::nullopt;
    if (!to || !to->hasOriginOf(iServer)) return response;
    // A file's request that is sent on to a folder is about something else than was meant.
    const bool isSameItem =
        isFolderRequest(request) && percentDecoded(to->path) == percentDecoded(from->path) + "/";
    if (!isSameItem && !changesNothing(request.method)) return response;
    request.url = to->text();
  }
}

bool WebDAVSession::succeeded(DAVRequestKind kind, const std::optional<HTTPResponse>& response,
                              std::string_view path, NSErrorRef* error) {
  if (!response) return false;
  if (response->status / 100 != 2) {
    storeError(error, davError(kind, *response, path));
    return false;
  }
  if (response->status != 207) return true;
  std::string reason;
  const std::optional<std::vector<DAVResponse>> responses = parseDAVMultistatus(response->body, &reason);
  if (!responses) {
    storeError(error, davNonsense(path, reason));
    return false;
  }
  for (const DAVResponse& item : *responses) {
    // 424: what failed because something else did; that is told too.
    if (item.status < 300 || item.status == 424) continue;
    storeError(error, davError(kind, item.status, percentDecoded(item.href)));
    return false;
  }
  return true;
}

bool WebDAVSession::logIn(NSErrorRef* error) {
  iLogsIn = true;
  const bool isIn = findStart(error) && clearLeftovers(error);
  iLogsIn = false;
  return isIn;
}

// Tried once: a server that cannot bear it would let nobody in any more.
bool WebDAVSession::clearLeftovers(NSErrorRef* error) {
  for (const std::string& path : iFacts->leftovers.take()) {
    NSErrorRef reason;
    if (removeFile(path, iEnvironment.connectLimit, &reason) || !isOutage(reason)) continue;
    storeError(error, reason);
    return false;
  }
  return true;
}

bool WebDAVSession::findStart(NSErrorRef* error) {
  const std::optional<std::string>& initial = iEnvironment.credentials->initialPath();
  const std::string start = normalPath(initial.value_or("/"), "/");
  NSErrorRef reason;
  if (const auto found = properties(DAVRequestKind::kLogin, start, true, 0, &reason)) {
    if (found->self.properties.isCollection) iFoundStart = start;
    return true;
  }
  // It may be a file, whose name with a slash behind it servers refuse in various ways.
  const bool isRefused = QuarnKitError::isCode(reason, kQuarnKitRefused);
  const bool isBadName =
      isRefused && reason->underlyingError() != nullptr && reason->underlyingError()->code() == 400;
  if (isBadName && properties(DAVRequestKind::kLogin, start, false, 0, &reason)) return true;
  // The login was accepted; what is there, and whether it may be seen, is a later question.
  if (QuarnKitError::isCode(reason, kQuarnKitNoSuchItem) ||
      QuarnKitError::isCode(reason, kQuarnKitPermissionDenied))
    return true;
  storeError(error, reason);
  return false;
}

std::optional<std::string> WebDAVSession::realPath(std::string_view path, std::string_view base,
                                                   bool* isDirectory, NSErrorRef* error) {
  std::string normal = normalPath(path, base);
  if (std::exchange(iFoundStart, std::nullopt) == normal) {
    if (isDirectory != nullptr) *isDirectory = true;
    return normal;
  }
  const std::optional<DAVListing> found =
      properties(DAVRequestKind::kAttributes, normal, normal == "/", 0, error);
  if (!found) return std::nullopt;
  if (isDirectory != nullptr) *isDirectory = found->self.properties.isCollection;
  return normal;
}

std::optional<LinkResolution> WebDAVSession::resolveLink(std::string_view path, NSErrorRef* error) {
  LinkResolution resolution;
  resolution.resolvedPath = path;
  resolution.resolved = true;
  NSErrorRef reason;
  resolution.attributes = attributes(path, &resolution.isDirectory, &reason);
  resolution.exists = resolution.attributes.has_value();
  if (resolution.exists || QuarnKitError::isCode(reason, kQuarnKitNoSuchItem)) return resolution;
  storeError(error, reason);
  return std::nullopt;
}

std::optional<NSFileAttributes> WebDAVSession::attributes(std::string_view path, bool* isDirectory,
                                                          NSErrorRef* error) {
  const std::optional<DAVListing> found =
      properties(DAVRequestKind::kAttributes, path, path == "/", 0, error);
  if (!found) return std::nullopt;
  if (isDirectory != nullptr) *isDirectory = found->self.properties.isCollection;
  return attributesOfDAVProperties(found->self.properties);
}

std::optional<NSFileAttributes> WebDAVSession::fileSystemAttributes(std::string_view path,
                                                                    NSErrorRef* error) {
  const std::optional<DAVListing> found = properties(DAVRequestKind::kQuota, path, true, 0, error);
  if (!found) return std::nullopt;
  const DAVProperties& told = found->self.properties;
  if (!told.quotaAvailable) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, "the server tells no quota"));
    return std::nullopt;
  }
  NSFileAttributes volume;
  volume.systemFreeSize = *told.quotaAvailable;
  volume.systemSize = *told.quotaAvailable + told.quotaUsed.value_or(0);
  return volume;
}

}  // namespace ombra
