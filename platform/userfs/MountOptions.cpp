#include "platform/userfs/MountOptions.h"

#include <unistd.h>

#include <fstream>
#include <utility>

#include "platform/foundation/NSLog.h"

namespace ombra {

namespace {

constexpr size_t kLongestConf = 64 * 1024;

// The value behind "KEY=", absent when the option is another.
std::optional<std::string_view> valueOf(std::string_view option, std::string_view key) {
  if (option.substr(0, key.size()) != key) return std::nullopt;
  if (option.size() <= key.size() || option[key.size()] != '=') return std::nullopt;
  return option.substr(key.size() + 1);
}

bool isIgnored(std::string_view option) {
  // What they ask for is the nature of every volume here.
  return option == "cloudfs" || option == "netfs";
}

// False for an option that is not the redirect module's.
bool takeRedirectOption(std::string_view option, RedirectOptions* redirect) {
  if (const auto folder = valueOf(option, "redirect_folder")) {
    redirect->folder = std::string(*folder);
  } else if (const auto icon = valueOf(option, "redirect_volicon")) {
    redirect->icon = std::string(*icon);
  } else if (option == "redirect_sha1") {
    redirect->hashesNames = true;
  } else {
    return false;
  }
  return true;
}

std::string_view trimmed(std::string_view line) {
  constexpr std::string_view kBlank = " \t\r";
  const size_t first = line.find_first_not_of(kBlank);
  if (first == std::string_view::npos) return {};
  return line.substr(first, line.find_last_not_of(kBlank) - first + 1);
}

}  // namespace

std::string cleanedOptionValue(std::string_view value) {
  std::string cleaned(value);
  for (char& character : cleaned) {
    const bool isControl = static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
    if (character == ',' || character == '\\' || isControl) character = '_';
  }
  return cleaned;
}

bool allowsUserAllowOther(std::string_view text) {
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, end));
    if (line == "user_allow_other") return true;
    if (end == std::string_view::npos) return false;
    text.remove_prefix(end + 1);
  }
  return false;
}

MountOptions::Permission MountOptions::permission(const char* fuseConf) {
  std::ifstream file(fuseConf);
  std::string text(kLongestConf, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(file.gcount()));
  return {geteuid() == 0, allowsUserAllowOther(text)};
}

MountOptions MountOptions::parse(const std::vector<std::string>& options, Permission permission) {
  MountOptions parsed;
  RedirectOptions redirect;
  std::vector<std::string> ofRedirect;
  for (const std::string& option : options) {
    if (parsed.take(option)) continue;
    if (takeRedirectOption(option, &redirect)) {
      ofRedirect.push_back(option);
    } else if (isIgnored(option)) {
      parsed.ignored.push_back(option);
    } else {
      NSLog("Mount option \"{}\" is not known and has been left out.", cleanedOptionValue(option));
      parsed.unknown.push_back(option);
    }
  }
  if (parsed.allowRoot && !permission.isRoot && !permission.userAllowOther) {
    NSLog("Mount option \"allow_root\" has been left out: /etc/fuse.conf has no line \"user_allow_other\".");
    parsed.allowRoot = false;
  }
  if (parsed.redirect && redirect.folder.empty()) {
    NSLog("Mount option \"modules=redirect\" has been left out: \"redirect_folder=PATH\" is missing.");
    parsed.redirect.reset();
  }
  if (parsed.redirect) {
    parsed.redirect = std::move(redirect);
  } else {
    parsed.ignored.insert(parsed.ignored.end(), ofRedirect.begin(), ofRedirect.end());
    if (redirect.icon) NSLog("The volume is shown without its icon: the folder for it is missing.");
  }
  if (parsed.fsname.empty()) parsed.fsname = MountOptions().fsname;
  return parsed;
}

bool MountOptions::take(std::string_view option) {
  if (const auto name = valueOf(option, "fsname")) {
    fsname = cleanedOptionValue(*name);
  } else if (const auto shown = valueOf(option, "volname")) {
    volumeName = std::string(*shown);
  } else if (option == "debug") {
    debug = true;
  } else if (option == "allow_root") {
    allowRoot = true;
  } else if (option == "jail_symlinks") {
    jailSymlinks = true;
  } else if (option == "native_xattr") {
    nativeXattr = true;
  } else if (option == "modules=redirect") {
    redirect.emplace();
  } else {
    return false;
  }
  return true;
}

}  // namespace ombra
