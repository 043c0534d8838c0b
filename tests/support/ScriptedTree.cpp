#include "tests/support/ScriptedTree.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"
#include "remote/RemotePaths.h"

namespace ombra {
namespace {

constexpr int kMaximumLinks = 40;

// Of a path in normal form.
std::vector<std::string> names(std::string_view path) {
  std::vector<std::string> result;
  while (path.size() > 1) {
    path.remove_prefix(1);
    result.emplace_back(path.substr(0, path.find('/')));
    path.remove_prefix(result.back().size());
  }
  return result;
}

uint16_t defaultMode(uint32_t type) {
  if (type == kNodeTypeFolder) return 0755;
  return type == kNodeTypeAlias ? 0777 : 0644;
}

}  // namespace

ScriptedTree::ScriptedTree() { add("/", kNodeTypeFolder); }

ScriptedItem* ScriptedTree::find(std::string_view path) {
  const auto found = iItems.find(normalRemotePath(path));
  return found != iItems.end() ? &found->second : nullptr;
}

const ScriptedItem* ScriptedTree::find(std::string_view path) const {
  const auto found = iItems.find(normalRemotePath(path));
  return found != iItems.end() ? &found->second : nullptr;
}

std::optional<std::string> ScriptedTree::resolve(std::string_view path) const {
  std::vector<std::string> pending = names(normalRemotePath(path));
  std::reverse(pending.begin(), pending.end());
  std::string resolved = "/";
  int links = 0;
  while (!pending.empty()) {
    const std::string name = std::move(pending.back());
    pending.pop_back();
    if (name == "..") {
      resolved = parentOfRemotePath(resolved);
      continue;
    }
    const std::string next = remotePathInFolder(resolved, name);
    const ScriptedItem* item = find(next);
    if (item == nullptr || item->type != kNodeTypeAlias) {
      resolved = next;
      continue;
    }
    if (++links > kMaximumLinks) return std::nullopt;
    // A relative target counts from the folder of the link.
    const std::string target = normalRemotePath(absoluteRemotePath(item->target, resolved));
    std::vector<std::string> inserted = names(target);
    pending.insert(pending.end(), inserted.rbegin(), inserted.rend());
    resolved = "/";
  }
  return resolved;
}

ScriptedItem* ScriptedTree::findVisible(std::string_view path) {
  const std::optional<std::string> resolved = resolve(path);
  if (!resolved || isHidden(*resolved)) return nullptr;
  return find(*resolved);
}

ScriptedItem& ScriptedTree::add(std::string_view path, uint32_t type) {
  const std::string normal = normalRemotePath(path);
  const bool isNew = !iItems.contains(normal);
  if (isNew && normal != "/") {
    const std::string parent = parentOfRemotePath(normal);
    if (!iItems.contains(parent)) add(parent, kNodeTypeFolder);
    iItems[parent].children.emplace_back(nameOfRemotePath(normal));
  }
  ScriptedItem& item = iItems[normal];
  if (item.type != type || isNew) item = ScriptedItem{};
  item.type = type;
  item.attributes.posixPermissions = defaultMode(type);
  item.attributes.modificationDate = NSDate::dateWithTimeIntervalSince1970(1000000000);
  item.attributes.creationDate = item.attributes.modificationDate;
  return item;
}

void ScriptedTree::remove(std::string_view path) {
  const std::string normal = normalRemotePath(path);
  if (normal == "/" || !iItems.contains(normal)) return;
  const std::vector<std::string> children = iItems[normal].children;
  for (const std::string& name : children) remove(remotePathInFolder(normal, name));
  iItems.erase(normal);
  std::erase(iItems[parentOfRemotePath(normal)].children, nameOfRemotePath(normal));
}

void ScriptedTree::move(std::string_view from, std::string_view to) {
  const std::string source = normalRemotePath(from);
  const std::string destination = normalRemotePath(to);
  ScriptedItem item = *find(source);
  const std::vector<std::string> children = std::move(item.children);
  item.children.clear();
  add(destination, item.type) = item;
  for (const std::string& name : children)
    move(remotePathInFolder(source, name), remotePathInFolder(destination, name));
  remove(source);
}

void ScriptedTree::setHidden(std::string_view path, bool hidden) {
  if (hidden) {
    iHidden.insert(normalRemotePath(path));
  } else {
    iHidden.erase(normalRemotePath(path));
  }
}

bool ScriptedTree::isHidden(std::string_view path) const { return iHidden.contains(normalRemotePath(path)); }

NSFileAttributes ScriptedTree::listedAttributes(const ScriptedItem& item) {
  NSFileAttributes attributes = item.attributes;
  attributes.fileType = item.type == kNodeTypeFolder  ? NSFileTypeValue::NSFileTypeDirectory
                        : item.type == kNodeTypeAlias ? NSFileTypeValue::NSFileTypeSymbolicLink
                                                      : NSFileTypeValue::NSFileTypeRegular;
  if (item.type == kNodeTypeFile) attributes.fileSize = item.content.size();
  if (item.type == kNodeTypeAlias) attributes.fileSize = item.target.size();
  if (item.listedSize) attributes.fileSize = *item.listedSize;
  return attributes;
}

}  // namespace ombra
