// Making and removing.
#include <algorithm>

#include "remote/QuarnKitError.h"
#include "remote/s3/S3Digest.h"
#include "remote/s3/S3Documents.h"
#include "remote/s3/S3Errors.h"
#include "remote/s3/S3Session.h"

namespace ombra {
namespace {

// So many keys are removed in one request.
constexpr size_t kBatch = 1000;
constexpr std::chrono::milliseconds kPatience{120000};

}  // namespace

// Buckets belong to an account and have settings of their own: they are made and removed elsewhere.
bool S3Session::refuseOutsideOfBucket(const S3Path& path, NSErrorRef* error) const {
  if (path.isItem()) return false;
  storeError(error, QuarnKitError::errorWithCode(
                        kQuarnKitPermissionDenied,
                        path.text() + ": buckets are neither made, removed, renamed nor written here"));
  return true;
}

// One question for both: the object of that name is the first of all keys that begin with it, and the folder
// is among them, mostly near.
std::optional<S3Session::Kind> S3Session::kindOfName(const S3Path& path, NSErrorRef* error) {
  constexpr int kNear = 10;
  const std::optional<S3Listing> near = listPage(path, path.key, false, kNear, {}, error);
  if (!near) return std::nullopt;
  for (const S3ListedObject& object : near->objects) {
    if (object.key == path.key) return Kind::kObject;
  }
  const bool isFolder =
      std::find(near->prefixes.begin(), near->prefixes.end(), path.prefix()) != near->prefixes.end();
  if (isFolder) return Kind::kFolder;
  if (!near->isTruncated) return Kind::kNothing;
  const std::optional<Glimpse> seen = glimpse(path, 1, error);
  if (!seen) return std::nullopt;
  return seen->keys.empty() ? Kind::kNothing : Kind::kFolder;
}

bool S3Session::putMarker(const S3Path& folder, NSErrorRef* error) {
  S3Request request;
  request.method = "PUT";
  request.bucket = folder.bucket;
  request.key = folder.prefix();
  request.headers = {{"Content-Type", "application/x-directory"}};
  request.body.emplace();
  if (!iClient.performOrFail(std::move(request), folder.text(), error)) return false;
  iClient.knowledge().noteFolder(folder, true);
  return true;
}

bool S3Session::createFolder(std::string_view path, NSErrorRef* error) {
  const S3Path folder = S3Path::parse(path);
  if (refuseOutsideOfBucket(folder, error) || !requireFolder(folder.parent(), error)) return false;
  const std::optional<Kind> kind = kindOfName(folder, error);
  if (!kind) return false;
  if (*kind != Kind::kNothing) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitItemExists, path));
    return false;
  }
  if (!putMarker(folder, error)) return false;
  iMadeFolder = folder;
  iRequestsWhenMade = iClient.requests();
  return true;
}

bool S3Session::createSymbolicLink(std::string_view path, std::string_view /*target*/, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, path));
  return false;
}

bool S3Session::changeAttributes(const NSFileAttributes& /*attributes*/, std::string_view path,
                                 NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitAttributeChangeNotSupported, path));
  return false;
}

bool S3Session::deleteKey(const std::string& bucket, const std::string& key, NSErrorRef* error) {
  S3Request request;
  request.method = "DELETE";
  request.bucket = bucket;
  request.key = key;
  iClient.knowledge().forgetObject({bucket, key});
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (!answer) return false;
  if (answer->isGood() || answer->refusal->code == "NoSuchKey") return true;
  storeError(error, s3Error(*answer->refusal, S3Path{bucket, key}.text()));
  return false;
}

// `isRefused`: the server does not understand such a request, or not these keys.
bool S3Session::deleteBatch(const std::string& bucket, const std::vector<std::string>& keys, bool* isRefused,
                            NSErrorRef* error) {
  S3Request request;
  request.method = "POST";
  request.bucket = bucket;
  request.query = {{"delete", ""}};
  request.body.emplace();
  request.body->bytes = s3DeleteDocument(keys);
  request.headers = {{"Content-Type", "application/xml"}, {"Content-MD5", s3MD5(request.body->bytes)}};
  request.patience = kPatience;
  request.mayFailLate = true;
  for (const std::string& key : keys) iClient.knowledge().forgetObject({bucket, key});
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (!answer) return false;
  const std::optional<S3DeleteResult> result =
      answer->isGood() ? s3DeleteResult(answer->response.body) : std::nullopt;
  *isRefused = !result;
  if (result && result->failures == 0) return true;
  S3Refusal refusal = answer->refusal.value_or(S3Refusal{});
  if (result) refusal = {0, result->firstCode, result->firstMessage, ""};
  storeError(error, s3Error(refusal, "/" + bucket));
  return false;
}

bool S3Session::deleteKeys(const std::string& bucket, const std::vector<std::string>& keys,
                           NSErrorRef* error) {
  std::vector<std::string> singles;
  std::vector<std::string> batch;
  bool mayBatch = true;
  const auto send = [&] {
    bool isRefused = false;
    // A request for a single key is the simpler one.
    if (mayBatch && batch.size() > 1) {
      if (!deleteBatch(bucket, batch, &isRefused, error) && !isRefused) return false;
      mayBatch = !isRefused;
      if (!isRefused) batch.clear();
    }
    singles.insert(singles.end(), batch.begin(), batch.end());
    batch.clear();
    return true;
  };
  for (const std::string& key : keys) {
    (s3FitsDocument(key) ? batch : singles).push_back(key);
    if (batch.size() == kBatch && !send()) return false;
  }
  if (!send()) return false;
  return std::all_of(singles.begin(), singles.end(),
                     [&](const std::string& key) { return deleteKey(bucket, key, error); });
}

bool S3Session::keepParent(const S3Path& path, NSErrorRef* error) {
  const S3Path parent = path.parent();
  if (iClient.knowledge().folder(parent) == S3Knowledge::Folder::kMarked) return true;
  // The marker is the first of all keys; else one more key than that of the item is enough. Of a folder that
  // moves away several are seen: then a marker may be written that was not needed, which nobody sees.
  NSErrorRef fault;
  const std::optional<Glimpse> seen = glimpse(parent, 2, &fault);
  if (!seen) {
    // Who may not look cannot care.
    if (QuarnKitError::isCode(fault, kQuarnKitListingNotPermitted)) return true;
    storeError(error, fault);
    return false;
  }
  const bool staysWithout =
      seen->isMarked || std::any_of(seen->keys.begin(), seen->keys.end(), [&path](const std::string& key) {
        return key != path.key && !key.starts_with(path.prefix());
      });
  return staysWithout || putMarker(parent, error);
}

bool S3Session::remove(std::string_view path, bool isDirectory, NSErrorRef* error) {
  const S3Path item = S3Path::parse(path);
  if (refuseOutsideOfBucket(item, error)) return false;
  return isDirectory ? removeFolder(item, error) : removeObject(item, error);
}

bool S3Session::removeObject(const S3Path& path, NSErrorRef* error) {
  // The removal itself does not tell whether there was anything to remove. What was there a moment ago may be
  // gone by now: so it is then, too.
  if (!iClient.knowledge().hasSeenObject(path)) {
    const std::optional<S3Answer> answer = askForObject(path, error);
    if (!answer) return false;
    if (!answer->isGood()) {
      storeError(error, s3Error(*answer->refusal, path.text()));
      return false;
    }
  }
  return keepParent(path, error) && deleteKey(path.bucket, path.key, error);
}

bool S3Session::removeFolder(const S3Path& path, NSErrorRef* error) {
  const std::optional<Glimpse> seen = glimpse(path, 2, error);
  if (!seen) return false;
  if (seen->keys.empty()) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, path.text()));
    return false;
  }
  if (seen->keys.size() > 1 || !seen->isMarked) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitFolderNotEmpty, path.text()));
    return false;
  }
  if (!keepParent(path, error) || !deleteKey(path.bucket, path.prefix(), error)) return false;
  iClient.knowledge().forgetFolders(path);
  return true;
}

}  // namespace ombra
