#include "platform/userfs/redirect/RedirectRules.h"

#include <strings.h>

#include <algorithm>
#include <array>

namespace ombra {

namespace {

using Name = std::string_view;

constexpr std::array<Name, 11> kDottedNames{
    ".DS_Store",
    ".directory",
    ".directory.lock",
    ".xdg-volume-info",
    ".fseventsd",
    ".Spotlight-V100",
    ".DocumentRevisions-V100",
    ".TemporaryItems",
    ".apdisk",
    ".com.apple.timemachine.donotpresent",
    ".com.apple.timemachine.supported",
};
// Windows does not tell capital letters from small ones.
constexpr std::array<Name, 4> kPlainNames{"Thumbs.db", "desktop.ini", "ehthumbs.db", "ehthumbs_vista.db"};

constexpr Name kIcon = ".VolumeIcon.";
constexpr Name kFolderSettings = ".directory.";
constexpr size_t kRandomLetters = 6;

bool isLetterOrDigit(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
}

// KDE saves ".directory" under such a name and renames it then.
bool isUnfinishedFolderSettings(Name name) {
  if (!name.starts_with(kFolderSettings)) return false;
  name.remove_prefix(kFolderSettings.size());
  return name.size() == kRandomLetters && std::all_of(name.begin(), name.end(), isLetterOrDigit);
}

bool isDottedLitter(Name name) {
  if (name[1] == '_') return name.size() > 2;
  return std::find(kDottedNames.begin(), kDottedNames.end(), name) != kDottedNames.end() ||
         (name.starts_with(kIcon) && name.size() > kIcon.size()) || isUnfinishedFolderSettings(name);
}

bool isPlainLitter(Name name) {
  return std::any_of(kPlainNames.begin(), kPlainNames.end(), [name](Name litter) {
    return litter.size() == name.size() && strncasecmp(litter.data(), name.data(), name.size()) == 0;
  });
}

}  // namespace

// Asked for every component of every path: nearly all names are told by their first letters.
bool RedirectRules::isLitterName(std::string_view name) {
  if (name.size() < 3) return false;
  switch (name[0]) {
    case '.':
      return isDottedLitter(name);
    case 'T':
    case 't':
    case 'D':
    case 'd':
    case 'E':
    case 'e':
      return isPlainLitter(name);
    default:
      return false;
  }
}

std::string_view RedirectRules::litterInPath(std::string_view path) {
  for (size_t begin = 1; begin < path.size();) {
    const size_t end = std::min(path.find('/', begin), path.size());
    if (isLitterName(path.substr(begin, end - begin))) return path.substr(0, end);
    begin = end + 1;
  }
  return {};
}

std::string_view folderOf(std::string_view path) {
  const size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string_view::npos ? std::string_view("/") : path.substr(0, slash);
}

std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace ombra
