// The user whose volume is mounted.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace ombra {

struct MountUser {
  uid_t uid = 0;
  gid_t gid = 0;
  std::string name;
  std::string home;
  std::string shell;

  // By name or number; absent with a sentence in `failure` when there is none, or none with a home folder.
  static std::optional<MountUser> find(const std::string& nameOrNumber, std::string* failure);

  // The variables for the user's programs: what a login would set, and of ours the language, the terminal
  // and, where we are this user already, everything else.
  std::vector<std::string> environment() const;

  // Becomes this user for good; does nothing where we are it already. False when it is not permitted.
  bool become() const;
};

}  // namespace ombra
