// Which names are desktop litter: files that file managers leave for themselves.
#pragma once

#include <string_view>

namespace ombra {

// Litter is recognised by its name alone, wherever it lies:
//   - "._NAME", ".DS_Store", ".fseventsd" and their like of Macs,
//   - "Thumbs.db", "desktop.ini" and their like of Windows, in any case of letters,
//   - ".directory" of KDE with the names it is saved under first, ".xdg-volume-info".
// Trash folders are not litter: what is in them was put there to be kept. Nor are lock files of programs,
// which are meant for other users of the server, nor the names under which programs save a document first.
class RedirectRules {
 public:
  static bool isLitterName(std::string_view name);

  // The path of the topmost litter that `path` is or lies in: "/a/.fseventsd" of "/a/.fseventsd/b". Empty
  // when no component is litter. `path` is absolute.
  static std::string_view litterInPath(std::string_view path);
  static bool isLitter(std::string_view path) { return !litterInPath(path).empty(); }
};

// The folder of a path, "/" for what lies at the top; and its last component.
std::string_view folderOf(std::string_view path);
std::string_view nameOf(std::string_view path);

}  // namespace ombra
