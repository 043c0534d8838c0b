// What a listing has told of the links in it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "remote/Session.h"

namespace ombra {

// Answers questions about links and their targets without asking the server again, for as long as the
// connection is held that listed them and has changed nothing. Of one thread.
class KnownLinks {
 public:
  void add(const std::string& linkPath, const LinkResolution& resolution);
  void clear();
  // Of the link, or of a target that is known to be no link itself.
  std::optional<LinkResolution> resolution(std::string_view path) const;
  // Of a target; `attributes` is absent inside when the target is known not to exist.
  struct Target {
    std::optional<NSFileAttributes> attributes;
    bool isDirectory = false;
  };
  std::optional<Target> target(std::string_view path) const;

 private:
  std::map<std::string, LinkResolution, std::less<>> iLinks;
  std::map<std::string, Target, std::less<>> iTargets;
};

}  // namespace ombra
