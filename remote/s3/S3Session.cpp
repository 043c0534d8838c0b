// Logging in and looking.
#include "remote/s3/S3Session.h"

#include <chrono>
#include <utility>

#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/http/HTTPDate.h"
#include "remote/http/HTTPLengths.h"
#include "remote/s3/S3Errors.h"
#include "remote/s3/S3FolderPages.h"

namespace ombra {
namespace {

// Whoever logs in lists the start folder next, or not at all.
constexpr std::chrono::seconds kStartPageLasts{5};

// Who is asked about a certificate is there for the login alone. Later connections, to a bucket's own host or
// in place of a lost one, are as good as the login when an authority vouches for the host, which is checked
// before.
SessionEnvironment withLastingTrust(SessionEnvironment environment,
                                    std::shared_ptr<const std::atomic<bool>> isLoggedIn) {
  environment.isWorthyTrust = [asked = environment.isWorthyTrust,
                               isLoggedIn](const std::string& fingerprint) {
    return isLoggedIn->load() || (asked && asked(fingerprint));
  };
  return environment;
}

}  // namespace

S3Session::S3Session(SessionEnvironment environment, std::optional<S3Endpoint> endpoint,
                     std::shared_ptr<S3Knowledge> knowledge, S3Limits limits)
    : iHasEndpoint(endpoint.has_value()),
      iLimits(limits),
      iClient(withLastingTrust(std::move(environment), iIsLoggedIn), endpoint.value_or(S3Endpoint()),
              std::move(knowledge)) {}

bool S3Session::logIn(NSErrorRef* error) {
  *iIsLoggedIn = askForLogin(error);
  return *iIsLoggedIn;
}

// A question whose answer tells whether the key is good. The first login asks for what is listed next, the
// start folder, later ones for as little as possible. That it may not be asked tells the same, unless nobody
// is logged in at all. A folder may be missing, and what is above it is taken then; above a bucket there is
// only the list of all, which nobody has asked for who names one.
bool S3Session::askForLogin(NSErrorRef* error) {
  if (!iHasEndpoint) {
    storeError(error, QuarnKitError::errorWithCode(
                          kQuarnKitCouldNotResolveHost,
                          "the endpoint is no URL of the form https://host:port or http://host:port"));
    return false;
  }
  const S3Path start = S3Path::parse(iClient.environment().credentials->initialPath().value_or("/"));
  S3Request request;
  const bool isPage = !hasSeen(start);
  const uint64_t changes = iClient.knowledge().changes();
  if (!start.isRoot()) {
    request.bucket = start.bucket;
    request.query = s3PageQuery(start.prefix(), !isPage, isPage ? 0 : 1, {});
  }
  request.longestBody = kS3LongestPage;
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (!answer) return false;
  if (answer->isGood()) {
    const std::string& body = answer->response.body;
    if (start.isRoot() ? s3Buckets(body).has_value() : noteStart(start, isPage, body)) {
      if (iStartPage) iStartPage->changes = changes;
      return true;
    }
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError,
                                                   iClient.endpoint().host() + " is no S3 server"));
    return false;
  }
  const NSErrorRef fault = s3Error(*answer->refusal, start.text());
  const std::string& code = answer->refusal->code;
  const bool isFolderMissing = QuarnKitError::isCode(fault, kQuarnKitNoSuchItem) && !start.isRoot() &&
                               !code.empty() && code != "NoSuchBucket" && code != "InvalidBucketName";
  const bool isForbidden = QuarnKitError::isCode(fault, kQuarnKitPermissionDenied) &&
                           iClient.environment().credentials->username().has_value();
  const bool isLoggedIn = isForbidden || isFolderMissing;
  if (!isLoggedIn) storeError(error, fault);
  return isLoggedIn;
}

// Whether this session or another one has seen the folder within the last minute.
bool S3Session::hasSeen(const S3Path& folder) const {
  const S3Knowledge& knowledge = iClient.knowledge();
  return folder.isBucket() ? knowledge.hasSeenBucket(folder.bucket)
                           : knowledge.folder(folder) != S3Knowledge::Folder::kUnknown;
}

// The answer to the login is one about the start folder, too, which is looked at next, and listed.
bool S3Session::noteStart(const S3Path& start, bool isPage, const std::string& body) {
  std::optional<S3Listing> listing = s3Page(body, start.prefix());
  if (!listing) return false;
  const bool isThere = start.isBucket() || !listing->objects.empty() || !listing->prefixes.empty();
  if (isPage) iStartPage = {start, std::move(*listing), std::chrono::steady_clock::now()};
  if (isThere) iClient.knowledge().noteFolder(start, false);
  return true;
}

// The page that came with the login, once, while no session has begun to change anything.
std::optional<S3Listing> S3Session::takeStartPage(const S3Path& folder) {
  const std::optional<StartPage> page = std::exchange(iStartPage, std::nullopt);
  const bool isFresh = page && page->folder == folder && page->changes == iClient.knowledge().changes() &&
                       std::chrono::steady_clock::now() - page->came < kStartPageLasts;
  return isFresh ? std::optional(page->listing) : std::nullopt;
}

std::optional<std::string> S3Session::realPath(std::string_view path, std::string_view base,
                                               bool* isDirectory, NSErrorRef* error) {
  // There are no homes: all begin at the list of buckets.
  if (path.starts_with('~'))
    path = path.find('/') == std::string_view::npos ? "/" : path.substr(path.find('/'));
  const S3Path target = S3Path::parse(absoluteRemotePath(path, base));
  if (iClient.knowledge().folder(target) != S3Knowledge::Folder::kUnknown) {
    if (isDirectory != nullptr) *isDirectory = true;
    return target.text();
  }
  const std::optional<Item> item = look(target, error);
  if (!item) return std::nullopt;
  if (item->kind == Kind::kNothing) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, target.text()));
    return std::nullopt;
  }
  if (isDirectory != nullptr) *isDirectory = item->kind == Kind::kFolder;
  return target.text();
}

std::optional<LinkResolution> S3Session::resolveLink(std::string_view path, NSErrorRef* error) {
  const std::optional<Item> item = look(S3Path::parse(path), error);
  if (!item) return std::nullopt;
  LinkResolution resolution;
  resolution.resolved = true;
  resolution.resolvedPath = path;
  resolution.exists = item->kind != Kind::kNothing;
  resolution.isDirectory = item->kind == Kind::kFolder;
  if (resolution.exists) resolution.attributes = item->attributes;
  return resolution;
}

std::optional<NSFileAttributes> S3Session::attributes(std::string_view path, bool* isDirectory,
                                                      NSErrorRef* error) {
  const std::optional<Item> item = look(S3Path::parse(path), error);
  if (!item) return std::nullopt;
  if (item->kind == Kind::kNothing) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, path));
    return std::nullopt;
  }
  if (isDirectory != nullptr) *isDirectory = item->kind == Kind::kFolder;
  return item->attributes;
}

std::optional<NSFileAttributes> S3Session::fileSystemAttributes(std::string_view path, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
  return std::nullopt;
}

std::optional<S3Answer> S3Session::askForObject(const S3Path& path, NSErrorRef* error) {
  S3Request request;
  request.method = "HEAD";
  request.bucket = path.bucket;
  request.key = path.key;
  std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (answer && path.isItem()) {
    if (answer->isGood()) iClient.knowledge().noteObject(path);
    if (!answer->isGood() && s3IsMissing(*answer->refusal)) iClient.knowledge().forgetObject(path);
  }
  return answer;
}

std::optional<S3Session::Item> S3Session::lookAtBucket(const S3Path& path, NSErrorRef* error) {
  const std::optional<S3Answer> answer = askForObject(path, error);
  if (!answer) return std::nullopt;
  // One whose top may not be listed is there all the same: a folder in it may be open.
  if (answer->isGood() || answer->refusal->status == 403) return Item{Kind::kFolder, s3FolderAttributes()};
  if (s3IsMissing(*answer->refusal)) return Item{};
  storeError(error, s3Error(*answer->refusal, path.text()));
  return std::nullopt;
}

std::optional<S3Session::Item> S3Session::look(const S3Path& path, NSErrorRef* error) {
  if (path.isRoot()) return Item{Kind::kFolder, s3FolderAttributes()};
  if (path.isBucket()) return lookAtBucket(path, error);
  const bool wasJustMade = std::exchange(iMadeFolder, std::nullopt) == path;
  if (wasJustMade && iClient.requests() == iRequestsWhenMade)
    return Item{Kind::kFolder, s3FolderAttributes()};
  std::optional<S3Refusal> refusal;
  // What was a folder a moment ago is asked for as one first.
  const bool wasFolder = iClient.knowledge().folder(path) != S3Knowledge::Folder::kUnknown;
  for (const bool asFolder : {wasFolder, !wasFolder}) {
    if (asFolder) {
      const std::optional<Glimpse> seen = glimpse(path, 1, error);
      if (!seen) return std::nullopt;
      if (!seen->keys.empty()) return Item{Kind::kFolder, s3FolderAttributes()};
      continue;
    }
    const std::optional<S3Answer> answer = askForObject(path, error);
    if (!answer) return std::nullopt;
    if (answer->isGood()) {
      const std::string* date = answer->response.header("Last-Modified");
      return Item{Kind::kObject, s3ObjectAttributes(httpContentLength(answer->response).value_or(0),
                                                    date != nullptr ? dateOfHTTPText(*date) : std::nullopt)};
    }
    if (!s3IsMissing(*answer->refusal)) refusal = answer->refusal;
  }
  if (!refusal) return Item{};
  storeError(error, s3Error(*refusal, path.text()));
  return std::nullopt;
}

}  // namespace ombra
