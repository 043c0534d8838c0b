#include "tests/support/ScriptedConnection.h"

#include "remote/RemotePaths.h"

namespace ombra {

void ScriptedConnection::setDelegate(ConnectionDelegate* delegate) {
  (void)begin("setDelegate", {delegate != nullptr ? "delegate" : "none"}, kAnyPath);
  iDelegate = delegate;
}

CallVerdict ScriptedConnection::begin(std::string_view operation, std::vector<std::string> arguments,
                                      std::string_view path) {
  return iState->begin(iNumber, operation, std::move(arguments), path);
}

bool ScriptedConnection::settle(const CallVerdict& verdict, NSErrorRef* error) {
  const NSErrorRef& told = verdict.fails ? verdict.error : verdict.sideError;
  if (told != nullptr) storeError(error, told);
  return !verdict.fails;
}

bool ScriptedConnection::refuse(QuarnKitErrorCode code, std::string_view path, NSErrorRef* error) {
  storeError(error, QuarnKitError::errorWithCode(code, path));
  return false;
}

std::optional<std::string> ScriptedConnection::loginPath() const {
  (void)iState->begin(iNumber, "loginPath", {}, kAnyPath);
  WatchedLock lock(iState->iCondition);
  return iState->iLoggedIn ? iState->iLoginPath : std::nullopt;
}

bool ScriptedConnection::connect(NSErrorRef* error) {
  const CallVerdict verdict = begin("connect", {}, kAnyPath);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  iState->iLoggedIn = true;
  return true;
}

std::string ScriptedConnection::absolute(std::string_view path) const {
  WatchedLock lock(iState->iCondition);
  const std::string home = iState->iLoginPath.value_or("/");
  if (path.starts_with("~")) return normalRemotePath(home + "/" + std::string(path.substr(1)));
  if (path.starts_with("/")) return normalRemotePath(path);
  return normalRemotePath(iFolder.value_or(home) + "/" + std::string(path));
}

bool ScriptedConnection::changeDir(std::string_view path, NSErrorRef* error) {
  const CallVerdict verdict = begin("changeDir", {std::string(path)}, path);
  if (!settle(verdict, error)) return false;
  ScriptedServer::FlagHandler handler;
  {
    WatchedLock lock(iState->iCondition);
    handler = iState->iChangeDirHandler;
  }
  const std::string folder = absolute(path);
  if (handler) {
    if (!handler(path, error)) return false;
  } else {
    WatchedLock lock(iState->iCondition);
    const ScriptedItem* item = iState->iTree.findVisible(folder);
    if (item == nullptr) return refuse(kQuarnKitNoSuchItem, path, error);
    if (item->type != kNodeTypeFolder) return refuse(kQuarnKitNotAFolder, path, error);
  }
  iFolder = folder;
  return true;
}

std::optional<std::string> ScriptedConnection::pwd(NSErrorRef* error) {
  const CallVerdict verdict = begin("pwd", {}, kAnyPath);
  if (!settle(verdict, error)) return std::nullopt;
  WatchedLock lock(iState->iCondition);
  if (iState->iPwd) return *iState->iPwd;
  return iFolder ? iFolder : iState->iLoginPath;
}

bool ScriptedConnection::resolvePath(std::string_view path, std::string* resolvedPath, bool* isDirectory,
                                     NSErrorRef* error) {
  const CallVerdict verdict = begin("resolvePath", {std::string(path)}, path);
  if (!settle(verdict, error)) return false;
  ScriptedServer::ResolveHandler handler;
  {
    WatchedLock lock(iState->iCondition);
    handler = iState->iResolveHandler;
  }
  if (handler) return handler(path, resolvedPath, isDirectory, error);
  WatchedLock lock(iState->iCondition);
  const std::optional<std::string> resolved = iState->iTree.resolve(path);
  if (!resolved) return refuse(kQuarnKitRefused, path, error);
  const ScriptedItem* item = iState->iTree.findVisible(*resolved);
  if (resolvedPath != nullptr) *resolvedPath = *resolved;
  if (isDirectory != nullptr) *isDirectory = item != nullptr && item->type == kNodeTypeFolder;
  return true;
}

std::optional<NSFileAttributes> ScriptedConnection::attributesOfItemAtPath(std::string_view path,
                                                                           bool* isDirectory,
                                                                           NSErrorRef* error) {
  const CallVerdict verdict = begin("attributesOfItemAtPath", {std::string(path)}, path);
  if (!settle(verdict, error)) return std::nullopt;
  ScriptedServer::AttributesHandler handler;
  {
    WatchedLock lock(iState->iCondition);
    handler = iState->iAttributesHandler;
  }
  if (handler) return handler(path, isDirectory, error);
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* item = iState->iTree.findVisible(path);
  if (item == nullptr) {
    refuse(kQuarnKitNoSuchItem, path, error);
    return std::nullopt;
  }
  if (isDirectory != nullptr) *isDirectory = item->type == kNodeTypeFolder;
  return ScriptedTree::listedAttributes(*item);
}

std::optional<NSFileAttributes> ScriptedConnection::fileSystemAttributesAtPath(std::string_view path,
                                                                               NSErrorRef* error) {
  const CallVerdict verdict = begin("fileSystemAttributesAtPath", {std::string(path)}, path);
  if (!settle(verdict, error)) return std::nullopt;
  WatchedLock lock(iState->iCondition);
  if (!iState->iFileSystemAttributes) refuse(kQuarnKitNotSupported, path, error);
  return iState->iFileSystemAttributes;
}

bool ScriptedConnection::contentsAtPath(std::string_view path,
                                        std::vector<std::shared_ptr<KCRemoteFileNode>>* nodes,
                                        NSErrorRef* error) {
  iState->iLastTookAhead = iTakesAhead;
  const CallVerdict verdict = begin("contentsAtPath", {std::string(path)}, path);
  if (!settle(verdict, error)) return false;
  ScriptedServer::ContentsHandler handler;
  {
    WatchedLock lock(iState->iCondition);
    handler = iState->iContentsHandler;
  }
  if (handler) return handler(path, nodes, error);
  const std::string folderPath = normalRemotePath(path);
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* folder = iState->iTree.findVisible(folderPath);
  if (folder == nullptr) return refuse(kQuarnKitNoSuchItem, path, error);
  if (folder->type != kNodeTypeFolder) return refuse(kQuarnKitNotAFolder, path, error);
  const std::string listed = iState->iTree.resolve(folderPath).value_or(folderPath);
  nodes->clear();
  for (const std::string& name : folder->children) {
    const std::string itemPath = listed + "/" + name;
    if (iState->iTree.isHidden(itemPath)) continue;
    const ScriptedItem& item = *iState->iTree.find(itemPath);
    // The node's path is below the path that was asked for, also when that is a link.
    const std::string nodePath = (folderPath == "/" ? "" : folderPath) + "/" + name;
    nodes->push_back(makeNode(item, nodePath));
  }
  return true;
}

std::shared_ptr<KCRemoteFileNode> ScriptedConnection::makeNode(const ScriptedItem& item,
                                                               const std::string& path) const {
  std::shared_ptr<KCRemoteFileNode> node;
  if (item.type == kNodeTypeFolder) {
    node = KCRemoteFolderNode::folderNodeWithPath(path, iState->iCredentials);
  } else {
    node = std::make_shared<KCRemoteFileNode>(path, iState->iCredentials);
    node->setType(item.type);
  }
  if (item.type == kNodeTypeAlias) node->setTargetPath(item.target);
  node->setAttributes(ScriptedTree::listedAttributes(item));
  return node;
}

bool ScriptedConnection::contentsAtPath(std::string_view path, uint64_t known, FolderContents* contents,
                                        NSErrorRef* error) {
  if (!iState->iTellsNews) return AbstractConnection::contentsAtPath(path, known, contents, error);
  const std::string folder = normalRemotePath(path);
  const auto news = known == 0 ? std::nullopt : iState->iListings.since(folder, known);
  if (!news) {
    *contents = {{}, true, iState->iListings.begin(folder)};
    if (!contentsAtPath(path, &contents->nodes, error)) return false;
    iState->iListings.fetched(folder, contents->number, 0);
    return true;
  }
  if (!settle(begin("newsAtPath", {std::string(path)}, path), error)) return false;
  *contents = {{}, false, news->number};
  WatchedLock lock(iState->iCondition);
  for (const KnownListings::NewItem& item : news->items) {
    const std::string itemPath = remotePathInFolder(folder, item.name);
    const ScriptedItem* present = iState->iTree.find(itemPath);
    if (present == nullptr || iState->iTree.isHidden(itemPath)) continue;
    contents->nodes.push_back(makeNode(*present, itemPath));
  }
  return true;
}

std::string ScriptedConnection::displayStringForRemoteString(std::string_view bytes) const {
  return iState->iCredentials->displayStringForRemoteString(bytes);
}

}  // namespace ombra
