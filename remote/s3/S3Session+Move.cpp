// Moving: the server copies, and what was copied is removed.
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"
#include "remote/s3/S3Copier.h"
#include "remote/s3/S3Session.h"

namespace ombra {

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
  const S3Copy copy{from.bucket, from.key, to.bucket, to.key, std::nullopt};
  if (!s3CopyObject(iClient, iLimits, copy, error)) return false;
  // With another name in the same folder, that stays where it is.
  const bool isRenamed = from.parent() == to.parent();
  return (isRenamed || keepParent(from, error)) && deleteKey(from.bucket, from.key, error);
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
  const auto take = [&sources](const S3Listing& page) {
    for (const S3ListedObject& object : page.objects) sources.push_back({object.key, object.size});
  };
  return listPages(folder, true, take, error) ? std::optional(std::move(sources)) : std::nullopt;
}

bool S3Session::copyAll(const std::vector<Source>& sources, const S3Path& from, const S3Path& to,
                        NSErrorRef* error) {
  std::vector<S3Copy> copies;
  copies.reserve(sources.size());
  for (const Source& source : sources) {
    const std::string key = to.prefix() + source.key.substr(from.prefix().size());
    copies.push_back({from.bucket, source.key, to.bucket, key, source.size});
  }
  S3Copier copier(iClient, iLimits);
  setCopier(&copier);
  const bool isDone = copier.run(copies, error);
  setCopier(nullptr);
  if (isDone) return true;
  // The source is whole; half a copy helps nobody.
  (void)deleteKeys(to.bucket, copier.done(), nullptr);
  iClient.knowledge().forgetFolders(to);
  return false;
}

void S3Session::setCopier(S3Copier* copier) {
  MutexLock lock(iCopierLock);
  iCopier = copier;
  if (copier != nullptr && iClient.isInterrupted()) copier->interrupt();
}

void S3Session::interrupt() {
  iClient.interrupt();
  MutexLock lock(iCopierLock);
  if (iCopier != nullptr) iCopier->interrupt();
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
  if (!(from.parent() == to.parent()) && !keepParent(from, error)) return false;
  std::vector<std::string> keys;
  for (const Source& source : *sources) keys.push_back(source.key);
  const bool isRemoved = deleteKeys(from.bucket, keys, error);
  iClient.knowledge().forgetFolders(from);
  return isRemoved;
}

}  // namespace ombra
