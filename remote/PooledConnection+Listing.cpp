// Listings.
#include <algorithm>

#include "remote/KCCredentials.h"
#include "remote/PooledConnection.h"
#include "remote/QuarnKitError.h"
#include "remote/RemotePaths.h"

namespace ombra {
namespace {

std::shared_ptr<KCRemoteFileNode> makeNode(const RemoteEntry& entry, std::string path,
                                           const std::shared_ptr<const KCCredentials>& credentials) {
  std::shared_ptr<KCRemoteFileNode> node;
  if (entry.type == kNodeTypeFolder) {
    node = KCRemoteFolderNode::folderNodeWithPath(std::move(path), credentials);
  } else {
    node = std::make_shared<KCRemoteFileNode>(std::move(path), credentials);
    node->setType(entry.type);
  }
  node->setAttributes(entry.attributes);
  if (entry.targetPath) node->setTargetPath(entry.targetPath);
  return node;
}

// Some servers cut blanks and dots off the ends of a name, or write another character for them.
bool isLeftAsItIs(std::string_view name) {
  return !name.starts_with(' ') && !name.ends_with(' ') && !name.ends_with('.');
}

std::string withOtherCase(std::string name) {
  for (char& byte : name) {
    if ((byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z')) byte = static_cast<char>(byte ^ 0x20);
  }
  return name;
}

bool hasName(const std::vector<std::shared_ptr<KCRemoteFileNode>>& nodes, const std::string& name) {
  return std::any_of(nodes.begin(), nodes.end(),
                     [&name](const auto& node) { return node->filename() == name; });
}

}  // namespace

bool PooledConnection::list(const std::string& folder, std::vector<RemoteEntry>* entries,
                            std::optional<double>* seconds, NSErrorRef* error) {
  const bool isOfAWalk = takesAhead();
  // Nor is anybody else to be told what was there before.
  if (!isOfAWalk) walks().changed(folder);
  seconds->reset();
  if (std::optional<ListingsAhead::Entries> known =
          isOfAWalk ? iCore->listingsAhead.take(folder) : std::nullopt) {
    *entries = std::move(*known);
  } else {
    NSDate begun;
    const Work work = [&](Session& session, NSErrorRef* fault) {
      // A listing that broke off in the middle begins anew.
      entries->clear();
      begun = NSDate::date();
      return session.list(folder, entries, fault);
    };
    if (!perform(Repeat::kSafe, work, error)) return false;
    *seconds = NSDate::date().timeIntervalSinceDate(begun);
  }
  const bool isNew = isOfAWalk && iCore->listingsAhead.listed(folder, *entries, *seconds);
  iCore->filesAhead.listed(folder, isNew);
  return true;
}

bool PooledConnection::contentsAtPath(std::string_view path,
                                      std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                                      NSErrorRef* error) {
  nodes->clear();
  std::optional<double> seconds;
  return isAllowed(path, error) && makeFilesAtOrBelow(path, error) &&
         listNodes(absolute(path), nodes, &seconds, error);
}

bool PooledConnection::listNodes(const std::string& folder,
                                 std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                                 std::optional<double>* seconds, NSErrorRef* error) {
  std::vector<RemoteEntry> entries;
  if (!list(folder, &entries, seconds, error)) return false;
  nodes->reserve(entries.size());
  for (RemoteEntry& listed : entries) {
    // What it holds makes room for the next nodes.
    const RemoteEntry entry = std::move(listed);
    if (!isShownName(entry.name)) continue;
    std::string itemPath = remotePathInFolder(folder, entry.name);
    if (entry.resolution) iKnownLinks.add(itemPath, *entry.resolution);
    nodes->push_back(makeNode(entry, std::move(itemPath), sessions().credentials()));
  }
  return true;
}

bool PooledConnection::contentsAtPath(std::string_view path, uint64_t known, FolderContents* contents,
                                      NSErrorRef* error) {
  if (!isAllowed(path, error)) return false;
  const std::string folder = absolute(path);
  std::string doubtful;
  if (known != 0 && tellNews(folder, known, contents, &doubtful)) return true;
  *contents = {};
  contents->number = iCore->listings.begin(folder);
  std::vector<std::string> putOff;
  if (known != 0) {
    // Who made something in the folder has it listed for that. An empty file that waits for its content need
    // not be sent then.
    putOff = iCore->newFiles.namesIn(folder);
  } else if (!makeFilesAtOrBelow(path, error)) {
    return false;
  }
  std::optional<double> seconds;
  if (!listNodes(folder, &contents->nodes, &seconds, error)) return false;
  iCore->listings.fetched(folder, contents->number, seconds.value_or(0));
  for (const std::string& name : putOff) addPutOffFile(folder, name, &contents->nodes);
  if (!doubtful.empty()) learnCase(folder, doubtful, contents->nodes);
  return true;
}

void PooledConnection::addPutOffFile(const std::string& folder, const std::string& name,
                                     std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes) const {
  if (hasName(*nodes, name)) return;
  RemoteEntry entry;
  entry.name = name;
  entry.attributes.fileSize = 0;
  nodes->push_back(makeNode(entry, remotePathInFolder(folder, name), sessions().credentials()));
}

bool PooledConnection::tellNews(const std::string& folder, uint64_t known, FolderContents* contents,
                                std::string* doubtful) {
  if (!engine().keepsNamesOfNewItems()) return false;
  std::optional<KnownListings::News> news = iCore->listings.since(folder, known);
  if (!news) return false;
  *contents = {{}, false, news->number};
  for (const KnownListings::NewItem& item : news->items) {
    if (!isLeftAsItIs(item.name) || !news->keepsCase.value_or(true)) return false;
    RemoteEntry entry;
    if (!askForNewItem(folder, item, &entry)) return false;
    if (!news->keepsCase && !tellsFromOtherCase(folder, item.name, *news, doubtful)) return false;
    contents->nodes.push_back(
        makeNode(entry, remotePathInFolder(folder, item.name), sessions().credentials()));
  }
  return true;
}

// Where "Foo" and "foo" are one item, what is made may be there under a name of before: only the listing
// tells. Asked once for each folder, of an item that is there by now.
bool PooledConnection::tellsFromOtherCase(const std::string& folder, const std::string& name,
                                          KnownListings::News& news, std::string* doubtful) {
  const std::string other = inOtherCase(name);
  // Which letters of other alphabets are one to the server is not known here.
  if (other == name) return isASCII(name);
  NSErrorRef fault;
  if (attributesOfItemAtPath(remotePathInFolder(folder, other), nullptr, &fault)) {
    // Of both spellings one may have been there before.
    *doubtful = name;
    return false;
  }
  if (!QuarnKitError::isCode(fault, kQuarnKitNoSuchItem)) return false;
  news.keepsCase = true;
  iCore->listings.learn(folder, true);
  return true;
}

std::string PooledConnection::inOtherCase(const std::string& name) const {
  const std::shared_ptr<const KCCredentials>& encoding = sessions().credentials();
  // In some encodings a letter's byte is also a part of other characters.
  return encoding->remoteStringForUnicodeString(withOtherCase(encoding->unicodeStringForRemoteString(name)));
}

// The server has an item for the name in either case: whether these are two, the listing tells.
void PooledConnection::learnCase(const std::string& folder, const std::string& name,
                                 const std::vector<std::shared_ptr<KCRemoteFileNode>>& nodes) {
  iCore->listings.learn(folder, hasName(nodes, name) && hasName(nodes, inOtherCase(name)));
}

bool PooledConnection::askForNewItem(const std::string& folder, const KnownListings::NewItem& item,
                                     RemoteEntry* entry) {
  entry->name = item.name;
  entry->type = item.isFolder ? kNodeTypeFolder : kNodeTypeFile;
  if (item.attributes) {
    entry->attributes = *item.attributes;
    const auto type = item.attributes->fileType.value_or(NSFileTypeValue::NSFileTypeRegular);
    return type == NSFileTypeValue::NSFileTypeRegular;
  }
  bool isDirectory = false;
  const auto attributes =
      attributesOfItemAtPath(remotePathInFolder(folder, item.name), &isDirectory, nullptr);
  if (!attributes || isDirectory != item.isFolder) return false;
  entry->attributes = *attributes;
  return true;
}

}  // namespace ombra
