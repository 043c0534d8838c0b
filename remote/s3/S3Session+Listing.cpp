// Listing buckets and folders, and whether a folder is there.
#include <utility>

#include "remote/QuarnKitError.h"
#include "remote/s3/S3Errors.h"
#include "remote/s3/S3FolderPages.h"
#include "remote/s3/S3Session.h"

namespace ombra {
namespace {
// A server may give pages with nothing on them; one that never ends does.
constexpr int kMostPages = 100'000;
// Of all names together.
constexpr size_t kMostNameBytes = size_t{1} << 30;
}  // namespace

std::optional<S3Listing> S3Session::listPage(const S3Path& folder, const std::string& prefix, bool isFlat,
                                             int most, const std::string& token, NSErrorRef* error) {
  S3Request request;
  request.bucket = folder.bucket;
  request.query = s3PageQuery(prefix, isFlat, most, token);
  request.longestBody = kS3LongestPage;
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (!answer) return std::nullopt;
  if (!answer->isGood()) {
    storeError(error, s3ListingError(*answer->refusal, folder.text()));
    return std::nullopt;
  }
  if (std::optional<S3Listing> listing = s3Page(answer->response.body, prefix)) return listing;
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "the listing of " + folder.text()));
  return std::nullopt;
}

std::optional<S3Session::Glimpse> S3Session::glimpse(const S3Path& folder, int most, NSErrorRef* error) {
  const std::optional<S3Listing> listing = listPage(folder, folder.prefix(), true, most, {}, error);
  if (!listing) return std::nullopt;
  Glimpse result;
  for (const S3ListedObject& object : listing->objects) {
    result.keys.push_back(object.key);
    result.isMarked = result.isMarked || object.key == folder.prefix();
  }
  if (result.keys.empty()) {
    iClient.knowledge().forgetFolders(folder);
  } else {
    iClient.knowledge().noteFolder(folder, result.isMarked);
  }
  return result;
}

bool S3Session::requireFolder(const S3Path& folder, NSErrorRef* error) {
  if (!folder.isItem() || iClient.knowledge().folder(folder) != S3Knowledge::Folder::kUnknown) return true;
  NSErrorRef fault;
  const std::optional<Glimpse> seen = glimpse(folder, 1, &fault);
  if (seen && !seen->keys.empty()) return true;
  // Who may write and not list is not kept from writing.
  if (!seen && QuarnKitError::isCode(fault, kQuarnKitListingNotPermitted)) return true;
  storeError(error, seen ? QuarnKitError::errorWithCode(kQuarnKitNoSuchItem, folder.text()) : fault);
  return false;
}

bool S3Session::list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  const S3Path folder = S3Path::parse(path);
  return folder.isRoot() ? listBuckets(entries, error) : listFolder(folder, entries, error);
}

bool S3Session::listBuckets(std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  S3Request request;
  request.longestBody = kS3LongestPage;
  const std::optional<S3Answer> answer = iClient.perform(std::move(request), error);
  if (!answer) return false;
  if (!answer->isGood()) {
    storeError(error, s3ListingError(*answer->refusal, "/"));
    return false;
  }
  const std::optional<std::vector<S3Bucket>> buckets = s3Buckets(answer->response.body);
  if (!buckets) {
    storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError, "the list of buckets"));
    return false;
  }
  for (const S3Bucket& bucket : *buckets) {
    RemoteEntry entry;
    entry.name = bucket.name;
    entry.type = kNodeTypeFolder;
    entry.attributes = s3FolderAttributes();
    entry.attributes.creationDate = bucket.creationDate;
    entry.attributes.modificationDate = bucket.creationDate;
    entries->push_back(std::move(entry));
  }
  return true;
}

// The listing had nothing at all. A folder that is not there looks the same; a bucket is.
bool S3Session::sawNothing(const S3Path& path, NSErrorRef* error) {
  iClient.knowledge().forgetFolders(path);
  if (path.isBucket()) return true;
  const std::optional<S3Answer> answer = askForObject(path, error);
  if (!answer) return false;
  storeError(error, QuarnKitError::errorWithCode(answer->isGood() ? kQuarnKitNotAFolder : kQuarnKitNoSuchItem,
                                                 path.text()));
  return false;
}

bool S3Session::listFolder(const S3Path& folder, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  S3FolderPages pages(folder, iClient.knowledge(), *entries);
  const auto take = [&pages](const S3Listing& page) { pages.add(page); };
  if (!listPages(folder, false, take, error)) return false;
  if (!pages.isThere()) return sawNothing(folder, error);
  pages.finish();
  return true;
}

bool S3Session::listPages(const S3Path& folder, bool isFlat,
                          const std::function<void(const S3Listing& page)>& take, NSErrorRef* error) {
  std::string token;
  size_t items = 0;
  size_t bytes = 0;
  for (int number = 0; number < kMostPages && items <= iLimits.mostItems && bytes <= kMostNameBytes;
       ++number) {
    const bool mayBeKnown = number == 0 && !isFlat;
    std::optional<S3Listing> page = mayBeKnown ? takeStartPage(folder) : std::nullopt;
    if (!page) page = listPage(folder, folder.prefix(), isFlat, 0, token, error);
    if (!page) return false;
    take(*page);
    if (!page->isTruncated) return true;
    if (page->nextToken == token) break;
    token = page->nextToken;
    items += page->objects.size() + page->prefixes.size();
    for (const S3ListedObject& object : page->objects) bytes += object.key.size();
    for (const std::string& prefix : page->prefixes) bytes += prefix.size();
  }
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitProtocolError,
                                                 "the listing of " + folder.text() + " has no end"));
  return false;
}

}  // namespace ombra
