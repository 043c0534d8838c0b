#include "packaging/mount/MountOptions.h"

#include <fmt/format.h>
#include <sys/mount.h>

#include <algorithm>
#include <array>
#include <utility>

namespace ombra {
namespace {

using Word = std::string_view;

// Options of "ombra mount" that mount(8) may carry, "name=value" and without a value.
constexpr std::array kWithValue = {Word("identity"),    Word("password-file"), Word("icon"),
                                   Word("passthrough"), Word("encoding"),      Word("endpoint"),
                                   Word("region"),      Word("profile")};
constexpr std::array kWithoutValue = {Word("accept-new"), Word("ask-password"), Word("path-style"),
                                      Word("anonymous"), Word("streaming")};

// What concerns mount(8) itself, the order of start-up, or is so in every case.
constexpr std::array kIgnored = {Word("defaults"), Word("rw"),     Word("auto"),     Word("noauto"),
                                 Word("user"),     Word("users"),  Word("nouser"),   Word("owner"),
                                 Word("group"),    Word("async"),  Word("nofail"),   Word("_netdev"),
                                 Word("exec"),     Word("suid"),   Word("dev"),      Word("loud"),
                                 Word("atime"),    Word("silent"), Word("relatime"), Word("diratime")};

constexpr std::array<std::pair<Word, uint64_t>, 6> kAttributes = {{
    {"ro", MOUNT_ATTR_RDONLY},
    {"noexec", MOUNT_ATTR_NOEXEC},
    {"nosuid", MOUNT_ATTR_NOSUID},
    {"nodev", MOUNT_ATTR_NODEV},
    {"noatime", MOUNT_ATTR_NOATIME},
    {"nodiratime", MOUNT_ATTR_NODIRATIME},
}};

template <typename List>
bool contains(const List& list, Word word) {
  return std::find(list.begin(), list.end(), word) != list.end();
}

class Parser {
 public:
  Parser(const std::vector<std::string>& words, Word volumesFolder, std::string* failure)
      : iWords(words), iVolumesFolder(volumesFolder), iFailure(failure) {}

  std::optional<MountHelperOptions> parse() {
    for (iNext = 0; iNext < iWords.size();) {
      if (!word(iWords[iNext++])) return std::nullopt;
    }
    if (iPlain.size() != 2) {
      refuse("A URL and a mount point are needed: mount -t ombra URL /Volumes/NAME");
      return std::nullopt;
    }
    iResult.source = iPlain[0];
    iResult.mountPoint = iPlain[1];
    if (!checkSource() || !checkMountPoint()) return std::nullopt;
    return iResult;
  }

 private:
  bool refuse(std::string text) {
    *iFailure = std::move(text);
    return false;
  }

  bool word(const std::string& text) {
    if (text.size() < 2 || text[0] != '-') {
      iPlain.push_back(text);
      return true;
    }
    for (size_t i = 1; i < text.size(); ++i) {
      const char letter = text[i];
      if (letter == 'o' || letter == 't' || letter == 'N') {
        std::string value = text.substr(i + 1);
        if (value.empty()) {
          if (iNext == iWords.size()) return refuse(fmt::format("The option -{} needs a value.", letter));
          value = iWords[iNext++];
        }
        if (letter == 'N') return refuse("Another mount namespace is not supported (option -N).");
        return letter != 'o' || options(value);
      }
      if (!flag(letter)) return refuse(fmt::format("The option -{} is not known.", letter));
    }
    return true;
  }

  bool flag(char letter) {
    if (letter == 'f') iResult.fake = true;
    if (letter == 'v') iResult.verbose = true;
    if (letter == 's') iSloppy = true;
    return Word("fvsnwi").find(letter) != Word::npos;
  }

  // Separated by commas; within quotes a comma is part of the value, as mount(8) has it.
  bool options(Word list) {
    std::string current;
    bool quoted = false;
    for (const char c : list) {
      if (c == '"') {
        quoted = !quoted;
      } else if (c == ',' && !quoted) {
        if (!option(current)) return false;
        current.clear();
      } else {
        current += c;
      }
    }
    return option(current);
  }

  bool option(Word text) {
    if (text.empty() || text.starts_with("x-") || text.starts_with("X-") || text.starts_with("comment=") ||
        text.starts_with("user="))
      return true;
    const size_t equals = text.find('=');
    const Word name = text.substr(0, equals);
    if (equals == Word::npos ? withoutValue(name) : withValue(name, text.substr(equals + 1))) return true;
    if (!iFailure->empty()) return false;
    return iSloppy || unknown(text, equals != Word::npos);
  }

  bool withoutValue(Word name) {
    if (name == "remount")
      return refuse("A volume cannot be mounted again with other options: unmount it first.");
    if (contains(kIgnored, name)) return true;
    const auto attribute = std::find_if(kAttributes.begin(), kAttributes.end(),
                                        [name](const auto& entry) { return entry.first == name; });
    if (attribute != kAttributes.end()) {
      iResult.attributes |= attribute->second;
      return true;
    }
    if (!contains(kWithoutValue, name)) return false;
    iResult.arguments.push_back(fmt::format("--{}", name));
    return true;
  }

  bool withValue(Word name, Word value) {
    if (name != "uid" && name != "name" && !contains(kWithValue, name)) return false;
    if (value.empty()) return refuse(fmt::format("The option “{}” has no value.", name));
    if (name == "uid") {
      iResult.user = value;
    } else if (name == "name") {
      iName = value;
    } else {
      iResult.arguments.push_back(fmt::format("--{}={}", name, value));
    }
    return true;
  }

  bool unknown(Word text, bool hasValue) {
    const Word name = text.substr(0, text.find('='));
    if (!hasValue && (contains(kWithValue, name) || name == "uid" || name == "name"))
      return refuse(fmt::format("The option “{}” needs a value: {}=…", name, name));
    if (hasValue && contains(kWithoutValue, name))
      return refuse(fmt::format("The option “{}” takes no value.", name));
    return refuse(
        fmt::format("The option “{}” is not known. Known are: uid=, name=, {}=, {}, and those of every "
                    "file system (ro, noexec, nosuid, nodev, noatime, noauto, user, nofail, _netdev, x-…).",
                    name, fmt::join(kWithValue, "=, "), fmt::join(kWithoutValue, ", ")));
  }

  bool checkSource() {
    if (iResult.source.find("://") != std::string::npos) return true;
    return refuse(
        fmt::format("“{}” is no URL. What is mounted is written as sftp://user@host/path.", iResult.source));
  }

  bool checkMountPoint() {
    Word path = iResult.mountPoint;
    while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
    const std::string below = fmt::format("{}/", iVolumesFolder);
    const Word name = path.starts_with(below) ? path.substr(below.size()) : Word();
    if (name.empty() || name == "." || name == ".." || name.find('/') != Word::npos)
      return refuse(fmt::format(
          "Volumes are mounted directly below {0}, so “{1}” cannot be the mount point. Use {0}/NAME; "
          "where programs look for “{1}”, make it a link: ln -s {0}/NAME {1}",
          iVolumesFolder, iResult.mountPoint));
    if (name.find_first_of(":,") != Word::npos)
      return refuse(fmt::format("A volume's name holds neither colon nor comma: “{}”.", name));
    if (iName && *iName != name)
      return refuse(fmt::format(
          "The volume “{0}” is mounted at {1}/{0}, not at {2}. Leave out name=, or use that mount "
          "point.",
          *iName, iVolumesFolder, path));
    iResult.mountPoint = path;
    iResult.volumeName = name;
    return true;
  }

  const std::vector<std::string>& iWords;
  const Word iVolumesFolder;
  std::string* iFailure;
  size_t iNext = 0;
  bool iSloppy = false;
  std::vector<std::string> iPlain;
  std::optional<std::string> iName;
  MountHelperOptions iResult;
};

}  // namespace

std::optional<MountHelperOptions> parseMountHelperOptions(const std::vector<std::string>& words,
                                                          std::string_view volumesFolder,
                                                          std::string* failure) {
  failure->clear();
  return Parser(words, volumesFolder, failure).parse();
}

}  // namespace ombra
