// Folders.
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "remote/RemotePaths.h"
#include "remote/TemporaryNames.h"
#include "remote/ftp/FTPLines.h"
#include "remote/ftp/FTPListLine.h"
#include "remote/ftp/FTPSession.h"
#include "remote/ftp/FTPText.h"

namespace ombra {

namespace {

constexpr size_t kListBuffer = 128 * 1024;
// Beyond this a server that never ends a listing would fill the memory.
constexpr size_t kMostItems = 4'000'000;
// So many links are looked at with one write.
constexpr size_t kLinksAtOnce = 20;

bool isLink(const RemoteEntry& entry) { return entry.type == kNodeTypeAlias; }

// The entries of a listed folder, by name.
struct LinkNeighbours {
  // Follows a link as far as the folder goes. Not final: the path where it leaves the folder.
  LinkResolution follow(const RemoteEntry& link) const {
    const RemoteEntry* at = &link;
    std::string path = remotePathInFolder(home, link.name);
    std::set<const RemoteEntry*> passed;
    while (at != nullptr && isLink(*at) && at->targetPath) {
      if (!passed.insert(at).second) return LinkResolution{};
      path = normalRemotePath(absoluteRemotePath(*at->targetPath, home));
      const auto found =
          parentOfRemotePath(path) == home ? entries.find(nameOfRemotePath(path)) : entries.end();
      at = found != entries.end() ? found->second : nullptr;
    }
    if (at == nullptr || isLink(*at)) return LinkResolution{true, path, false, false, false, std::nullopt};
    return LinkResolution{true, path, at->type == kNodeTypeFolder, true, true, at->attributes};
  }

  std::string home;
  std::map<std::string_view, const RemoteEntry*> entries;
};

}  // namespace

bool FTPSession::receiveList(FTPTransfer& transfer, bool areFacts, Items& items, NSErrorRef* error) {
  const NSDate now = NSDate::date();
  size_t strange = 0;
  const auto take = [&items, areFacts, now, &strange](std::string_view line) {
    std::optional<FTPItem> item = areFacts ? itemOfFacts(line) : itemOfListLine(line, now);
    if (!item) {
      if (!isListHeading(line)) ++strange;
      return true;
    }
    items.take(std::move(*item));
    return ++items.count <= kMostItems;
  };
  FTPLines lines;
  const auto buffer = std::make_unique<std::array<char, kListBuffer>>();
  while (true) {
    size_t count = 0;
    if (!transfer.receive(buffer->data(), buffer->size(), &count, error)) return false;
    const bool isSound = count > 0 ? lines.add({buffer->data(), count}, take) : lines.finish(take);
    if (!isSound) {
      storeError(error, ftpProtocolError("a listing that does not end"));
      return false;
    }
    if (count == 0) break;
  }
  if (!finish(transfer, error)) return false;
  askForPort();
  // Better no listing than an empty one in the place of what could not be read.
  if (items.count > 0 || strange == 0) return true;
  storeError(error, ftpProtocolError("a listing in a form that is not known"));
  return false;
}

bool FTPSession::listFacts(std::string_view path, Items& items, NSErrorRef* error) {
  Request request;
  request.command = "MLSD " + std::string(path);
  request.operation = FTPOperation::kList;
  request.path = path;
  const auto receive = [&](Begun& begun, NSErrorRef* reason) {
    return receiveList(*begun.transfer, true, items, reason);
  };
  return carryOut(request, receive, error);
}

bool FTPSession::runList(std::string_view path, bool showsAll, Items& items, NSErrorRef* error) {
  // LIST takes options and patterns where others take a path: the folder is entered instead.
  Request request;
  request.before = {"CWD " + std::string(path)};
  request.needsBefore = true;
  request.command = showsAll ? "LIST -a" : "LIST";
  request.operation = FTPOperation::kList;
  request.path = path;
  const auto receive = [&](Begun& begun, NSErrorRef* reason) {
    if (const FTPReply& entered = begun.before.front(); !entered.isPositive()) {
      storeError(reason, errorForFTPReply(entered, FTPOperation::kList, path));
      if (begun.transfer != nullptr) (void)begun.transfer->establish(nullptr);
      return false;
    }
    const bool isReceived = receiveList(*begun.transfer, false, items, reason);
    const auto& reply = begun.transfer->reply();
    // Some servers refuse to list a folder in which nothing is.
    if (!isReceived) return reply && reply->isRefusal() && ftpContains(reply->text(), "no files");
    if (!ftpContains(reply->text(), "failed to open directory")) return true;
    storeError(reason, ftpError(kQuarnKitListingNotPermitted, path, *reply));
    return false;
  };
  return carryOut(request, receive, error);
}

bool FTPSession::listLines(std::string_view path, Items& items, NSErrorRef* error) {
  const FTPServer::Answer listsAll = iServer->listsAll();
  if (listsAll == FTPServer::Answer::kNo) return runList(path, false, items, error);
  NSErrorRef reason;
  const bool done = runList(path, true, items, &reason);
  if (items.count > 0) iServer->setListsAll(FTPServer::Answer::kYes);
  const bool isAnswered = items.count > 0 || listsAll == FTPServer::Answer::kYes || iControl.failure() ||
                          QuarnKitError::isCode(reason, kQuarnKitListingNotPermitted);
  if (isAnswered) {
    if (!done) storeError(error, std::move(reason));
    return done;
  }
  // With "-a" a folder holds itself at least: nothing at all means that it was taken for a name.
  if (!runList(path, false, items, error)) return false;
  if (items.count > 0) iServer->setListsAll(FTPServer::Answer::kNo);
  return true;
}

bool FTPSession::listItems(std::string_view path, Items& items, NSErrorRef* error) {
  return features().mlst ? listFacts(path, items, error) : listLines(path, items, error);
}

bool FTPSession::list(std::string_view path, std::vector<RemoteEntry>* entries, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return false;
  Items items{[entries](FTPItem item) {
    const bool isShown = item.kind == FTPItem::Kind::kItem && isShownName(item.entry.name) &&
                         !isTemporaryName(item.entry.name);
    if (isShown) entries->push_back(std::move(item.entry));
  }};
  NSErrorRef reason;
  if (!listItems(path, items, &reason)) {
    storeError(error, explain(std::move(reason), FTPOperation::kList, path));
    return false;
  }
  resolveLinks(path, entries);
  return iControl.failure() == nullptr || (storeError(error, iControl.failure()), false);
}

// Where the links of a listing lead: to its neighbours, which are known, or elsewhere, which is asked for in
// one go.
void FTPSession::resolveLinks(std::string_view folder, std::vector<RemoteEntry>* entries) {
  if (std::none_of(entries->begin(), entries->end(), isLink)) return;
  LinkNeighbours neighbours{normalRemotePath(folder), {}};
  for (const RemoteEntry& entry : *entries) neighbours.entries.emplace(entry.name, &entry);
  Unresolved elsewhere;
  for (RemoteEntry& entry : *entries) {
    if (!isLink(entry)) continue;
    entry.resolution = neighbours.follow(entry);
    if (entry.resolution->isFinal) continue;
    elsewhere.emplace_back(&entry, entry.resolution->resolvedPath);
    entry.resolution.reset();
  }
  if (iServer->mayPipeline()) resolveElsewhere(elsewhere);
}

void FTPSession::resolveElsewhere(const Unresolved& links) {
  for (size_t at = 0; at < links.size(); at += kLinksAtOnce) {
    const size_t count = std::min(kLinksAtOnce, links.size() - at);
    std::vector<std::string> commands;
    for (size_t i = at; i < at + count; ++i) {
      // A target with a line end in it leads nowhere that could be asked for.
      const std::string target = isUsablePath(links[i].second, nullptr) ? links[i].second : "/";
      commands.insert(commands.end(), {"SIZE " + target, "MDTM " + target, "CWD " + target});
    }
    std::vector<FTPReply> replies;
    if (!askAll(commands, &replies, nullptr)) return;
    for (size_t i = 0; i < count; ++i) {
      const auto& [entry, target] = links[at + i];
      if (!isUsablePath(target, nullptr)) continue;
      LinkResolution resolution = resolutionOfReplies(target, &replies[i * 3]);
      if (entry->targetPath) {
        entry->resolution = std::move(resolution);
        continue;
      }
      // A link that the server follows without saying where to is shown as what it leads to.
      if (resolution.exists) entry->type = resolution.isDirectory ? kNodeTypeFolder : kNodeTypeFile;
      if (resolution.attributes) entry->attributes = *resolution.attributes;
    }
  }
}

// A folder that shows nothing may still hold what an upload left behind whose connection broke, in this
// program or another: too old to be still on its way, it is nobody's.
bool FTPSession::clearStaleTemporaries(std::string_view path) {
  constexpr double kStaleSeconds = 60.0 * 60;
  std::vector<std::string> commands;
  bool areAllStale = true;
  const NSDate now = NSDate::date();
  Items items{[&](const FTPItem& item) {
    if (item.kind == FTPItem::Kind::kSelf) return;
    const auto& date = item.entry.attributes.modificationDate;
    const bool isStale =
        isTemporaryName(item.entry.name) && date && now.timeIntervalSinceDate(*date) > kStaleSeconds;
    areAllStale = areAllStale && isStale;
    if (areAllStale) commands.push_back("DELE " + remotePathInFolder(path, item.entry.name));
  }};
  if (!listItems(path, items, nullptr) || !areAllStale) return false;
  std::vector<FTPReply> replies;
  return !commands.empty() && askAll(commands, &replies, nullptr);
}

}  // namespace ombra
