#include "remote/s3/S3FolderPages.h"

#include <algorithm>

#include "remote/RemotePaths.h"

namespace ombra {

NSFileAttributes s3FolderAttributes() {
  NSFileAttributes attributes;
  attributes.fileType = NSFileTypeValue::NSFileTypeDirectory;
  return attributes;
}

NSFileAttributes s3ObjectAttributes(uint64_t size, std::optional<NSDate> date) {
  NSFileAttributes attributes;
  attributes.fileType = NSFileTypeValue::NSFileTypeRegular;
  attributes.fileSize = size;
  attributes.modificationDate = date;
  return attributes;
}

std::vector<std::pair<std::string, std::string>> s3PageQuery(const std::string& prefix, bool isFlat, int most,
                                                             const std::string& token) {
  std::vector<std::pair<std::string, std::string>> query = {
      {"list-type", "2"}, {"prefix", prefix}, {"encoding-type", "url"}};
  if (!isFlat) query.emplace_back("delimiter", "/");
  if (most > 0) query.emplace_back("max-keys", std::to_string(most));
  if (!token.empty()) query.emplace_back("continuation-token", token);
  return query;
}

std::optional<S3Listing> s3Page(const std::string& body, const std::string& prefix) {
  std::optional<S3Listing> listing = s3Listing(body);
  const auto isForeign = [&prefix](const std::string& key) { return !key.starts_with(prefix); };
  const bool isSense =
      listing && std::none_of(listing->prefixes.begin(), listing->prefixes.end(), isForeign) &&
      std::none_of(listing->objects.begin(), listing->objects.end(),
                   [&isForeign](const S3ListedObject& object) { return isForeign(object.key); });
  return isSense ? std::move(listing) : std::nullopt;
}

void S3FolderPages::add(const S3Listing& page) {
  iIsThere = iIsThere || !page.objects.empty() || !page.prefixes.empty();
  for (const std::string& prefix : page.prefixes) addFolder(prefix);
  for (const S3ListedObject& object : page.objects) addObject(object);
}

void S3FolderPages::finish() {
  iKnowledge.noteFolder(iFolder, iIsMarked);
  std::erase_if(iEntries, [this](const RemoteEntry& entry) {
    return entry.type == kNodeTypeFile && iNames.count(entry.name) != 0;
  });
}

void S3FolderPages::addFolder(const std::string& prefix) {
  std::string name = prefix.substr(iPrefix.size());
  if (name.ends_with('/')) name.pop_back();
  if (!isShownName(name) || !iNames.insert(name).second) return;
  iKnowledge.noteFolder({iFolder.bucket, iPrefix + name}, false);
  iEntries.push_back({std::move(name), kNodeTypeFolder, s3FolderAttributes(), {}, {}});
}

void S3FolderPages::addObject(const S3ListedObject& object) {
  iIsMarked = iIsMarked || object.key == iPrefix;
  std::string name = object.key.substr(iPrefix.size());
  if (!isShownName(name)) return;
  iKnowledge.noteObject({iFolder.bucket, object.key});
  iEntries.push_back(
      {std::move(name), kNodeTypeFile, s3ObjectAttributes(object.size, object.modificationDate), {}, {}});
}

}  // namespace ombra
