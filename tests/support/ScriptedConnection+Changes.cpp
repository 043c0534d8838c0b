// Operations of the scripted connection that change the tree.
#include "platform/foundation/KCStringAdditions.h"
#include "remote/RemotePaths.h"
#include "tests/support/ScriptedConnection.h"

namespace ombra {
namespace {

std::string flag(bool value) { return value ? "1" : "0"; }

bool hasParent(ScriptedTree& tree, std::string_view path) {
  const ScriptedItem* parent = tree.findVisible(parentOfRemotePath(normalRemotePath(path)));
  return parent != nullptr && parent->type == kNodeTypeFolder;
}

}  // namespace

bool ScriptedConnection::createFolderAtPath(std::string_view path, NSErrorRef* error) {
  const CallVerdict verdict = begin("createFolderAtPath", {std::string(path)}, path);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  if (!hasParent(iState->iTree, path)) return refuse(kQuarnKitNoSuchItem, path, error);
  if (iState->iTree.find(path) != nullptr) return refuse(kQuarnKitItemExists, path, error);
  iState->iTree.add(path, kNodeTypeFolder);
  iState->iListings.madeFolder(path, 0);
  return true;
}

bool ScriptedConnection::createSymbolicLinkAtPath(std::string_view path, std::string_view resolvingToPath,
                                                  NSErrorRef* error) {
  const CallVerdict verdict =
      begin("createSymbolicLinkAtPath", {std::string(path), std::string(resolvingToPath)}, path);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  if (!hasParent(iState->iTree, path)) return refuse(kQuarnKitNoSuchItem, path, error);
  if (iState->iTree.find(path) != nullptr) return refuse(kQuarnKitItemExists, path, error);
  iState->iTree.add(path, kNodeTypeAlias).target = resolvingToPath;
  iState->iListings.forgetFolder(parentOfRemotePath(path));
  return true;
}

bool ScriptedConnection::moveItemFromPath(std::string_view path, bool isDirectory, std::string_view toPath,
                                          NSErrorRef* error) {
  const CallVerdict verdict =
      begin("moveItemFromPath", {std::string(path), flag(isDirectory), std::string(toPath)}, path);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  if (iState->iTree.find(path) == nullptr) return refuse(kQuarnKitNoSuchItem, path, error);
  if (!hasParent(iState->iTree, toPath)) return refuse(kQuarnKitNoSuchItem, toPath, error);
  if (iState->iTree.find(toPath) != nullptr) return refuse(kQuarnKitItemExists, toPath, error);
  iState->iTree.move(path, toPath);
  iState->iListings.forget(path);
  iState->iListings.forget(toPath);
  return true;
}

bool ScriptedConnection::flushFileAtPath(std::string_view path, NSErrorRef* error) {
  const CallVerdict verdict = begin("flushFileAtPath", {std::string(path)}, path);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  return iState->iTree.find(path) != nullptr || refuse(kQuarnKitNoSuchItem, path, error);
}

bool ScriptedConnection::deleteItemAtPath(std::string_view path, bool isDirectory, NSErrorRef* error) {
  const CallVerdict verdict = begin("deleteItemAtPath", {std::string(path), flag(isDirectory)}, path);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  const ScriptedItem* item = iState->iTree.find(path);
  if (item == nullptr) return refuse(kQuarnKitNoSuchItem, path, error);
  if (isDirectory != (item->type == kNodeTypeFolder)) return refuse(kQuarnKitRefused, path, error);
  if (!item->children.empty()) return refuse(kQuarnKitFolderNotEmpty, path, error);
  iState->iTree.remove(path);
  iState->iListings.forget(path);
  return true;
}

bool ScriptedConnection::changeAttributes(const NSFileAttributes& attributes, std::string_view atPath,
                                          NSErrorRef* error) {
  const CallVerdict verdict =
      begin("changeAttributes", {std::string(atPath), attributes.description()}, atPath);
  if (!settle(verdict, error)) return false;
  WatchedLock lock(iState->iCondition);
  ScriptedItem* item = iState->iTree.findVisible(atPath);
  if (item == nullptr) return refuse(kQuarnKitNoSuchItem, atPath, error);
  if (attributes.posixPermissions) item->attributes.posixPermissions = attributes.posixPermissions;
  if (attributes.modificationDate) item->attributes.modificationDate = attributes.modificationDate;
  if (attributes.creationDate) item->attributes.creationDate = attributes.creationDate;
  if (attributes.ownerAccountID) item->attributes.ownerAccountID = attributes.ownerAccountID;
  if (attributes.groupOwnerAccountID) item->attributes.groupOwnerAccountID = attributes.groupOwnerAccountID;
  return true;
}

}  // namespace ombra
