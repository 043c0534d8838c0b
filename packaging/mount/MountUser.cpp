#include "packaging/mount/MountUser.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace ombra {
namespace {

const passwd* lookUp(const std::string& nameOrNumber) {
  if (const passwd* byName = ::getpwnam(nameOrNumber.c_str())) return byName;
  uid_t number = 0;
  const char* end = nameOrNumber.data() + nameOrNumber.size();
  const auto [rest, error] = std::from_chars(nameOrNumber.data(), end, number);
  return error == std::errc() && rest == end ? ::getpwuid(number) : nullptr;
}

std::string_view nameOf(std::string_view variable) { return variable.substr(0, variable.find('=')); }

}  // namespace

std::optional<MountUser> MountUser::find(const std::string& nameOrNumber, std::string* failure) {
  const passwd* entry = lookUp(nameOrNumber);
  if (entry == nullptr) {
    *failure = fmt::format("There is no user “{}” (option uid).", nameOrNumber);
    return std::nullopt;
  }
  if (entry->pw_dir == nullptr || entry->pw_dir[0] != '/') {
    *failure =
        fmt::format("The user “{}” has no home folder, where settings and logs are kept.", nameOrNumber);
    return std::nullopt;
  }
  return MountUser{entry->pw_uid, entry->pw_gid, entry->pw_name, entry->pw_dir,
                   entry->pw_shell == nullptr ? "" : entry->pw_shell};
}

std::vector<std::string> MountUser::environment() const {
  std::vector<std::string> result{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                  "HOME=" + home, "USER=" + name, "LOGNAME=" + name};
  if (!shell.empty()) result.push_back("SHELL=" + shell);
  // There while the user is logged in, and with it the message bus of the session.
  const std::string runtime = fmt::format("/run/user/{}", uid);
  struct stat status {};
  if (::stat(runtime.c_str(), &status) == 0 && status.st_uid == uid)
    result.push_back("XDG_RUNTIME_DIR=" + runtime);
  const bool same = uid == ::getuid();
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view key = nameOf(*variable);
    const bool ours = key == "LANG" || key.starts_with("LC_") || key == "TERM";
    const bool set = std::any_of(result.begin(), result.end(),
                                 [key](const std::string& other) { return nameOf(other) == key; });
    if ((same || ours) && !set) result.emplace_back(*variable);
  }
  return result;
}

bool MountUser::become() const {
  if (uid == ::getuid() && uid == ::geteuid()) return true;
  return ::initgroups(name.c_str(), gid) == 0 && ::setgid(gid) == 0 && ::setuid(uid) == 0;
}

}  // namespace ombra
