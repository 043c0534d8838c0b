// Moving: the server copies, and what was copied is removed.
#include <algorithm>

#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/http/URLEncoding.h"
#include "remote/s3/S3Errors.h"
#include "remote/s3/S3MultipartUpload.h"
#include "remote/s3/S3PartSizes.h"
#include "remote/s3/S3Session.h"

namespace ombra {
namespace {

// A server copies as it reads and writes: a large object takes it minutes, in which it says nothing.
constexpr std::chrono::milliseconds kCopyPatience{900000};
constexpr int kMostPages = 100000;

std::string copySource(const std::string& bucket, const std::string& key) {
  return "/" + percentEncoded(bucket) + "/" + percentEncodedPath(key);
}

bool isTooLargeToCopy(const S3Refusal& refusal) {
  return refusal.status == 400 && (refusal.code == "InvalidRequest" || refusal.code == "EntityTooLarge");
}

// What an object has besides its content. A copy from parts gets it by hand.
std::vector<HTTPHeader> ownHeaders(const HTTPResponse& head) {
  std::vector<HTTPHeader> kept;
  for (const HTTPHeader& header : head.headers) {
    std::string name = header.name;
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 0x20) : c; });
    const bool isKept = name == "content-type" || name == "content-encoding" || name == "content-language" ||
                        name == "content-disposition" || name == "cache-control" || name == "expires" ||
                        name.starts_with("x-amz-meta-");
    // Under the name that the transport looks for, too.
    if (isKept) kept.push_back({name == "content-type" ? "Content-Type" : name, header.value});
  }
  return kept;
}

std::optional<uint64_t> lengthIn(const HTTPResponse& head) {
  const std::string* text = head.header("Content-Length");
  if (text == nullptr || text->empty() || text->size() > 18 ||
      text->find_first_not_of("0123456789") != std::string::npos)
    return std::nullopt;
  return std::stoull(*text);
}

}  // namespace

bool S3Session::move(std::string_view from, bool isDirectory, std::string_view to, NSErrorRef* error) {
  const S3Path source = S3Path::parse(from);
  const S3Path target = S3Path::parse(to);
  if (refuseOutsideOfBucket(source, error) || refuseOutsideOfBucket(target, error)) return false;
  // A copy onto itself would be followed by its removal.
  if (source == target) return true;
  if (!requireFolder(target.parent(), error)) return false;
  return isDirectory ? moveFolder(source, target, error) : moveObject(source, target, error);
}

bool S3Session::moveObject(const S3Path& from, const S3Path& to, NSErrorRef* error) {
  return copyObject(from, from.key, std::nullopt, to, to.key, error) && keepParent(from, error) &&
         deleteKey(from.bucket, from.key, error);
}

// A folder takes the place of nothing, or of an empty one.
bool S3Session::mayMoveFolderTo(const S3Path& to, NSErrorRef* error) {
  const std::optional<Kind> kind = kindOfName(to, error);
  if (!kind) return false;
  if (*kind == Kind::kNothing) return true;
  if (*kind == Kind::kObject) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemExists, to.text()));
    return false;
  }
  const std::optional<Glimpse> seen = glimpse(to, 2, error);
  if (!seen) return false;
  if (seen->keys.empty() || (seen->keys.size() == 1 && seen->isMarked)) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitFolderNotEmpty, to.text()));
  return false;
}

std::optional<std::vector<S3Session::Source>> S3Session::sourcesBelow(const S3Path& folder,
                                                                      NSErrorRef* error) {
  std::vector<Source> sources;
  std::string token;
  for (int page = 0; page < kMostPages; ++page) {
    const std::optional<S3Listing> listing = listPage(folder, folder.prefix(), true, 0, token, error);
    if (!listing) return std::nullopt;
    for (const S3ListedObject& object : listing->objects) sources.push_back({object.key, object.size});
    if (!listing->isTruncated) return sources;
    if (listing->nextToken == token) break;
    token = listing->nextToken;
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError,
                                                 "the listing of " + folder.text() + " has no end"));
  return std::nullopt;
}

bool S3Session::copyAll(const std::vector<Source>& sources, const S3Path& from, const S3Path& to,
                        NSErrorRef* error) {
  std::vector<std::string> copies;
  for (const Source& source : sources) {
    const std::string key = to.prefix() + source.key.substr(from.prefix().size());
    if (copyObject(from, source.key, source.size, to, key, error)) {
      copies.push_back(key);
      continue;
    }
    // The source is whole; half a copy helps nobody.
    (void)deleteKeys(to.bucket, copies, nullptr);
    iClient.knowledge().forgetFolders(to);
    return false;
  }
  return true;
}

bool S3Session::moveFolder(const S3Path& from, const S3Path& to, NSErrorRef* error) {
  if (isAtOrBelowRemotePath(to.text(), from.text())) {
    storeError(error,
               QuarnKitError::errorWithCode(kQuarnKitRefused, from.text() + " cannot be moved into itself"));
    return false;
  }
  const std::optional<std::vector<Source>> sources = sourcesBelow(from, error);
  if (!sources) return false;
  if (sources->empty()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, from.text()));
    return false;
  }
  if (!mayMoveFolderTo(to, error) || !copyAll(*sources, from, to, error)) return false;
  iClient.knowledge().noteFolder(to, false);
  if (!keepParent(from, error)) return false;
  std::vector<std::string> keys;
  for (const Source& source : *sources) keys.push_back(source.key);
  const bool isRemoved = deleteKeys(from.bucket, keys, error);
  iClient.knowledge().forgetFolders(from);
  return isRemoved;
}

bool S3Session::copyObject(const S3Path& from, const std::string& fromKey, std::optional<uint64_t> size,
                           const S3Path& to, const std::string& toKey, NSErrorRef* error) {
  if (size && *size > iLimits.singleCopy) return copyInParts(from, fromKey, to, toKey, error);
  S3Request request;
  request.method = "PUT";
  request.bucket = to.bucket;
  request.key = toKey;
  request.headers = {{"x-amz-copy-source", copySource(from.bucket, fromKey)}};
  request.body.emplace();
  request.patience = kCopyPatience;
  request.mayFailLate = true;
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (!answer) return false;
  // Whether it is too large is not asked before, since it hardly ever is.
  if (!answer->isGood() && !size && isTooLargeToCopy(*answer->refusal))
    return copyInParts(from, fromKey, to, toKey, error);
  if (!answer->isGood()) {
    storeError(error, s3Error(*answer->refusal, from.text()));
    return false;
  }
  if (s3CopiedTag(answer->response.body)) return true;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "the copy of " + from.text()));
  return false;
}

bool S3Session::copyInParts(const S3Path& from, const std::string& fromKey, const S3Path& to,
                            const std::string& toKey, NSErrorRef* error) {
  S3Request question;
  question.method = "HEAD";
  question.bucket = from.bucket;
  question.key = fromKey;
  const auto head = iClient.performOrFail(std::move(question), from.text(), error);
  if (!head) return false;
  const std::optional<uint64_t> length = lengthIn(*head);
  const std::string* tag = head->header("ETag");
  if (!length || *length == 0 || tag == nullptr) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, from.text() + " has no length"));
    return false;
  }
  S3MultipartUpload copy(iClient, to, toKey);
  if (!copy.begin(ownHeaders(*head), nullptr, error)) return false;
  const uint64_t part = s3PartSize(*length, iLimits.copyPart);
  for (uint64_t at = 0; at < *length; at += part) {
    const FileExtent range{at, std::min(at + part, *length)};
    if (!copy.copyPart(copySource(from.bucket, fromKey), *tag, range, error)) return false;
  }
  return copy.complete(nullptr, error);
}

}  // namespace ombra
