#include "tests/support/ScriptedTree.h"

#include <algorithm>

#include "platform/foundation/KCStringAdditions.h"

namespace ombra {
namespace {

constexpr int kMaximumLinks = 40;

std::vector<std::string> names(std::string_view path) {
  std::vector<std::string> result;
  while (!path.empty()) {
    const size_t end = std::min(path.find('/'), path.size());
    const std::string_view name = path.substr(0, end);
    path.remove_prefix(std::min(end + 1, path.size()));
    if (name.empty() || name == ".") continue;
    if (name != "..") {
      result.emplace_back(name);
    } else if (!result.empty()) {
      result.pop_back();
    }
  }
  return result;
}

std::string parentOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }

std::string child(const std::string& folder, const std::string& name) {
  return folder == "/" ? folder + name : folder + "/" + name;
}

uint16_t defaultMode(uint32_t type) {
  if (type == kNodeTypeFolder) return 0755;
  return type == kNodeTypeAlias ? 0777 : 0644;
}

}  // namespace

ScriptedTree::ScriptedTree() { add("/", kNodeTypeFolder); }

std::string ScriptedTree::normalized(std::string_view path) {
  std::string result;
  for (const std::string& name : names(path)) result.append("/").append(name);
  return result.empty() ? "/" : result;
}

ScriptedItem* ScriptedTree::find(std::string_view path) {
  const auto found = iItems.find(normalized(path));
  return found != iItems.end() ? &found->second : nullptr;
}

const ScriptedItem* ScriptedTree::find(std::string_view path) const {
  const auto found = iItems.find(normalized(path));
  return found != iItems.end() ? &found->second : nullptr;
}

std::optional<std::string> ScriptedTree::resolve(std::string_view path) const {
  std::vector<std::string> pending = names(path);
  std::reverse(pending.begin(), pending.end());
  std::string resolved = "/";
  int links = 0;
  while (!pending.empty()) {
    const std::string name = std::move(pending.back());
    pending.pop_back();
    if (name == "..") {
      resolved = parentOf(resolved);
      continue;
    }
    const std::string next = child(resolved, name);
    const ScriptedItem* item = find(next);
    if (item == nullptr || item->type != kNodeTypeAlias) {
      resolved = next;
      continue;
    }
    if (++links > kMaximumLinks) return std::nullopt;
    // A relative target counts from the folder of the link.
    const std::string target =
        item->target.starts_with('/') ? normalized(item->target) : normalized(child(resolved, item->target));
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
  const std::string normal = normalized(path);
  const bool isNew = !iItems.contains(normal);
  if (isNew && normal != "/") {
    const std::string parent = parentOf(normal);
    if (!iItems.contains(parent)) add(parent, kNodeTypeFolder);
    iItems[parent].children.push_back(nameOf(normal));
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
  const std::string normal = normalized(path);
  if (normal == "/" || !iItems.contains(normal)) return;
  const std::vector<std::string> children = iItems[normal].children;
  for (const std::string& name : children) remove(child(normal, name));
  iItems.erase(normal);
  std::erase(iItems[parentOf(normal)].children, nameOf(normal));
}

void ScriptedTree::move(std::string_view from, std::string_view to) {
  const std::string source = normalized(from);
  const std::string destination = normalized(to);
  ScriptedItem item = *find(source);
  const std::vector<std::string> children = std::move(item.children);
  item.children.clear();
  add(destination, item.type) = item;
  for (const std::string& name : children) move(child(source, name), child(destination, name));
  remove(source);
}

void ScriptedTree::setHidden(std::string_view path, bool hidden) {
  if (hidden) {
    iHidden.insert(normalized(path));
  } else {
    iHidden.erase(normalized(path));
  }
}

bool ScriptedTree::isHidden(std::string_view path) const { return iHidden.contains(normalized(path)); }

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
