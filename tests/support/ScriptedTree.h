// The items of the scripted server.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/foundation/FileAttributes.h"
#include "remote/KCTypes.h"

namespace ombra {

struct ScriptedItem {
  uint32_t type = kNodeTypeFile;
  std::string content;
  std::string target;
  NSFileAttributes attributes;  // mode and dates; the size is the content's
  std::optional<std::optional<uint64_t>> listedSize;
  std::vector<std::string> children;  // in the order in which they came
};

// Folders, files and links by path. Not synchronised. Paths are brought into normal form first.
class ScriptedTree {
 public:
  ScriptedTree();

  // The item at the path itself; null when there is none.
  ScriptedItem* find(std::string_view path);
  const ScriptedItem* find(std::string_view path) const;
  // The path with all links followed; what does not exist is answered as far as it is known. Absent for a
  // circle.
  std::optional<std::string> resolve(std::string_view path) const;
  // The item behind all links; null for a hidden or missing one, and for a circle.
  ScriptedItem* findVisible(std::string_view path);

  // Makes the folders on the way. Replaces the item in place.
  ScriptedItem& add(std::string_view path, uint32_t type);
  void remove(std::string_view path);
  void move(std::string_view from, std::string_view to);
  void setHidden(std::string_view path, bool hidden);
  bool isHidden(std::string_view path) const;
  // What a listing or a question for attributes tells of the item.
  static NSFileAttributes listedAttributes(const ScriptedItem& item);

 private:
  std::map<std::string, ScriptedItem, std::less<>> iItems;
  std::set<std::string, std::less<>> iHidden;
};

}  // namespace ombra
