#include "platform/userfs/redirect/VolumeInfo.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/foundation/ASCII.h"
#include "platform/userfs/redirect/LocalFile.h"
#include "platform/userfs/redirect/RedirectRules.h"

namespace ombra {

namespace {

// Tells our files from those that a user has made.
constexpr std::string_view kOurs = "# Shown for as long as the volume is mounted; not on the server.\n";
constexpr std::string_view kIconOfServers = "folder-remote";
constexpr size_t kLargestInfo = 64 * 1024;
constexpr size_t kLongestSuffix = 5;

// The text as a value of such a file, which ends with its line.
std::string valueOf(std::string_view text) {
  std::string value;
  for (const char byte : text) {
    if (byte == '\\') {
      value += "\\\\";
    } else if (byte == '\n') {
      value += "\\n";
    } else if (byte == '\r') {
      value += "\\r";
    } else if (byte == '\t') {
      value += "\\t";
    } else if (byte == ' ' && value.empty()) {
      value += "\\s";
    } else if (byte != '\0') {
      value += byte;
    }
  }
  return value;
}

bool isSuffix(std::string_view text) {
  return !text.empty() && text.size() <= kLongestSuffix && std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
  });
}

// A file of that name from an earlier mount that is not ours is somebody's own.
bool isSomebodysOwn(const LitterStore& store, std::string_view path) {
  const auto local = store.find(path);
  if (!local) return false;
  const auto content = LocalFile::contentOf(*local, kLargestInfo);
  return !content || content->find(kOurs) == std::string::npos;
}

int publishFile(LitterStore& store, std::string_view path, std::string_view content) {
  return isSomebodysOwn(store, path) ? 0 : store.makeHiddenFile(path, content);
}

}  // namespace

std::string VolumeInfo::info(std::string_view volumeName, std::string_view iconName) {
  std::string text = "[Volume Info]\n" + std::string(kOurs);
  if (!volumeName.empty()) text += "Name=" + valueOf(volumeName) + "\n";
  text += "Icon=" + std::string(kIconOfServers) + "\n";
  if (!iconName.empty()) text += "IconFile=" + std::string(iconName) + "\n";
  return text;
}

std::string VolumeInfo::iconName(std::string_view iconPath) {
  const std::string_view name = nameOf(iconPath);
  const size_t dot = name.rfind('.');
  const std::string suffix = lowercasedASCII(dot == std::string_view::npos ? "" : name.substr(dot + 1));
  return ".VolumeIcon." + (isSuffix(suffix) ? suffix : "img");
}

std::optional<std::string> VolumeInfo::publish(LitterStore& store, std::string_view volumeName,
                                               const std::optional<std::string>& iconPath) {
  std::optional<std::string> complaint;
  std::string icon;
  if (iconPath) {
    const auto image = LocalFile::contentOf(*iconPath, kLargestIcon);
    int number = image ? 0 : errno;
    const std::string name = iconName(*iconPath);
    if (number == 0) number = store.makeHiddenFile("/" + name, *image);
    if (number == 0) icon = name;
    if (number != 0) {
      const char* why = number == EINVAL  ? "it is not a file"
                        : number == EFBIG ? "it has more than 16 MiB"
                                          : std::strerror(number);
      complaint = "The icon \"" + *iconPath + "\" cannot be used: " + why +
                  ". The volume has the usual icon; mount it again with the path of an image.";
    }
  }
  publishFile(store, kInfoPath, info(volumeName, icon));
  if (!icon.empty()) {
    publishFile(store, kFolderPath, "[Desktop Entry]\n" + std::string(kOurs) + "Icon=./" + icon + "\n");
  }
  return complaint;
}

}  // namespace ombra
