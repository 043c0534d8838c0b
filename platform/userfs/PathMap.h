// A map from paths to values that can follow the move of a folder.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ombra {

// True when `path` is `folder` or lies below it. "/" holds everything.
inline bool isAtOrBelow(std::string_view path, std::string_view folder) {
  if (folder == "/") return true;
  if (path.substr(0, folder.size()) != folder) return false;
  return path.size() == folder.size() || path[folder.size()] == '/';
}

// `path`, which is at or below `from`, as it reads after the move of `from` to `to`.
inline std::string movedPath(std::string_view path, std::string_view from, std::string_view to) {
  return std::string(to) + std::string(path.substr(from.size()));
}

// Several values may have the same path. Ordered, so that a subtree is a few neighbouring ranges. Not
// synchronised.
template <typename Value>
class PathMap {
 public:
  using Map = std::multimap<std::string, Value, std::less<>>;

  Map& all() { return iMap; }
  const Map& all() const { return iMap; }
  size_t size() const { return iMap.size(); }

  // The value at a path that has at most one; nullptr when there is none.
  Value* find(std::string_view path) {
    const auto found = iMap.find(path);
    return found == iMap.end() ? nullptr : &found->second;
  }
  // The value at a path that has at most one, made when there is none.
  Value& operator[](std::string_view path) {
    const auto found = iMap.find(path);
    return found != iMap.end() ? found->second : iMap.emplace(std::string(path), Value())->second;
  }
  void insert(std::string path, Value value) { iMap.emplace(std::move(path), std::move(value)); }

  // Takes out everything at and below `path`.
  std::vector<std::pair<std::string, Value>> extractSubtree(std::string_view path) {
    std::vector<std::pair<std::string, Value>> taken;
    take(iMap.lower_bound(path), iMap.upper_bound(path), taken);
    // '0' is the character after '/', so this range is what begins with "PATH/".
    const std::string prefix = path == "/" ? "/" : std::string(path) + "/";
    std::string end = prefix;
    end.back() = '0';
    take(iMap.lower_bound(prefix), iMap.lower_bound(end), taken);
    return taken;
  }

  // Gives everything at and below `from` its new path; `changed` is told each value and its new path.
  void moveSubtree(std::string_view from, std::string_view to,
                   const std::function<void(Value&, const std::string&)>& changed = {}) {
    for (auto& [path, value] : extractSubtree(from)) {
      std::string newPath = movedPath(path, from, to);
      if (changed) changed(value, newPath);
      iMap.emplace(std::move(newPath), std::move(value));
    }
  }

 private:
  void take(typename Map::iterator first, typename Map::iterator last,
            std::vector<std::pair<std::string, Value>>& taken) {
    for (auto entry = first; entry != last; entry = iMap.erase(entry)) {
      taken.emplace_back(entry->first, std::move(entry->second));
    }
  }

  Map iMap;
};

}  // namespace ombra
