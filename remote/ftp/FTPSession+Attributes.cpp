// Single items.
#include <set>
#include <utility>

#include "remote/RemotePaths.h"
#include "remote/ftp/FTPReplyItems.h"
#include "remote/ftp/FTPSession.h"

namespace ombra {

namespace {

// As many as Linux follows: a server could tell of ever new ones.
constexpr size_t kMostLinks = 40;

bool isMissingError(const NSErrorRef& error) { return QuarnKitError::isCode(error, kQuarnKitNoSuchItem); }

}  // namespace

LinkResolution FTPSession::resolutionOfReplies(const std::string& path, const FTPReply* replies) {
  LinkResolution resolution;
  resolution.resolved = true;
  resolution.resolvedPath = path;
  resolution.isDirectory = replies[2].isPositive();
  const auto size = sizeOfReply(replies[0]);
  resolution.exists = resolution.isDirectory || size.has_value();
  if (!resolution.exists) return resolution;
  NSFileAttributes attributes;
  if (!resolution.isDirectory) attributes.fileSize = size;
  attributes.modificationDate = dateOfReply(replies[1]);
  resolution.attributes = attributes;
  return resolution;
}

std::optional<std::string> FTPSession::realPath(std::string_view path, std::string_view base,
                                                bool* isDirectory, NSErrorRef* error) {
  const std::string whole = path.starts_with('~') ? std::string(path) : absoluteRemotePath(path, base);
  if (!isUsablePath(whole, error)) return std::nullopt;
  // The login has just landed there.
  constexpr std::chrono::seconds kMoment{5};
  const bool isFresh = std::chrono::steady_clock::now() - iLoginDate < kMoment;
  if (iLoginPathIsTold && isFresh && normalRemotePath(whole) == iLoginPath) {
    *isDirectory = true;
    return iLoginPath;
  }
  std::vector<FTPReply> replies;
  if (!askAll({"CWD " + whole, "PWD"}, &replies, error)) return std::nullopt;
  if (replies[0].isPositive()) {
    *isDirectory = true;
    const auto landed = replies[1].isPositive() ? quotedFTPPath(replies[1].text()) : std::nullopt;
    return normalRemotePath(landed.value_or(whole));
  }
  const NSErrorRef refusal = errorForFTPReply(replies[0], FTPOperation::kOther, whole);
  NSErrorRef reason;
  if (!whole.starts_with('~') && attributes(whole, isDirectory, &reason)) {
    if (!*isDirectory) return normalRemotePath(whole);
    reason = refusal;  // a folder that may not be entered
  }
  storeError(error, isMissingError(reason) || iControl.failure() ? reason : refusal);
  return std::nullopt;
}

std::optional<NSFileAttributes> FTPSession::fileSystemAttributes(std::string_view, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(kQuarnKitNotSupported, "the size of the volume"));
  return std::nullopt;
}

std::optional<NSFileAttributes> FTPSession::attributes(std::string_view path, bool* isDirectory,
                                                       NSErrorRef* error) {
  if (!isUsablePath(path, error)) return std::nullopt;
  return features().mlst ? attributesByFacts(path, isDirectory, error)
                         : attributesByAsking(path, isDirectory, error);
}

std::optional<NSFileAttributes> FTPSession::attributesByFacts(std::string_view path, bool* isDirectory,
                                                              NSErrorRef* error) {
  const auto reply = iControl.ask("MLST " + std::string(path), error);
  if (!reply) return std::nullopt;
  if (!reply->isPositive()) {
    if (reply->isUnknownCommand()) return attributesByAsking(path, isDirectory, error);
    const NSErrorRef refusal = errorForFTPReply(*reply, FTPOperation::kOther, path);
    storeError(error, explain(refusal, FTPOperation::kOther, path));
    return std::nullopt;
  }
  const auto item = itemOfMLST(*reply);
  // Links are followed here; MLST may have told of the link itself.
  if (!item || item->entry.type == kNodeTypeAlias) return attributesByAsking(path, isDirectory, error);
  *isDirectory = item->entry.type == kNodeTypeFolder;
  return item->entry.attributes;
}

std::optional<NSFileAttributes> FTPSession::attributesByAsking(std::string_view path, bool* isDirectory,
                                                               NSErrorRef* error) {
  const std::string whole(path);
  std::vector<FTPReply> replies;
  if (!askAll({"SIZE " + whole, "MDTM " + whole, "CWD " + whole}, &replies, error)) return std::nullopt;
  const LinkResolution found = resolutionOfReplies(whole, replies.data());
  if (found.exists) {
    *isDirectory = found.isDirectory;
    return found.attributes;
  }
  // A folder that may not be entered, or a server that does not know the commands.
  NSErrorRef reason;
  const auto item = lookInParent(path, &reason);
  if (item && item->entry.type != kNodeTypeAlias) {
    *isDirectory = item->entry.type == kNodeTypeFolder;
    return item->entry.attributes;
  }
  if (iControl.failure() == nullptr || reason == nullptr) {
    reason = ftpError(kQuarnKitNoSuchItem, path, replies[2]);
  }
  storeError(error, std::move(reason));
  return std::nullopt;
}

std::optional<FTPItem> FTPSession::lookInParent(std::string_view path, NSErrorRef* error) {
  const std::string normal = normalRemotePath(path);
  if (normal == "/") {
    FTPItem root;
    root.entry.type = kNodeTypeFolder;
    return root;
  }
  const std::string_view name = nameOfRemotePath(normal);
  std::optional<FTPItem> found;
  Items items{[&found, name](FTPItem item) {
    if (!found && item.entry.name == name) found = std::move(item);
  }};
  if (!listItems(parentOfRemotePath(normal), items, error)) return std::nullopt;
  return found;
}

std::optional<FTPItem> FTPSession::lookAt(std::string_view path, NSErrorRef* error) {
  if (features().mlst) {
    const auto reply = iControl.ask("MLST " + std::string(path), error);
    if (!reply) return std::nullopt;
    if (reply->isPositive()) {
      if (auto item = itemOfMLST(*reply)) return item;
    } else if (!reply->isUnknownCommand()) {
      return std::nullopt;
    }
  }
  NSErrorRef reason;
  auto item = lookInParent(path, &reason);
  if (iControl.failure() != nullptr) storeError(error, iControl.failure());
  return item;
}

std::optional<LinkResolution> FTPSession::resolveLink(std::string_view path, NSErrorRef* error) {
  if (!isUsablePath(path, error)) return std::nullopt;
  std::string at = normalRemotePath(path);
  std::set<std::string> passed;
  while (passed.size() < kMostLinks && passed.insert(at).second) {
    NSErrorRef reason;
    const auto item = lookAt(at, &reason);
    if (reason != nullptr) {
      storeError(error, std::move(reason));
      return std::nullopt;
    }
    if (!item) return LinkResolution{true, at, false, false, true, std::nullopt};
    if (item->entry.type != kNodeTypeAlias) {
      return LinkResolution{true, at,   item->entry.type == kNodeTypeFolder,
                            true, true, item->entry.attributes};
    }
    if (!item->entry.targetPath) {
      std::vector<FTPReply> replies;
      if (!askAll({"SIZE " + at, "MDTM " + at, "CWD " + at}, &replies, error)) return std::nullopt;
      return resolutionOfReplies(at, replies.data());
    }
    at = normalRemotePath(absoluteRemotePath(*item->entry.targetPath, parentOfRemotePath(at)));
    if (!isUsablePath(at, error)) return std::nullopt;
  }
  return LinkResolution{};
}

bool FTPSession::isMissing(std::string_view path) {
  bool isDirectory = false;
  NSErrorRef reason;
  return !attributesByAsking(path, &isDirectory, &reason) && isMissingError(reason);
}

QuarnKitErrorCode FTPSession::findOutCode(FTPOperation operation, std::string_view path,
                                          std::string_view otherPath) {
  bool isDirectory = false;
  NSErrorRef reason;
  const bool exists = attributesByAsking(path, &isDirectory, &reason).has_value();
  const bool isGone = !exists && isMissingError(reason);
  switch (operation) {
    case FTPOperation::kList:
      if (exists) return isDirectory ? kQuarnKitListingNotPermitted : kQuarnKitNotAFolder;
      return isGone ? kQuarnKitNoSuchItem : kQuarnKitRefused;
    case FTPOperation::kMakeFolder:
    case FTPOperation::kStore:
      if (exists && operation == FTPOperation::kMakeFolder) return kQuarnKitItemExists;
      return isGone && isMissing(parentOfRemotePath(path)) ? kQuarnKitNoSuchItem : kQuarnKitRefused;
    case FTPOperation::kRemove: {
      bool holdsSomething = false;
      Items items{[&holdsSomething](const FTPItem& item) {
        holdsSomething = holdsSomething || item.kind != FTPItem::Kind::kSelf;
      }};
      if (!exists || !isDirectory || !listItems(path, items, nullptr)) break;
      return holdsSomething ? kQuarnKitFolderNotEmpty : kQuarnKitRefused;
    }
    case FTPOperation::kRename:
      if (exists && !otherPath.empty() && isMissing(parentOfRemotePath(otherPath)))
        return kQuarnKitNoSuchItem;
      break;
    default:
      break;
  }
  return isGone ? kQuarnKitNoSuchItem : kQuarnKitRefused;
}

NSErrorRef FTPSession::explain(NSErrorRef refused, FTPOperation operation, std::string_view path,
                               std::string_view otherPath) {
  if (iControl.failure() != nullptr || !QuarnKitError::isCode(refused, kQuarnKitRefused)) return refused;
  const QuarnKitErrorCode code = findOutCode(operation, path, otherPath);
  if (code == kQuarnKitRefused) return refused;
  return QuarnKitError::errorWithCode(code, path, std::move(refused));
}

}  // namespace ombra
